#pragma once

#include <cstddef>
#include <utility>
#include <vector>

namespace vond::bench {

/// The middle of some rounds, and how far they lie apart.
struct Summary {
  double median = 0;
  double low = 0;
  double high = 0;
  std::size_t rounds = 0;
};

[[nodiscard]] Summary Summarize(std::vector<double> values);

/// x and y of a curve; all above 0.
using Points = std::vector<std::pair<double, double>>;

/// The k of y = c * x^k that lies nearest to the points: 1 is proportional, 0 is flat. 0 for less than two of them.
[[nodiscard]] double FitExponent(const Points& points);

}  // namespace vond::bench
