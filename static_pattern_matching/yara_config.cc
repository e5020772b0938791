#include "static_pattern_matching/yara_config.h"

#include <utility>

#include "static_pattern_matching/rule_metadata.h"
#include "static_pattern_matching/rule_set_decoder.h"
#include "utils/checked_access.h"
#include "utils/linux_utils.h"
#include "utils/log.h"
#include "yara/yara_lib/yara_lib.h"
#include "yara/yara_lib/yara_messages.h"

namespace korvo::static_pattern_matching_daemon {
namespace {

using korvo::yara::yara_lib::CompilerMessage;
using korvo::yara::yara_lib::MetadataValueFromMessage;
using korvo::yara::yara_lib::MetadataValueToText;
using korvo::yara::yara_lib::YaraCompilationException;
using korvo::yara::yara_lib::YaraLib;
using korvo::yara::yara_lib::YaraMetadataItem;
using korvo::yara::yara_lib::YaraMetadataValue;
using korvo::yara::yara_lib::YaraRuleInfo;
using korvo::yara::yara_lib::YaraRuleSet;
using static_pattern_matching_proto::RuleOverride;
using static_pattern_matching_proto::UserConfigData;

constexpr const char* kIdKey = "id";
constexpr const char* kActionKey = "action";

// The text of the rule's item `key`; a missing one is an out-of-range error. Validating and disabling both look here,
// so that they see the same item when a key repeats.
std::string MetadataText(const YaraRuleInfo& rule, const std::string& key) {
  const YaraMetadataItem* const item = rule.FindMetadata(key);
  if (item == nullptr) {
    korvo::utils::ThrowMapAt();
  }
  return MetadataValueToText(item->value);
}

void ValidateRule(const YaraRuleInfo& rule) {
  try {
    const std::string id = MetadataText(rule, kIdKey);
    if (id.empty()) {
      throw YaraConfig::Exception("Invalid id for rule name: " + rule.name);
    }
    if (ActionFromWord(MetadataText(rule, kActionKey)) == RuleAction::kInvalid) {
      throw YaraConfig::Exception("Invalid action for rule id: " + id);
    }
  } catch (const std::exception& e) {
    LOG_ERROR("Failed validating rule name: ", rule.name, " with error: ", e.what());
    LOG_ERROR("Make sure the rule has all the mandatory metadata items (i.e. id, action)");
    throw;
  }
}

// The exception's own text is fixed, so the log is the only place where the agent's people can see what to mend.
void LogCompilerErrors(const std::vector<CompilerMessage>& messages) {
  constexpr std::size_t kMaxLines = 20;
  for (std::size_t i = 0; i < messages.size() && i < kMaxLines; ++i) {
    LOG_ERROR("Compiler message: line ", messages[i].line_number, ": ", messages[i].message);
  }
}

}  // namespace

YaraConfig::YaraConfig(UserConfigData document, const std::vector<int>& fds, YaraConfigLoadFailure* failure)
    : user_config_(std::move(document)) {
  LOG_INFO("YaraConfig is loading the configuration..");
  YaraConfigLoadFailure ignored;
  try {
    Load(fds, failure == nullptr ? ignored : *failure);
  } catch (const std::exception& e) {
    LOG_ERROR("YaraConfig configuration load failed with error: ", e.what());
    throw;
  }
  LOG_INFO("YaraConfig loaded successfully");
}

void YaraConfig::Load(const std::vector<int>& fds, YaraConfigLoadFailure& failure) {
  CompileRules(fds, failure);
  LOG_DEBUG("Applying overrides...");
  for (const RuleOverride& rule_override : user_config_.rule_overrides()) {
    ApplyOverride(rule_override);
  }
  LOG_DEBUG("Validating rules...");
  ValidateRules(failure);
  DisableMarkedRules();
  RefuseDisabledMembers(failure);
  TraceRules();
}

void YaraConfig::CompileRules(const std::vector<int>& fds, YaraConfigLoadFailure& failure) {
  LOG_INFO("Compiling rules...");
  for (int i = 0; i < user_config_.rule_sets_size(); ++i) {
    const UserConfigData::RuleSetFileInfo& info = user_config_.rule_sets(i);
    failure.rule_set = i;
    // A negative index becomes a huge one, as in the text of the error.
    const int fd = korvo::utils::VectorAt(fds, static_cast<std::size_t>(info.fd_index()));
    LOG_INFO("Compiling ruleset with file type: ", info.file_type(),
             " rule type: ", static_cast<int>(info.rule_type()));
    const std::string source = DecodeRuleSet(utils::LinuxUtils::ReadFile(fd));
    RuleSetPtr rule_set;
    try {
      rule_set = YaraLib::Instance().CompileAndLoad(source, kIdKey, user_config_.yara_treat_warnings_as_errors(), {});
    } catch (const YaraCompilationException& e) {
      LogCompilerErrors(e.messages);
      failure.compiler_messages = e.messages;
      throw;
    }
    if (rule_set == nullptr) {
      throw Exception("Compiled rules are missing");
    }
    LOG_INFO("Compiled ruleset successfully");
    rule_sets_[info.file_type()][info.rule_type()] = std::move(rule_set);
  }
  failure.rule_set = -1;
  LOG_INFO("Compiled rules successfully");
}

void YaraConfig::ApplyOverride(const RuleOverride& rule_override) {
  const std::string& id = rule_override.rule_id();
  LOG_DEBUG("Applying override for rule ID: ", id);
  for (auto& [file_type, by_rule_type] : rule_sets_) {
    for (auto& [rule_type, rule_set] : by_rule_type) {
      if (!rule_set->HasRule(id)) {
        continue;
      }
      try {
        const std::string& key = rule_override.item().key();
        const YaraMetadataValue value = MetadataValueFromMessage(rule_override.item().value());
        rule_set->SetMetadata(id, key, value);
        LOG_INFO("Applied override for ", id, " ", key, ":", MetadataValueToText(value));
        return;
      } catch (const std::exception& e) {
        // No blank before "with": the agent's log filters know the line so.
        LOG_ERROR("Failed applying override for rule ID: ", id, "with error: ", e.what());
      }
    }
  }
  LOG_INFO("Could not apply override for rule ID: ", id);
}

void YaraConfig::ForEachRule(const RuleVisitor& visit) {
  for (auto& [file_type, by_rule_type] : rule_sets_) {
    for (auto& [rule_type, rule_set] : by_rule_type) {
      for (std::size_t i = 0; i < rule_set->size(); ++i) {
        visit(file_type, rule_type, *rule_set, i);
      }
    }
  }
}

void YaraConfig::ValidateRules(YaraConfigLoadFailure& failure) {
  ForEachRule([&](std::int32_t file_type, std::int32_t rule_type, const YaraRuleSet& rule_set, std::size_t index) {
    const YaraRuleInfo& rule = rule_set.GetRule(index);
    try {
      ValidateRule(rule);
    } catch (const std::exception&) {
      failure.rule_name = rule.name;
      failure.rule_set = PositionOf(file_type, rule_type);
      throw;
    }
  });
}

void YaraConfig::DisableMarkedRules() {
  LOG_INFO("Disabling rules that were marked to be disabled...");
  ForEachRule([](std::int32_t, std::int32_t, YaraRuleSet& rule_set, std::size_t index) {
    const YaraRuleInfo& rule = rule_set.GetRule(index);
    if (ActionFromWord(MetadataText(rule, kActionKey)) == RuleAction::kDisable) {
      // By position, not by id: ids may be shared, and only the rules whose own action says so go.
      rule_set.SetRuleEnabled(index, false);
      LOG_INFO("Disabled rule id: ", MetadataText(rule, kIdKey));
    }
  });
  LOG_INFO("Done disabling rules");
}

void YaraConfig::RefuseDisabledMembers(YaraConfigLoadFailure& failure) {
  for (const auto& [file_type, by_rule_type] : rule_sets_) {
    for (const auto& [rule_type, rule_set] : by_rule_type) {
      if (const auto names = rule_set->FindDisabledMember()) {
        failure.rule_set = PositionOf(file_type, rule_type);
        failure.rule_name = names->first;
        throw Exception("Rule " + names->second + " is disabled but belongs to a rule set in the condition of rule " +
                        names->first);
      }
    }
  }
}

int YaraConfig::PositionOf(std::int32_t file_type, std::int32_t rule_type) const {
  int position = user_config_.rule_sets_size() - 1;  // of several for one pair the last one is in force
  while (position >= 0 && (user_config_.rule_sets(position).file_type() != file_type ||
                           user_config_.rule_sets(position).rule_type() != rule_type)) {
    --position;
  }
  return position;
}

void YaraConfig::TraceRules() {
  if (korvo::utils::GetLogLevel() == korvo::utils::kTraceThreshold + 1) {  // this one line at no higher level
    LOG_TRACE("Iterating all rules...");
  }
  if (korvo::utils::GetLogLevel() <= korvo::utils::kTraceThreshold) {
    return;
  }
  ForEachRule([](std::int32_t file_type, std::int32_t rule_type, const YaraRuleSet& rule_set, std::size_t index) {
    LOG_TRACE("File type: ", file_type, ", ruleset type: ", rule_type, ", rule name: ", rule_set.GetRule(index).name);
  });
}

}  // namespace korvo::static_pattern_matching_daemon
