#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "static_pattern_matching/proto/StaticPatternMatching.pb.h"
#include "vondctl/policy_source.h"
#include "vondctl/problem.h"
#include "vondctl/rule_set_check.h"

namespace vond::vondctl {

/// One rule set of a policy.
struct CheckedRuleSet {
  std::int32_t file_type = 0;
  static_pattern_matching_proto::RuleType rule_type = static_pattern_matching_proto::Block;
  bool in_force = true;            ///< no later set takes its place
  std::vector<CheckedRule> rules;  ///< with the overrides' metadata, if it is in force
};

/// One override and what it does.
struct CheckedOverride {
  std::optional<std::size_t> rule_set;  ///< the one it changes
  std::vector<std::string> rules;       ///< the names of the rules in it that have the id
};

struct PolicyFindings {
  std::vector<Problem> problems;
  std::vector<CheckedRuleSet> rule_sets;   ///< in the document's order
  std::vector<CheckedOverride> overrides;  ///< in the document's order
};

/// Looks for everything in a policy that the daemon would refuse (errors) or take and surprise with (warnings, notes),
/// all of it in one go: rules, overrides, limits. `problems` are those met while reading it (policy_source.h) and come
/// out with the others. Compiles the rules once, more often where they don't compile.
[[nodiscard]] PolicyFindings CheckPolicy(const PolicySource& policy, std::vector<Problem> problems = {});

/// The size of the packet that brings `policy` to the daemon. Throws agent::Error for one that can't be written.
[[nodiscard]] std::size_t SentBytes(const PolicySource& policy);

/// How a metadata value of an override is written in text.
[[nodiscard]] std::string OverrideValueText(const static_pattern_matching_proto::RuleOverride& rule_override);

/// "block", "allow", or the number of another rule type.
[[nodiscard]] std::string RuleTypeName(std::int32_t rule_type);

}  // namespace vond::vondctl
