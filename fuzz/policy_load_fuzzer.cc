// A policy of one rule set and some overrides, from source to scans. An input is rule source, or lines with an override
// each ("id key type:value"), a line "%%", and rule source.

#include <sstream>

#include "fuzz/fuzz_support.h"
#include "static_pattern_matching/rule_metadata.h"
#include "static_pattern_matching/yara_config.h"
#include "yara/yara_lib/yara_lib.h"
#include "yara/yara_lib/yara_messages.h"

namespace {

using korvo::static_pattern_matching_daemon::ActionFromWord;
using korvo::static_pattern_matching_daemon::RuleAction;
using korvo::static_pattern_matching_daemon::YaraConfig;
using korvo::yara::yara_lib::MetadataValueToText;
using korvo::yara::yara_lib::YaraLib;
using korvo::yara::yara_lib::YaraRuleInfo;
using static_pattern_matching_proto::UserConfigData;
using vond::fuzz::MakeFile;
using vond::fuzz::Require;

constexpr std::string_view kSeparator = "%%\n";

void AddOverride(const std::string& line, UserConfigData& document) {
  std::istringstream words(line);
  std::string id;
  std::string key;
  std::string value;
  words >> id >> key;
  words.ignore();
  std::getline(words, value);
  auto& rule_override = *document.add_rule_overrides();
  rule_override.set_rule_id(id);
  rule_override.mutable_item()->set_key(key);
  auto& typed = *rule_override.mutable_item()->mutable_value();
  if (value.starts_with("s:")) {
    typed.set_string_value(value.substr(2));
  } else if (value.starts_with("i:")) {
    typed.set_int_value(std::strtoll(value.c_str() + 2, nullptr, 10));
  } else if (value.starts_with("b:")) {
    typed.set_bool_value(value == "b:true");
  }
}

std::string Text(const YaraRuleInfo& rule, const char* key) {
  const auto* const item = rule.FindMetadata(key);
  return item == nullptr ? "" : MetadataValueToText(item->value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vond::fuzz::SetUp();
  static const auto target = MakeFile("MZ a file of no great interest, https://example.com/ 0123456789");
  std::string_view source(reinterpret_cast<const char*>(data), size);
  UserConfigData document;
  document.add_rule_sets();
  const std::size_t separator = source.find(kSeparator);
  if (separator != std::string_view::npos) {
    std::istringstream lines{std::string(source.substr(0, separator))};
    for (std::string line; std::getline(lines, line);) {
      AddOverride(line, document);
    }
    source.remove_prefix(separator + kSeparator.size());
  }

  if (!document.ParseFromString(document.SerializeAsString())) {
    return 0;  // an override that is not UTF-8, which no document can bring
  }

  const auto file = MakeFile(source);
  std::optional<YaraConfig> config;
  try {
    config.emplace(document, std::vector<int>{file.Get()});
  } catch (const std::exception&) {
    return 0;
  }
  const YaraConfig::RuleSetPtr& rules = config->GetRuleSets().at(0).at(0);
  for (std::size_t i = 0; i < rules->size(); ++i) {
    const YaraRuleInfo& rule = rules->GetRule(i);
    Require(!Text(rule, "id").empty(), "every rule has an id");
    Require(ActionFromWord(Text(rule, "action")) != RuleAction::kInvalid, "every rule has an action");
  }
  const auto outcome = YaraLib::Instance().ScanFileDescriptor(rules, target.Get(), {1, 0, 1});
  for (const auto& rule : outcome.matches) {
    Require(ActionFromWord(Text(*rule, "action")) != RuleAction::kDisable, "no disabled rule matches");
  }
  Require(yara_lib::YaraScanResult().ParseFromString(SerializeOutcome(outcome)), "what matched can be sent");
  return 0;
}
