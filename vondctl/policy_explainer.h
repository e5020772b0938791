#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "static_pattern_matching/proto/StaticPatternMatching.pb.h"
#include "vondctl/policy_source.h"

namespace vond::vondctl {

/// How many rules a rule set of the policy holds.
struct RuleSetCount {
  std::int32_t file_type = 0;
  static_pattern_matching_proto::RuleType rule_type = static_pattern_matching_proto::Block;
  std::size_t rules = 0;
};

/// What the daemon's own loading code makes of a policy, run here, where it can say more than the channel carries.
struct PolicyJudgement {
  std::vector<RuleSetCount> rule_sets;  ///< of a good policy, in the document's order, replaced sets left out
  std::vector<std::string> problems;    ///< of a bad one: "file:line: error: message", at least one
};

/// Loads `policy` in this process, from descriptors of its own, without a word on any stream. Takes as long and as much
/// memory as the daemon does. Never throws for a bad policy.
[[nodiscard]] PolicyJudgement JudgePolicy(const PolicySource& policy);

}  // namespace vond::vondctl
