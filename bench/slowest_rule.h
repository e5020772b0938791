#pragma once

#include <string>
#include <string_view>

namespace vond::bench {

struct SlowestRule {
  std::string name;
  double micros = 0;      ///< how much less the sample takes without this rule
  double all_micros = 0;  ///< with all rules
};

/// The rule whose absence saves the most time on `sample`, found by leaving out halves: switching a rule off would not
/// do, for its strings are still looked for. Rules that refer to others, and those, are left in. Finds one that stands
/// out; where rules are alike, it is any of them. Throws std::runtime_error for rules that don't compile.
[[nodiscard]] SlowestRule FindSlowestRule(const std::string& rules, std::string_view sample);

}  // namespace vond::bench
