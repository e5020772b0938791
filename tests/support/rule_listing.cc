#include "tests/support/rule_listing.h"

#include <yara.h>

#include <algorithm>
#include <memory>
#include <set>

#include "yara/yara_lib/yara_lib.h"

namespace vond::test {
namespace {

std::string Line(bool is_private, bool is_global, const std::string& name) {
  return std::string(is_private ? "private " : "") + (is_global ? "global " : "") + "rule " + name;
}

// Text as a C string, which is how the engine keeps it.
std::string Quoted(const std::string& text) { return yara_source::QuoteText(text.c_str()); }

std::string MetaText(const yara_source::MetaValue& value) {
  if (const auto* text = std::get_if<std::string>(&value)) {
    return Quoted(*text);
  }
  if (const auto* number = std::get_if<std::int64_t>(&value)) {
    return std::to_string(*number);
  }
  return std::get<bool>(value) ? "true" : "false";
}

std::string MetaText(const YR_META& meta) {
  switch (meta.type) {
    case META_TYPE_STRING:
      return Quoted(meta.string);
    case META_TYPE_BOOLEAN:
      return meta.integer != 0 ? "true" : "false";
    default:
      return std::to_string(meta.integer);
  }
}

std::string ModuleLines(const std::set<std::string>& modules) {
  std::string lines;
  for (const std::string& module : modules) {
    lines += "import " + module + "\n";
  }
  return lines;
}

int CollectModules(YR_SCAN_CONTEXT*, int message, void* data, void* user_data) noexcept {
  if (message == CALLBACK_MSG_IMPORT_MODULE) {
    static_cast<std::set<std::string>*>(user_data)->insert(static_cast<YR_MODULE_IMPORT*>(data)->module_name);
  }
  return CALLBACK_CONTINUE;
}

}  // namespace

std::optional<std::string> ListingByCompiler(const std::string& source) {
  (void)korvo::yara::yara_lib::YaraLib::Instance();
  YR_COMPILER* raw_compiler = nullptr;
  if (source.find('\0') != std::string::npos || yr_compiler_create(&raw_compiler) != ERROR_SUCCESS) {
    return std::nullopt;
  }
  const std::unique_ptr<YR_COMPILER, void (*)(YR_COMPILER*)> compiler(raw_compiler, &yr_compiler_destroy);
  yr_compiler_set_include_callback(compiler.get(), nullptr, nullptr, nullptr);
  YR_RULES* rules = nullptr;
  if (yr_compiler_add_string(compiler.get(), source.c_str(), nullptr) != 0 ||
      yr_compiler_get_rules(compiler.get(), &rules) != ERROR_SUCCESS) {
    return std::nullopt;
  }
  std::set<std::string> modules;
  static const std::uint8_t kNothing = 0;
  yr_rules_scan_mem(rules, &kNothing, 0, 0, &CollectModules, &modules, 1);
  std::string lines = ModuleLines(modules);
  const YR_RULE* rule = nullptr;
  yr_rules_foreach(rules, rule) {
    lines += Line(RULE_IS_PRIVATE(rule), RULE_IS_GLOBAL(rule), rule->identifier) + ":";
    const char* tag = nullptr;
    yr_rule_tags_foreach(rule, tag) { lines += std::string(" ") + tag; }
    const YR_META* meta = nullptr;
    yr_rule_metas_foreach(rule, meta) { lines += std::string(" ") + meta->identifier + "=" + MetaText(*meta); }
    lines += '\n';
  }
  yr_rules_destroy(rules);
  return lines;
}

std::string ListingByIndex(const yara_source::SourceIndex& index) {
  std::set<std::string> modules;
  for (const yara_source::Directive& import : index.imports) {
    modules.insert(import.text.c_str());
  }
  std::string lines = ModuleLines(modules);
  for (const yara_source::RuleText& rule : index.rules) {
    lines += Line(rule.is_private, rule.is_global, rule.name) + ":";
    for (const std::string& tag : rule.tags) {
      lines += " " + tag;
    }
    for (const yara_source::MetaItem& item : rule.meta) {
      lines += " " + item.key + "=" + MetaText(item.value);
    }
    lines += '\n';
  }
  return lines;
}

}  // namespace vond::test
