#include "vondctl/policy_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "agent/client.h"
#include "static_pattern_matching/rule_metadata.h"
#include "vondctl/problem_codes.h"
#include "vondctl/suggestion.h"
#include "yara/yara_lib/disabled_members.h"
#include "yara/yara_lib/yara_exceptions.h"
#include "yara/yara_lib/yara_messages.h"

namespace vond::vondctl {
namespace {

using korvo::static_pattern_matching_daemon::ActionFromWord;
using korvo::static_pattern_matching_daemon::RuleAction;
using korvo::yara::yara_lib::FindRuleSetMemberships;
using korvo::yara::yara_lib::MetadataValueFromMessage;
using korvo::yara::yara_lib::MetadataValueToText;
using korvo::yara::yara_lib::RuleSetMembership;
using korvo::yara::yara_lib::YaraException;
using korvo::yara::yara_lib::YaraMetadataItem;
using static_pattern_matching_proto::RuleOverride;

constexpr const char* kRefusesAll = "one rule without \"id\" or \"action\" makes the daemon refuse the whole policy";
// How many comparisons of names are worth a hint.
constexpr std::size_t kMaxComparisons = 20000;

const std::vector<std::string>& ActionWords() {
  static const std::vector<std::string> words = {"disable", "internal", "silent", "inform", "block", "allow"};
  return words;
}

// A path as a shell takes it.
std::string ShellWord(const std::string& path) {
  constexpr std::string_view kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-+=.,/:@%";
  if (!path.empty() && path.find_first_not_of(kPlain) == std::string::npos) {
    return path;
  }
  std::string quoted = "'";
  for (const char c : path) {
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return quoted + "'";
}

std::string TextOf(const CheckedRule& rule, const char* key) {
  const YaraMetadataItem* const item = rule.info.FindMetadata(key);
  return item == nullptr ? std::string() : MetadataValueToText(item->value);
}

bool IsDisabled(const CheckedRule& rule) { return ActionFromWord(TextOf(rule, "action")) == RuleAction::kDisable; }

class Checker {
 public:
  Checker(const PolicySource& policy, std::vector<Problem> problems) : policy_(policy) {
    findings_.problems = std::move(problems);
  }

  PolicyFindings Run() {
    CheckRuleSets();
    const bool is_readable = std::none_of(findings_.problems.begin(), findings_.problems.end(),
                                          [](const Problem& problem) { return problem.code == "bad-value"; });
    if (!policy_.path.empty() && is_readable) {
      CheckLimits();
      ApplyOverrides();
    }
    for (std::size_t i = 0; i < findings_.rule_sets.size(); ++i) {
      if (findings_.rule_sets[i].in_force) {
        CheckMetadata(findings_.rule_sets[i]);
        CheckDisabledMembers(i);
      }
    }
    SortByPlace();
    return std::move(findings_);
  }

 private:
  Problem& Add(Problem problem) {
    findings_.problems.push_back(std::move(problem));
    return findings_.problems.back();
  }
  Problem& AddToPolicy(const char* code, const std::string& place, std::string message) {
    Problem& problem = Add(MakeProblem(code, policy_.path, policy_.LineOf(place), std::move(message)));
    problem.excerpt = policy_.Excerpt(problem.line);
    return problem;
  }

  void CheckRuleSets() {
    // Rule files that could not be read have been reported; a set of what is left says nothing more.
    const bool all_read = std::none_of(findings_.problems.begin(), findings_.problems.end(),
                                       [](const Problem& problem) { return problem.severity == Severity::kError; });
    for (std::size_t i = 0; i < policy_.rule_sets.size(); ++i) {
      const RuleSetSource& source = policy_.rule_sets[i];
      RuleSetFindings found = CheckRuleSet(source);
      if (found.rules.empty() && found.problems.empty() && all_read) {
        std::string message = "the rule set has no rules, and every file is clean to it";
        if (policy_.path.empty()) {
          Add(MakeProblem("empty-set", source.files.empty() ? "" : source.files.front().path, 0, std::move(message)));
        } else {
          AddToPolicy("empty-set", fmt::format("rule_sets/{}", i), fmt::format("rule_sets[{}]: {}", i, message));
        }
      }
      std::move(found.problems.begin(), found.problems.end(), std::back_inserter(findings_.problems));
      CheckedRuleSet checked;
      checked.file_type = source.file_type;
      checked.rule_type = source.rule_type;
      checked.rules = std::move(found.rules);
      findings_.rule_sets.push_back(std::move(checked));
      compiled_.push_back(std::move(found.compiled));
      const auto [before, is_new] = set_in_force_[source.file_type].try_emplace(source.rule_type, i);
      if (!is_new) {
        findings_.rule_sets[before->second].in_force = false;
        AddToPolicy("duplicate-rule-set", fmt::format("rule_sets/{}", before->second),
                    fmt::format("rule_sets[{}] is of no effect: rule_sets[{}] has the same file type and rule type",
                                before->second, i));
        before->second = i;
      }
    }
  }

  void CheckLimits() {
    const auto& document = policy_.document;
    const std::size_t bytes = SentBytes(policy_);
    if (bytes > agent::kMaxPacketSize) {
      AddToPolicy("policy-too-large", "",
                  fmt::format("the policy has {} bytes as it is sent, with {} overrides; the daemon takes {}", bytes,
                              document.rule_overrides_size(), agent::kMaxPacketSize));
    }
    if (policy_.rule_sets.size() > agent::kMaxDescriptors) {
      AddToPolicy("too-many-files", fmt::format("rule_sets/{}", agent::kMaxDescriptors),
                  fmt::format("the policy has {} rule sets; the daemon takes {}", policy_.rule_sets.size(),
                              agent::kMaxDescriptors));
    }
    const std::uint64_t timeout = document.yara_timeout_in_seconds();
    const std::uint64_t scans = std::uint64_t{document.yara_retries_on_match()} + 1;
    if (timeout == 0) {
      AddToPolicy("no-timeout", "yara_timeout_in_seconds",
                  "scans have no time-out: one file can keep a worker for ever")
          .fix = "\"yara_timeout_in_seconds\": 30";
    } else if (scans > 1) {
      AddToPolicy("retries-multiply-time", "yara_retries_on_match",
                  fmt::format("a file that matches is scanned {} times, {} s each: it may take {} s per rule type",
                              scans, timeout, scans * timeout));
    }
  }

  // As the daemon does: an override reaches the rules of the first set that has its id, and "first" is as its maps have
  // it, which are filled in the same order as these.
  void ApplyOverrides() {
    std::size_t comparisons = 0;
    for (int i = 0; i < policy_.document.rule_overrides_size(); ++i) {
      const RuleOverride& rule_override = policy_.document.rule_overrides(i);
      const std::string place = fmt::format("rule_overrides/{}", i);
      CheckedOverride checked;
      std::vector<std::size_t> sets_with_id;
      for (const auto& [file_type, by_rule_type] : set_in_force_) {
        for (const auto& [rule_type, index] : by_rule_type) {
          if (HasRule(index, rule_override.rule_id())) {
            sets_with_id.push_back(index);
          }
        }
      }
      if (sets_with_id.empty()) {
        std::vector<std::string> ids;
        for (const CheckedRuleSet& set : findings_.rule_sets) {
          for (const CheckedRule& rule : set.rules) {
            ids.push_back(TextOf(rule, "id"));
          }
        }
        comparisons += ids.size();
        AddToPolicy("override-unmatched", place,
                    fmt::format("no rule has the id \"{}\"{}", rule_override.rule_id(),
                                comparisons > kMaxComparisons ? "" : QuotedSuggestion(rule_override.rule_id(), ids)));
      } else {
        Apply(i, sets_with_id.front(), checked);
        if (sets_with_id.size() > 1 && checked.rule_set) {
          AddToPolicy("override-ambiguous", place,
                      fmt::format("rules with the id \"{}\" stand in {} rule sets; only those of rule_sets[{}] change",
                                  rule_override.rule_id(), sets_with_id.size(), sets_with_id.front()));
        }
      }
      findings_.overrides.push_back(std::move(checked));
    }
  }

  [[nodiscard]] bool HasRule(std::size_t set, const std::string& id) {
    if (ids_.size() <= set) {
      ids_.resize(findings_.rule_sets.size());
    }
    if (ids_[set].empty()) {
      const auto& rules = findings_.rule_sets[set].rules;
      for (std::size_t i = 0; i < rules.size(); ++i) {
        if (rules[i].info.FindMetadata("id") != nullptr) {
          ids_[set][TextOf(rules[i], "id")].push_back(i);
        }
      }
    }
    return ids_[set].contains(id);
  }

  void Apply(int position, std::size_t set, CheckedOverride& checked) {
    const RuleOverride& rule_override = policy_.document.rule_overrides(position);
    const std::string& key = rule_override.item().key();
    if (rule_override.item().value().value_case() == yara_lib::MetaDataItemValue::VALUE_NOT_SET) {
      AddToPolicy("override-without-value", fmt::format("rule_overrides/{}", position),
                  fmt::format("the override of \"{}\" for the id \"{}\" has no value, and is skipped", key,
                              rule_override.rule_id()));
      return;
    }
    checked.rule_set = set;
    for (const std::size_t i : ids_[set].at(rule_override.rule_id())) {
      CheckedRule& rule = findings_.rule_sets[set].rules[i];
      rule.info.SetMetadata(key, MetadataValueFromMessage(rule_override.item().value()));
      checked.rules.push_back(rule.info.name);
      overridden_[{set, i, key}] = position;
    }
    if (key == "id") {
      ids_[set].clear();  // to be made anew
    }
  }

  // The place in the policy of the override that gave a rule its item, if one did.
  [[nodiscard]] const int* OverrideOf(std::size_t set, std::size_t rule, const char* key) const {
    const auto it = overridden_.find({set, rule, key});
    return it == overridden_.end() ? nullptr : &it->second;
  }

  Problem& AddToRule(const char* code, std::size_t set, std::size_t index, const char* key,
                     const std::string& message) {
    const CheckedRule& rule = findings_.rule_sets[set].rules[index];
    if (const int* const position = OverrideOf(set, index, key)) {
      Problem& problem =
          AddToPolicy(code, fmt::format("rule_overrides/{}", *position), message + ", after this override");
      problem.rule = rule.info.name;
      return problem;
    }
    return Add(RuleProblem(code, rule, message));
  }

  void CheckMetadata(const CheckedRuleSet& checked) {
    const auto set = static_cast<std::size_t>(&checked - findings_.rule_sets.data());
    std::unordered_map<std::string, const CheckedRule*> by_id;
    std::set<std::string> names;
    for (std::size_t i = 0; i < checked.rules.size(); ++i) {
      const CheckedRule& rule = checked.rules[i];
      const std::string& name = rule.info.name;
      const std::string id = TextOf(rule, "id");
      if (id.empty()) {
        Problem& problem = AddToRule("missing-id", set, i, "id",
                                     rule.info.FindMetadata("id") == nullptr
                                         ? fmt::format("rule \"{}\" has no metadata item \"id\"", name)
                                         : fmt::format("the \"id\" of rule \"{}\" is empty", name));
        problem.notes = {kRefusesAll};
        if (rule.info.FindMetadata("id") == nullptr) {
          problem.fix = Fix(rule, "vondctl check --fix");
        }
      } else if (names.insert(name).second) {  // a second rule of the same name has been reported as such
        const auto [first, is_new] = by_id.try_emplace(id, &rule);
        if (!is_new) {
          AddToRule("duplicate-id", set, i, "id",
                    fmt::format("rule \"{}\" has the id of rule \"{}\", \"{}\"", name, first->second->info.name, id));
        }
      }
      CheckAction(set, i);
    }
  }

  void CheckAction(std::size_t set, std::size_t index) {
    const CheckedRule& rule = findings_.rule_sets[set].rules[index];
    const YaraMetadataItem* const action = rule.info.FindMetadata("action");
    if (action == nullptr) {
      std::vector<std::string> keys;
      for (const YaraMetadataItem& item : rule.info.metadata) {
        if (item.key.size() == std::string_view("action").size()) {
          keys.push_back(item.key);
        }
      }
      Problem& problem =
          AddToRule("missing-action", set, index, "action",
                    fmt::format("rule \"{}\" has no metadata item \"action\"", rule.info.name) + SimilarKey(keys));
      problem.notes = {kRefusesAll};
      problem.fix = Fix(rule, "vondctl check --fix --default-action inform");
    } else if (const std::string word = MetadataValueToText(action->value);
               ActionFromWord(word) == RuleAction::kInvalid) {
      const std::string hint = QuotedSuggestion(word, ActionWords());
      Problem& problem =
          AddToRule("unknown-action", set, index, "action", fmt::format("\"{}\" is not an action{}", word, hint));
      problem.notes = {"the actions are disable, internal, silent, inform, block and allow"};
    }
  }

  static std::string SimilarKey(const std::vector<std::string>& keys) {
    const std::string similar = Suggest("action", keys);
    return similar.empty() ? std::string() : fmt::format(" (keys are case-sensitive; it has \"{}\")", similar);
  }

  static std::string Fix(const CheckedRule& rule, const std::string& command) {
    return rule.is_packed ? fmt::format("vondctl unpack {}, mend and pack again", ShellWord(rule.file))
                          : fmt::format("{} {}", command, ShellWord(rule.file));
  }

  void CheckDisabledMembers(std::size_t set) {
    const auto& rules = findings_.rule_sets[set].rules;
    if (compiled_[set].rules == nullptr || std::none_of(rules.begin(), rules.end(), IsDisabled)) {
      return;
    }
    const auto memberships = FindRuleSetMemberships(*compiled_[set].rules);
    if (!memberships) {
      return;  // the daemon's own verdict follows
    }
    std::set<std::pair<std::uint32_t, std::uint32_t>> pairs;
    for (const RuleSetMembership& membership : *memberships) {
      if (IsDisabled(rules[membership.member]) && !IsDisabled(rules[membership.owner]) &&
          pairs.emplace(membership.owner, membership.member).second) {
        Problem& problem = Add(
            RuleProblem("disabled-in-rule-set", rules[membership.owner],
                        fmt::format("rule \"{}\" is disabled but belongs to a rule set in the condition of rule \"{}\"",
                                    rules[membership.member].info.name, rules[membership.owner].info.name)));
        if (const int* const position = OverrideOf(set, membership.member, "action")) {
          problem.notes.push_back(fmt::format("disabled by the override at {}:{}", policy_.path,
                                              policy_.LineOf(fmt::format("rule_overrides/{}", *position))));
        }
        problem.fix = "disable both rules, or name the rule in the condition instead of counting it";
      }
    }
  }

  // The policy's own problems first, then the rules' by file, files in the order in which they are joined.
  void SortByPlace() {
    std::unordered_map<std::string, std::size_t> position;
    position.emplace(policy_.path, 0);
    for (const RuleSetSource& rule_set : policy_.rule_sets) {
      for (const RuleFile& file : rule_set.files) {
        position.try_emplace(file.path, position.size());
      }
    }
    const auto key = [&](const Problem& problem) {
      const auto it = position.find(problem.file);
      return std::pair(it == position.end() ? 0 : it->second, problem.line);
    };
    std::stable_sort(findings_.problems.begin(), findings_.problems.end(),
                     [&](const Problem& a, const Problem& b) { return key(a) < key(b); });
  }

  struct ItemOfRule {
    std::size_t set;
    std::size_t rule;
    std::string key;
    auto operator<=>(const ItemOfRule&) const = default;  // NOLINT(modernize-use-nullptr): a fault of the check
  };

  const PolicySource& policy_;
  PolicyFindings findings_;
  std::vector<CompiledSource> compiled_;
  // Keyed and filled as YaraConfig's rule sets, so that they come out in the same order.
  std::unordered_map<std::int32_t, std::unordered_map<std::int32_t, std::size_t>> set_in_force_;
  std::vector<std::unordered_map<std::string, std::vector<std::size_t>>> ids_;
  std::map<ItemOfRule, int> overridden_;
};

}  // namespace

PolicyFindings CheckPolicy(const PolicySource& policy, std::vector<Problem> problems) {
  return Checker(policy, std::move(problems)).Run();
}

std::size_t SentBytes(const PolicySource& policy) {
  korvo_daemon::Request request = agent::PolicyRequest(policy.ForAgent(3));
  request.mutable_header()->set_id(1);
  return request.ByteSizeLong();
}

std::string OverrideValueText(const RuleOverride& rule_override) {
  try {
    return MetadataValueToText(MetadataValueFromMessage(rule_override.item().value()));
  } catch (const YaraException&) {
    return {};
  }
}

std::string RuleTypeName(std::int32_t rule_type) {
  switch (rule_type) {
    case static_pattern_matching_proto::Block:
      return "block";
    case static_pattern_matching_proto::Allow:
      return "allow";
    default:
      return std::to_string(rule_type);
  }
}

}  // namespace vond::vondctl
