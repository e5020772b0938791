#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "vondctl/raw_engine.h"
#include "vondctl/rule_merge.h"

namespace vond::vondctl {

/// A rule that takes a good part of the time.
struct SlowRule {
  std::string rule;
  SourcePlace place;
  double share = 0;    ///< of the time that the sample takes with all rules
  double seconds = 0;  ///< per pass over the part of the sample that was timed
};

struct SlowRuleSearch {
  std::vector<SlowRule> rules;  ///< the slowest first
  std::size_t files = 0;        ///< of the sample, as many as were timed
  double seconds = 0;           ///< that those take with all rules
  bool complete = false;        ///< false if time was up: there may be others
};

/// The least share of the time for which a rule is named; below it noise begins.
inline constexpr double kLeastShare = 0.03;

/// Finds the up to `count` rules of `source`, which must compile, that cost most on the sample. Times the set in
/// halves, then the halves of the slower ones, and so on, each part together with the rules that it needs; modules are
/// loaded in every part, so their cost is no rule's. Ends soon after `deadline`.
[[nodiscard]] SlowRuleSearch FindSlowRules(const MergedSource& source, const std::vector<SampleFile>& sample,
                                           std::size_t count, std::chrono::steady_clock::time_point deadline);

}  // namespace vond::vondctl
