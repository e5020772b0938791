#include <fmt/format.h>

#include <array>
#include <memory>
#include <stdexcept>

#include "bench/measurements.h"
#include "bench/run.h"

namespace vond::bench {
namespace {

constexpr std::size_t kRules = 300;
constexpr double kLeastSeconds = 0.5;  // of one side in a round: a pass may be too short to compare

// Seconds of `passes` passes.
double Run(Daemon& daemon, const std::vector<auto_resources::ManagedFD>& files, std::size_t passes,
           std::size_t& matches) {
  double seconds = 0;
  for (std::size_t pass = 0; pass < passes; ++pass) {
    const PassResult result = daemon.Pass(files, kUsualInFlight);
    seconds += result.seconds;
    matches += result.matches;
  }
  return seconds;
}

void Compare(const std::string& id, const std::vector<auto_resources::ManagedFD>& files, const std::string& rules,
             std::uint32_t workers, std::size_t rounds, Results& results) {
  Daemon inside(rules, workers);
  Daemon outside(rules, workers, false);
  std::size_t warm_up = 0;
  static_cast<void>(Run(inside, files, 1, warm_up));
  const double once = Run(outside, files, 1, warm_up);
  const auto passes = static_cast<std::size_t>(kLeastSeconds / once) + 1;
  std::vector<double> ratios;
  for (std::size_t round = 0; round < rounds; ++round) {
    std::array<double, 2> seconds{};
    std::array<std::size_t, 2> matches{};
    for (const std::size_t turn : {0U, 1U}) {
      const std::size_t side = round % 2 == 0 ? turn : 1 - turn;  // what drifts hits both
      seconds[side] = Run(side == 0 ? inside : outside, files, passes, matches[side]);
    }
    if (matches[0] != matches[1]) {
      throw std::runtime_error(fmt::format("{}: {} matches in the sandbox, {} without", id, matches[0], matches[1]));
    }
    ratios.push_back(seconds[1] / seconds[0]);
  }
  results.Add(id, "of without sandbox", std::move(ratios));
}

}  // namespace

void MeasureSandbox(const Inputs& inputs, const Extent& extent, Results& results) {
  for (const FileClass& file_class : kFileClasses) {
    const std::vector<auto_resources::ManagedFD> files = inputs.Files(file_class);
    if (files.empty()) {
      continue;
    }
    for (const std::size_t rules : inputs.RuleCounts({kRules})) {
      for (const std::uint32_t workers : extent.workers) {
        Compare(fmt::format("sandbox.{}.{}.w{}", file_class.name, rules, workers), files, inputs.Rules(rules), workers,
                extent.rounds, results);
      }
    }
  }
}

}  // namespace vond::bench
