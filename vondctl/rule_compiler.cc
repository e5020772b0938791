#include "vondctl/rule_compiler.h"

#include <fmt/format.h>
#include <yara.h>

#include <algorithm>
#include <exception>

#include "yara/yara_lib/yara_lib.h"

namespace vond::vondctl {
namespace {

struct CompilerDeleter {
  void operator()(YR_COMPILER* compiler) const noexcept { ::yr_compiler_destroy(compiler); }
};

// What one compilation hands through libyara to its callback.
struct Reports {
  std::vector<CompilerReport> reports;
  std::exception_ptr exception;
};

void OnCompilerMessage(int level, const char* /*file*/, int line, const YR_RULE* rule, const char* message,
                       void* user_data) noexcept {
  auto& context = *static_cast<Reports*>(user_data);
  try {
    context.reports.push_back({level == YARA_ERROR_LEVEL_ERROR, std::max(line, 0),
                               rule == nullptr || rule->identifier == nullptr ? "" : rule->identifier,
                               message == nullptr ? "" : message});
  } catch (...) {
    context.exception = std::current_exception();
  }
}

// The text between the first two quotes of `message` if that begins with `prefix`.
std::string QuotedBehind(std::string_view message, std::string_view prefix) {
  if (!message.starts_with(prefix)) {
    return {};
  }
  const std::size_t begin = prefix.size();
  return std::string(message.substr(begin, message.find('"', begin) - begin));
}

}  // namespace

CompiledSource CompileRuleSource(const std::string& source) {
  static_cast<void>(korvo::yara::yara_lib::YaraLib::Instance());  // starts libyara
  CompiledSource compiled;
  const std::size_t zero = source.find('\0');
  if (zero != std::string::npos) {
    const auto lines = std::count(source.begin(), source.begin() + static_cast<std::ptrdiff_t>(zero), '\n');
    compiled.reports.push_back({true, lines + 1, "", "zero byte in the rule source"});
    return compiled;
  }

  YR_COMPILER* raw_compiler = nullptr;
  if (::yr_compiler_create(&raw_compiler) != ERROR_SUCCESS) {
    throw std::bad_alloc();
  }
  const std::unique_ptr<YR_COMPILER, CompilerDeleter> compiler(raw_compiler);
  Reports context;
  ::yr_compiler_set_callback(compiler.get(), &OnCompilerMessage, &context);
  ::yr_compiler_set_include_callback(compiler.get(), nullptr, nullptr, nullptr);
  int result = ::yr_compiler_add_string(compiler.get(), source.c_str(), nullptr);
  YR_RULES* rules = nullptr;
  if (result == 0) {  // a compiler that reported an error must not be used again
    result = ::yr_compiler_get_rules(compiler.get(), &rules);
  }
  if (context.exception) {
    std::rethrow_exception(context.exception);
  }
  compiled.reports = std::move(context.reports);
  if (result == 0) {
    compiled.rules.reset(rules, [](YR_RULES* loaded) { ::yr_rules_destroy(loaded); });
  } else if (std::none_of(compiled.reports.begin(), compiled.reports.end(),
                          [](const CompilerReport& report) { return report.is_error; })) {
    compiled.reports.push_back({true, 0, "", fmt::format("the compiler failed with error {}", result)});
  }
  return compiled;
}

std::string UndefinedIdentifier(std::string_view message) { return QuotedBehind(message, "undefined identifier \""); }

bool IsSlowStringWarning(std::string_view message) {
  return message.find("slow down scanning") != std::string_view::npos;
}

}  // namespace vond::vondctl
