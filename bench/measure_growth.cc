#include <fmt/format.h>

#include <algorithm>

#include "bench/measurements.h"
#include "bench/run.h"

namespace vond::bench {
namespace {

constexpr std::size_t kRulesOfCurves = 300;

// Medians of both sides over alternating passes, in microseconds a file.
std::pair<double, double> Compare(RawYara& raw, Daemon& daemon, const std::vector<auto_resources::ManagedFD>& files,
                                  const Extent& extent, std::size_t in_flight) {
  std::vector<double> raw_micros;
  std::vector<double> daemon_micros;
  const double unit = 1e6 / static_cast<double>(files.size());
  for (std::size_t round = 0; round <= extent.rounds; ++round) {
    const double raw_seconds = raw.Pass(files, extent.workers.back()).seconds;
    const double daemon_seconds = daemon.Pass(files, in_flight).seconds;
    if (round > 0) {
      raw_micros.push_back(raw_seconds * unit);
      daemon_micros.push_back(daemon_seconds * unit);
    }
  }
  return {Summarize(raw_micros).median, Summarize(daemon_micros).median};
}

// With the number of rules: scanning, and loading the policy.
void MeasureRuleCounts(const Inputs& inputs, const Extent& extent, Results& results) {
  Curve scan{"rules", "rules", "us a file of 14 to 18 KB", {{"raw", {}}, {"daemon", {}}}};
  Curve load{"load", "rules", "ms from policy to answer", {{"raw", {}}, {"daemon", {}}}};
  const auto files = inputs.Files(kFileClasses[0]);
  for (const std::size_t count : inputs.RuleCounts(extent.curve_rule_counts)) {
    const std::string rules = inputs.Rules(count);
    RawYara raw(rules);
    Daemon daemon(extent.workers.back());
    load.lines[0].points.emplace_back(count, raw.CompileSeconds() * 1e3);
    load.lines[1].points.emplace_back(count, daemon.Apply(MakeMemfd(rules).Get()) * 1e3);
    if (!files.empty()) {
      const auto [raw_micros, daemon_micros] = Compare(raw, daemon, files, extent, kUsualInFlight);
      scan.lines[0].points.emplace_back(count, raw_micros);
      scan.lines[1].points.emplace_back(count, daemon_micros);
    }
  }
  results.Add(std::move(scan));
  results.Add(std::move(load));
}

void MeasureFileSizes(const Inputs& inputs, const Extent& extent, Results& results) {
  constexpr std::size_t kBytesOfPass = std::size_t{32} << 20;
  constexpr std::size_t kMostFiles = 2000;
  Curve curve{"size", "bytes", "us a file", {{"raw", {}}, {"daemon", {}}}};
  const std::string rules = inputs.Rules(kRulesOfCurves);
  RawYara raw(rules);
  Daemon daemon(rules, extent.workers.back());
  for (const std::size_t size : extent.curve_file_sizes) {
    const std::size_t count = std::clamp<std::size_t>(kBytesOfPass / size, 8, kMostFiles);
    const auto files = MakeFiles({"curve", size, size, count}, static_cast<std::uint32_t>(size));
    const auto [raw_micros, daemon_micros] = Compare(raw, daemon, files, extent, kUsualInFlight);
    curve.lines[0].points.emplace_back(size, raw_micros);
    curve.lines[1].points.emplace_back(size, daemon_micros);
  }
  results.Add(std::move(curve));
}

void MeasureInFlight(const Inputs& inputs, const Extent& extent, Results& results) {
  Curve curve{"flight", "requests in flight", "us a file of 14 to 18 KB", {{"daemon", {}}}};
  const auto files = inputs.Files(kFileClasses[0]);
  const std::string rules = inputs.Rules(kRulesOfCurves);
  RawYara raw(rules);
  Daemon daemon(rules, extent.workers.back());
  for (std::size_t in_flight = 1; in_flight <= 64 && !files.empty(); in_flight *= 2) {
    curve.lines[0].points.emplace_back(in_flight, Compare(raw, daemon, files, extent, in_flight).second);
  }
  results.Add(std::move(curve));
}

}  // namespace

void MeasureGrowth(const Inputs& inputs, const Extent& extent, Results& results) {
  MeasureRuleCounts(inputs, extent, results);
  MeasureFileSizes(inputs, extent, results);
  MeasureInFlight(inputs, extent, results);
}

}  // namespace vond::bench
