#include "bench/statistics.h"

#include <algorithm>
#include <cmath>

namespace vond::bench {

Summary Summarize(std::vector<double> values) {
  if (values.empty()) {
    return {};
  }
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  const double median = values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
  return {median, values.front(), values.back(), values.size()};
}

double FitExponent(const Points& points) {
  // The slope of the straight line through the logarithms, by least squares.
  double mean_x = 0;
  double mean_y = 0;
  for (const auto& [x, y] : points) {
    mean_x += std::log(x) / static_cast<double>(points.size());
    mean_y += std::log(y) / static_cast<double>(points.size());
  }
  double covariance = 0;
  double variance = 0;
  for (const auto& [x, y] : points) {
    covariance += (std::log(x) - mean_x) * (std::log(y) - mean_y);
    variance += (std::log(x) - mean_x) * (std::log(x) - mean_x);
  }
  return variance > 0 ? covariance / variance : 0;
}

}  // namespace vond::bench
