#pragma once

#include <string>
#include <string_view>

namespace vond::bench {

struct SlowestRule {
  std::string name;
  double micros = 0;      ///< what the sample takes with this rule alone, less what it takes without any
  double all_micros = 0;  ///< with all rules
};

/// The rule that takes the most time on `sample`, found by switching on one rule after the other. What rules share,
/// such as the walk through the bytes, is nobody's. Throws std::exceptions for rules that don't compile.
[[nodiscard]] SlowestRule FindSlowestRule(const std::string& rules, std::string_view sample);

}  // namespace vond::bench
