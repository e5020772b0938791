#pragma once

#include <string>
#include <vector>

#include "utils/managed_fd.h"

namespace vond::bench {

struct SlowestRule {
  std::string name;
  double share = 0;  ///< of the time that scanning takes with all rules, what it takes less without this one's strings
};

/// Finds the rule whose strings cost most on these files, by halving: one rule that matches all over can slow down
/// thousands. Of rules that cost alike it names any. Throws std::runtime_error if the rules do not compile.
[[nodiscard]] SlowestRule FindSlowestRule(const std::string& rules,
                                          const std::vector<auto_resources::ManagedFD>& files);

}  // namespace vond::bench
