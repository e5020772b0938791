#include "yara/yara_lib/yara_rule_set.h"

#include <yara.h>

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include "utils/assertion.h"
#include "utils/checked_access.h"
#include "utils/log.h"
#include "utils/utf8.h"
#include "yara/yara_lib/disabled_members.h"
#include "yara/yara_lib/yara_exceptions.h"
#include "yara/yara_lib/yara_messages.h"

namespace korvo::yara::yara_lib {
namespace {

using korvo::utils::WriteAssertion;

constexpr const char* kSource = "yara/yara_lib/yara_rule_set";

// The standard exception with a text that does not depend on the library's version.
class UnexpectedIndex : public std::bad_variant_access {
 public:
  [[nodiscard]] const char* what() const noexcept override { return "Unexpected index"; }
};

// The metadata of one rule. `replaced` is set when bytes had to be replaced.
std::vector<YaraMetadataItem> ReadMetadata(const YR_RULE* rule, bool& replaced) {
  std::vector<YaraMetadataItem> items;
  const YR_META* meta = nullptr;
  std::size_t count = 0;
  yr_rule_metas_foreach(rule, meta) { ++count; }
  items.reserve(count);
  yr_rule_metas_foreach(rule, meta) {
    switch (meta->type) {
      case META_TYPE_INTEGER:
        items.push_back({meta->identifier, std::int64_t{meta->integer}});
        break;
      case META_TYPE_STRING: {
        std::string text = korvo::utils::ReplaceInvalidUtf8(meta->string);
        replaced = replaced || text != meta->string;
        items.push_back({meta->identifier, std::move(text)});
        break;
      }
      case META_TYPE_BOOLEAN:
        items.push_back({meta->identifier, meta->integer != 0});
        break;
      default:
        // The item is left out; the rule itself stays usable.
        WriteAssertion(254, "yara/yara_lib/yara_lib", "false", "metadata type is not supported");
        break;
    }
  }
  return items;
}

YaraRuleInfo ReadRule(const YR_RULE* rule) {
  YaraRuleInfo info;
  info.name = rule->identifier;
  info.is_private_rule = RULE_IS_PRIVATE(rule) != 0;
  const char* tag = nullptr;
  yr_rule_tags_foreach(rule, tag) { info.tags.emplace_back(tag); }
  bool replaced = false;
  info.metadata = ReadMetadata(rule, replaced);
  if (replaced) {
    LOG_INFO("Replaced invalid UTF-8 in the metadata of rule name: ", info.name);
  }
  return info;
}

}  // namespace

std::string MetadataValueToText(const YaraMetadataValue& value) {
  if (const auto* text = std::get_if<std::string>(&value)) {
    return *text;
  }
  if (const auto* integer = std::get_if<std::int64_t>(&value)) {
    return std::to_string(*integer);
  }
  if (const auto* flag = std::get_if<bool>(&value)) {
    return *flag ? "1" : "0";
  }
  throw UnexpectedIndex();
}

const YaraMetadataItem* YaraRuleInfo::FindMetadata(const std::string& key) const {
  const auto it =
      std::find_if(metadata.rbegin(), metadata.rend(), [&](const YaraMetadataItem& item) { return item.key == key; });
  return it == metadata.rend() ? nullptr : &*it;
}

void YaraRuleInfo::SetMetadata(const std::string& key, YaraMetadataValue value) {
  const YaraMetadataItem* const counting = FindMetadata(key);
  if (counting == nullptr) {
    metadata.push_back({key, std::move(value)});
    return;
  }
  metadata[static_cast<std::size_t>(counting - metadata.data())].value = std::move(value);
  std::erase_if(metadata, [&](const YaraMetadataItem& item) { return item.key == key && &item != counting; });
}

const std::string& YaraRuleRecord::SerializedMatch() const {
  std::call_once(serialized_, [this] { serialized_match_ = SerializeMatch(*this); });
  return serialized_match_;
}

std::shared_ptr<YR_RULES> Make_raw_rules_ptr(YR_RULES* rules) {
  return {rules, [](YR_RULES* raw) {
            if (raw != nullptr) {
              ::yr_rules_destroy(raw);
            }
          }};
}

YaraRuleSet::YaraRuleSet(std::shared_ptr<YR_RULES> raw_rules, std::string id_key, std::vector<std::string> modules)
    : raw_rules_(std::move(raw_rules)), id_key_(std::move(id_key)), modules_(std::move(modules)) {
  if (raw_rules_ != nullptr) {
    rules_.reserve(raw_rules_->num_rules);
    for (std::uint32_t i = 0; i < raw_rules_->num_rules; ++i) {
      YR_RULE* const rule = &raw_rules_->rules_table[i];
      rules_.push_back(std::make_shared<const YaraRuleRecord>(ReadRule(rule)));
      rule->flags &= ~RULE_FLAGS_PRIVATE;
    }
  }
  IndexRules();
}

const YaraRuleInfo& YaraRuleSet::GetRule(std::size_t rule_index) const {
  if (rule_index >= size()) {
    WriteAssertion(205, kSource, "rule_index < size()", "index out of range");
    throw std::out_of_range("rule_index");
  }
  return *rules_[rule_index];
}

std::shared_ptr<const YaraRuleRecord> YaraRuleSet::CopyRule(std::size_t rule_index) const {
  if (rule_index >= size()) {
    WriteAssertion(225, kSource, "rule_index < size()", "index out of range");
    throw std::out_of_range("rule_index");
  }
  return rules_[rule_index];
}

void YaraRuleSet::SetRuleEnabled(std::size_t rule_index, bool enable) {
  YR_RULES* const yr_rules = raw_rules_.get();
  if (yr_rules == nullptr) {
    WriteAssertion(256, kSource, "yr_rules", "YR_RULES* is null");
    return;
  }
  if (rule_index >= yr_rules->num_rules) {
    WriteAssertion(257, kSource, "rule_index < yr_rules->num_rules", "index out of range");
    throw std::out_of_range("rule_index");
  }
  YR_RULE* const yr_rule = yr_rules->rules_table == nullptr ? nullptr : &yr_rules->rules_table[rule_index];
  if (yr_rule == nullptr) {
    WriteAssertion(260, kSource, "yr_rule", "YR_RULE* is null");
    return;
  }
  if (enable) {
    ::yr_rule_enable(yr_rule);
    if (disabled_global_rules_.erase(rule_index) > 0) {
      yr_rule->flags |= RULE_FLAGS_GLOBAL;
    }
    NotifyRuleEnabled(rule_index);
  } else {
    ::yr_rule_disable(yr_rule);
    // libyara 4.5 takes a disabled global rule for one that does not hold, and then no rule at all would match.
    if (RULE_IS_GLOBAL(yr_rule) != 0) {
      yr_rule->flags &= ~RULE_FLAGS_GLOBAL;
      disabled_global_rules_.insert(rule_index);
    }
    NotifyRuleDisabled(rule_index);
  }
}

const std::vector<std::size_t>& YaraRuleSet::FindRules(const std::string& id) const {
  return korvo::utils::MapAt(indexes_by_id_, id);
}

void YaraRuleSet::SetMetadata(const std::string& id, const std::string& key, const YaraMetadataValue& value) {
  for (const std::size_t index : FindRules(id)) {
    YaraRuleInfo changed = *rules_[index];
    changed.SetMetadata(key, value);
    rules_[index] = std::make_shared<const YaraRuleRecord>(std::move(changed));
  }
  if (key == id_key_) {
    IndexRules();
  }
}

std::optional<std::pair<std::string, std::string>> YaraRuleSet::FindDisabledMember() const {
  const YR_RULES* const yr_rules = raw_rules_.get();
  const auto is_disabled = [&](std::size_t index) { return RULE_IS_DISABLED(&yr_rules->rules_table[index]) != 0; };
  bool any_disabled = false;
  for (std::size_t i = 0; i < size() && !any_disabled; ++i) {
    any_disabled = is_disabled(i);
  }
  if (!any_disabled) {
    return std::nullopt;
  }
  const auto memberships = FindRuleSetMemberships(*yr_rules);
  if (!memberships) {
    throw YaraException(ERROR_INTERNAL_FATAL_ERROR);
  }
  for (const RuleSetMembership& membership : *memberships) {
    if (is_disabled(membership.member) && !is_disabled(membership.owner)) {
      return std::pair(GetRule(membership.owner).name, GetRule(membership.member).name);
    }
  }
  return std::nullopt;
}

void YaraRuleSet::AddObserver(const std::shared_ptr<IYaraRuleSetObserver>& observer) {
  if (observer == nullptr) {
    WriteAssertion(151, kSource, "observer", "no observer was provided");
    return;
  }
  observers_.push_back(observer);
}

void YaraRuleSet::RemoveObserver(const std::shared_ptr<IYaraRuleSetObserver>& observer) {
  if (observer == nullptr) {
    WriteAssertion(157, kSource, "observer", "no observer was provided");
    return;
  }
  // A copy: the argument may be one of the entries that go.
  std::erase(observers_, std::shared_ptr<IYaraRuleSetObserver>(observer));
}

void YaraRuleSet::NotifyRuleEnabled(std::size_t rule_index) {
  for (const auto& observer : observers_) {
    observer->OnRuleEnabled(rule_index);
  }
}

void YaraRuleSet::NotifyRuleDisabled(std::size_t rule_index) {
  for (const auto& observer : observers_) {
    observer->OnRuleDisabled(rule_index);
  }
}

void YaraRuleSet::NotifyRuleMatchedNotReported(std::size_t rule_index) {
  for (const auto& observer : observers_) {
    observer->OnRuleMatchedNotReported(rule_index);
  }
}

void YaraRuleSet::NotifyRuleMatchedReported(std::size_t rule_index) {
  for (const auto& observer : observers_) {
    observer->OnRuleMatchedReported(rule_index);
  }
}

void YaraRuleSet::NotifyModuleImported(const std::string& module_name, const void* module_data,
                                       std::size_t module_data_size, bool allowed) {
  for (const auto& observer : observers_) {
    observer->OnModuleImported(module_name, module_data, module_data_size, allowed);
  }
}

std::optional<std::string> YaraRuleSet::RuleId(const YaraRuleInfo& rule) const {
  const YaraMetadataItem* const item = rule.FindMetadata(id_key_);
  return item == nullptr ? std::nullopt : std::optional(MetadataValueToText(item->value));
}

void YaraRuleSet::IndexRules() {
  indexes_by_id_.clear();
  for (std::size_t i = 0; i < rules_.size(); ++i) {
    if (const auto id = RuleId(*rules_[i])) {
      indexes_by_id_[*id].push_back(i);
    }
  }
}

}  // namespace korvo::yara::yara_lib
