#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "static_pattern_matching/proto/StaticPatternMatching.pb.h"
#include "vondctl/policy_source.h"
#include "vondctl/problem.h"
#include "vondctl/verb.h"

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
  std::vector<Problem> problems;        ///< of a bad one: every error there is (policy_check.h), at least one
};

/// Loads `policy` in this process, from descriptors of its own, without a word on any stream. Takes as long and as much
/// memory as the daemon does, and about as much again to explain a bad one. Never throws for a bad policy.
[[nodiscard]] PolicyJudgement JudgePolicy(const PolicySource& policy);

/// The daemon's word alone: a problem of the code "refused", or none, and the counts.
[[nodiscard]] PolicyJudgement LoadPolicy(const PolicySource& policy);

/// Tells why a policy was refused: to standard error "vondctl: policy refused: 2 errors in 1 of 3 rule files" and, as
/// text, the problems; as JSON Lines these go to standard output.
void WriteRefusal(const std::vector<Problem>& problems, std::size_t rule_files, const CommonOptions& common);

/// "2 errors in 1 of 3 rule files", or "2 errors" when not all of them are in rule files.
[[nodiscard]] std::string CountErrors(const std::vector<Problem>& problems, std::size_t rule_files);

/// How many rule files the policy is made of.
[[nodiscard]] std::size_t CountRuleFiles(const PolicySource& policy);

/// Writes problems as text; a note or a next step that has been shown already is left out. At most `limit`, then how
/// many there are more.
void WriteProblems(std::ostream& out, const std::vector<Problem>& problems, bool color, std::size_t limit);

}  // namespace vond::vondctl
