#include "yara/yara_lib/yara_lib.h"

#include <yara.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <utility>

#include "korvo_common/scan_fault_guard.h"
#include "utils/assertion.h"
#include "yara/yara_lib/scan_callback.h"
#include "yara/yara_lib/yara_exceptions.h"

namespace korvo::yara::yara_lib {
namespace {

using korvo::utils::WriteAssertion;

constexpr const char* kSource = "yara/yara_lib/yara_lib";
constexpr const char* kZeroByteMessage = "zero byte in the rule source";

[[noreturn]] void FailWithError(int line, std::string_view condition, std::string_view message, int error) {
  WriteAssertion(line, kSource, condition, message);
  throw YaraException(error);
}

void CheckSetting(int line, YaraConfigurationName config_setting, std::string_view message) {
  // Signed on purpose: libyara refuses negative ones itself.
  if (config_setting >= YaraConfigurationName::Max) {
    WriteAssertion(line, kSource, "config_setting < YaraConfigurationName::Max", message);
    throw std::out_of_range("config_setting");
  }
}

std::string TextOrEmpty(const char* text) { return text == nullptr ? std::string() : std::string(text); }

struct CompilerDeleter {
  void operator()(YR_COMPILER* compiler) const noexcept { ::yr_compiler_destroy(compiler); }
};

// What one compilation hands through libyara to its callbacks.
struct Compilation {
  std::vector<CompilerMessage> messages;
  CompiledRules::Bytes output;
  std::exception_ptr exception;

  void RethrowIfFailed() const {
    if (exception) {
      std::rethrow_exception(exception);
    }
  }
};

void OnCompilerMessage(int error_level, const char* file_name, int line_number, const YR_RULE* rule,
                       const char* message, void* user_data) noexcept {
  auto& compilation = *static_cast<Compilation*>(user_data);
  try {
    compilation.messages.push_back({error_level, TextOrEmpty(file_name), line_number,
                                    rule == nullptr ? std::string() : TextOrEmpty(rule->identifier),
                                    TextOrEmpty(message)});
  } catch (...) {
    compilation.exception = std::current_exception();
  }
}

std::size_t WriteImage(const void* data, std::size_t size, std::size_t count, void* user_data) noexcept {
  if (size == 0 || count == 0) {
    return 0;
  }
  auto& compilation = *static_cast<Compilation*>(user_data);
  try {
    const auto* const bytes = static_cast<const std::uint8_t*>(data);
    compilation.output.insert(compilation.output.end(), bytes, bytes + size * count);
    return count;
  } catch (...) {
    compilation.exception = std::current_exception();
    return 0;
  }
}

struct ImageReader {
  const CompiledRules::Bytes& bytes;
  std::size_t offset = 0;
};

std::size_t ReadImage(void* data, std::size_t size, std::size_t count, void* user_data) noexcept {
  if (size == 0 || count == 0) {
    return 0;
  }
  auto& reader = *static_cast<ImageReader*>(user_data);
  const std::size_t items = std::min(count, (reader.bytes.size() - reader.offset) / size);
  if (items > 0) {
    std::memcpy(data, reader.bytes.data() + reader.offset, items * size);
    reader.offset += items * size;
  }
  return items;
}

// Compiles `source` into rules; a result other than 0 is libyara's code or its number of errors.
int CompileSource(const std::string& source, Compilation& compilation, YR_RULES** rules) {
  YR_COMPILER* raw_compiler = nullptr;
  int result = ::yr_compiler_create(&raw_compiler);
  if (result != ERROR_SUCCESS) {
    return result;
  }
  const std::unique_ptr<YR_COMPILER, CompilerDeleter> compiler(raw_compiler);
  ::yr_compiler_set_callback(compiler.get(), &OnCompilerMessage, &compilation);
  ::yr_compiler_set_include_callback(compiler.get(), nullptr, nullptr, nullptr);

  const std::size_t zero = source.find('\0');
  if (zero != std::string::npos) {
    const auto lines = std::count(source.begin(), source.begin() + static_cast<std::ptrdiff_t>(zero), '\n');
    compilation.messages.push_back({0, "", static_cast<std::int32_t>(lines + 1), "", kZeroByteMessage});
    return 1;
  }
  result = ::yr_compiler_add_string(compiler.get(), source.c_str(), nullptr);
  if (result != 0) {
    return result;
  }
  return ::yr_compiler_get_rules(compiler.get(), rules);
}

int ScanCallback(YR_SCAN_CONTEXT* /*context*/, int message, void* message_data, void* user_data) noexcept {
  const korvo_common::ScanFaultPause pause;
#ifdef CALLBACK_MSG_TOO_SLOW_SCANNING
  // From 4.3 on libyara asks whether to go on when a scan promises to be slow. It goes on, as before: for how long is
  // the time-out's matter, and a file above 200 KB must not be left unscanned because of one rule.
  if (message == CALLBACK_MSG_TOO_SLOW_SCANNING) {
    return CALLBACK_CONTINUE;
  }
#endif
  return OnScanMessage(message, message_data, user_data);
}

// Runs `scan` (rules, flags, callback, context, timeout to libyara's result) as often as the options want, each time
// within a ScanFaultScope made from `scanned`.
template <typename Scan, typename... Scanned>
YaraScanOutcome ScanWithRetries(const std::shared_ptr<YaraRuleSet>& rule_set, const YaraScanOptions& options,
                                const Scan& scan, const Scanned&... scanned) {
  YaraScanOutcome outcome;
  if (rule_set == nullptr) {
    WriteAssertion(387, kSource, "rule_set", "rule_set is null");
    return outcome;
  }
  YR_RULES* const yr_rules = rule_set->GetRawRules().get();
  if (yr_rules == nullptr) {
    WriteAssertion(388, kSource, "rule_set->raw_rules_", "YR_RULES* is null");
    return outcome;
  }

  const auto lock = rule_set->LockForReading();
  ScanContext context{
      rule_set, yr_rules, rule_set->GetModules(), options.report_private_rules != 0, {}, std::exception_ptr()};
  const auto run = [&] {
    context.matches.clear();
    bool faulted = false;
    {
      const korvo_common::ScanFaultScope scope(scanned...);
      outcome.error = scan(yr_rules, SCAN_FLAGS_REPORT_RULES_MATCHING, &ScanCallback, &context,
                           static_cast<int>(options.timeout_in_seconds));
      faulted = scope.HasFaulted();
    }
    if (context.exception) {
      std::rethrow_exception(context.exception);
    }
    if (faulted) {
      // Part of what was scanned were zeros instead of the file.
      context.matches.clear();
      if (outcome.error == ERROR_SUCCESS) {
        outcome.error = ERROR_COULD_NOT_MAP_FILE;
      }
    }
    return outcome.error == ERROR_SUCCESS && !context.matches.empty();
  };

  bool matched = run();
  for (std::uint32_t repeats = 0; matched && repeats < options.retries_on_match; ++repeats) {
    matched = run();
  }
  outcome.matches = std::move(context.matches);
  for (std::size_t i = 0; i < outcome.matches.size(); ++i) {
    outcome.match_by_name.emplace(outcome.matches[i]->name, i);
  }
  return outcome;
}

}  // namespace

YaraCompilationException::YaraCompilationException(std::int32_t error_code, std::vector<CompilerMessage> all_messages,
                                                   bool treat_warnings_as_errors)
    : YaraException("Yara compilation error(s).", error_code), messages(std::move(all_messages)) {
  for (const CompilerMessage& message : messages) {
    if (message.level == YARA_ERROR_LEVEL_ERROR || treat_warnings_as_errors) {
      ++error_count;
    } else {
      ++warning_count;
    }
  }
}

YaraLib& YaraLib::Instance() {
  static YaraLib engine;
  return engine;
}

YaraLib::YaraLib() {
  // libyara counts its users before it initialises, so that after a failure the next call does nothing and succeeds.
  // That success can't be believed: the first failure stays the answer.
  static int first_failure = ERROR_SUCCESS;
  int error = ::yr_initialize();
  if (error == ERROR_SUCCESS) {
    error = first_failure;
  }
  if (error != ERROR_SUCCESS) {
    first_failure = error;
    FailWithError(317, "!error", "could not initialize Yara library", error);
  }
}

YaraLib::~YaraLib() { ::yr_finalize(); }

void YaraLib::GetConfiguration(YaraConfigurationName config_setting, void* value) {
  CheckSetting(300, config_setting, "configuration setting not supported");
  const int error = ::yr_get_configuration(static_cast<YR_CONFIG_NAME>(config_setting), value);
  if (error != ERROR_SUCCESS) {
    FailWithError(303, "!error", "could not get configuration value", error);
  }
}

void YaraLib::SetConfiguration(YaraConfigurationName config_setting, std::uint32_t value) {
  CheckSetting(308, config_setting, "configuration setting not supported ");
  const int error = ::yr_set_configuration(static_cast<YR_CONFIG_NAME>(config_setting), &value);
  if (error != ERROR_SUCCESS) {
    FailWithError(311, "!error", "could not set configuration value", error);
  }
}

CompiledRules YaraLib::Compile(const std::string& source, bool treat_warnings_as_errors) {
  Compilation compilation;
  YR_RULES* raw_rules = nullptr;
  int error = CompileSource(source, compilation, &raw_rules);
  const std::shared_ptr<YR_RULES> rules = Make_raw_rules_ptr(raw_rules);
  compilation.RethrowIfFailed();
  if (error != 0) {
    WriteAssertion(332, kSource, "!error", "Yara compilation error");
    throw YaraCompilationException(error, std::move(compilation.messages), treat_warnings_as_errors);
  }

  YR_STREAM stream{};
  stream.user_data = &compilation;
  stream.write = &WriteImage;
  error = ::yr_rules_save_stream(rules.get(), &stream);
  compilation.RethrowIfFailed();
  if (error != ERROR_SUCCESS) {
    FailWithError(335, "!error", "could not write compiled rules to stream", error);
  }
  const std::uint32_t checksum = CompiledRules::Checksum(compilation.output);
  return {std::make_shared<const CompiledRules::Bytes>(std::move(compilation.output)), checksum};
}

std::shared_ptr<YaraRuleSet> YaraLib::Load(const CompiledRules& compiled_rules, const std::string& id_key,
                                           const std::vector<std::string>& modules) {
  if (compiled_rules.get_data_ptr() == nullptr) {
    WriteAssertion(344, kSource, "compiled_rules.get_data_ptr()", "buffer data is null");
    return nullptr;
  }
  int error = ERROR_CORRUPT_FILE;
  YR_RULES* yr_rules = nullptr;
  std::shared_ptr<YR_RULES> raw_rules;
  if (compiled_rules.IsIntact()) {
    ImageReader reader{*compiled_rules.get_data_ptr()};
    YR_STREAM stream{};
    stream.user_data = &reader;
    stream.read = &ReadImage;
    error = ::yr_rules_load_stream(&stream, &yr_rules);
    raw_rules = Make_raw_rules_ptr(error == ERROR_SUCCESS ? yr_rules : nullptr);
    if (error == ERROR_SUCCESS && reader.offset != reader.bytes.size()) {
      error = ERROR_CORRUPT_FILE;
    }
  }
  if (error != ERROR_SUCCESS || raw_rules == nullptr) {
    FailWithError(353, "!error && yr_rules", "could not load rules from Yara buffer", error);
  }
  return std::make_shared<YaraRuleSet>(std::move(raw_rules), id_key, modules);
}

std::shared_ptr<YaraRuleSet> YaraLib::CompileAndLoad(const std::string& source, const std::string& id_key,
                                                     bool treat_warnings_as_errors,
                                                     const std::vector<std::string>& modules) {
  return Load(Compile(source, treat_warnings_as_errors), id_key, modules);
}

YaraScanOutcome YaraLib::ScanFileDescriptor(const std::shared_ptr<YaraRuleSet>& rule_set, int fd,
                                            const YaraScanOptions& options) {
  return ScanWithRetries(
      rule_set, options,
      [fd](YR_RULES* rules, int flags, YR_CALLBACK_FUNC callback, void* context, int timeout) {
        return ::yr_rules_scan_fd(rules, fd, flags, callback, context, timeout);
      },
      fd);
}

YaraScanOutcome YaraLib::ScanMemory(const std::uint8_t* data, std::size_t length,
                                    const std::shared_ptr<YaraRuleSet>& rule_set, const YaraScanOptions& options) {
  return ScanWithRetries(
      rule_set, options,
      [data, length](YR_RULES* rules, int flags, YR_CALLBACK_FUNC callback, void* context, int timeout) {
        return ::yr_rules_scan_mem(rules, data, length, flags, callback, context, timeout);
      },
      static_cast<const void*>(data), length);
}

}  // namespace korvo::yara::yara_lib
