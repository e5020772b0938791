#include <fmt/format.h>

#include <array>
#include <stdexcept>

#include "bench/measurements.h"
#include "bench/run.h"

namespace vond::bench {

void MeasureMatches(const Inputs& /*inputs*/, const Extent& extent, Results& results) {
  constexpr std::size_t kRules = 900;
  constexpr std::size_t kFew = 10;
  constexpr std::size_t kFiles = 200;
  constexpr std::array<std::size_t, 3> kMatches{0, kFew, kRules};  // of a file that begins with byte 0, 1, 2

  const std::string rules = MakeMatchingRules(kRules, kFew);
  RawYara raw(rules);
  Daemon daemon(rules, 1);
  std::array<std::vector<auto_resources::ManagedFD>, kMatches.size()> files;
  std::array<std::vector<double>, kMatches.size()> daemon_cpu;  // seconds a pass
  std::vector<double> raw_seconds_per_match;
  for (std::size_t kind = 0; kind < kMatches.size(); ++kind) {
    std::string content(1024, '\0');
    content[0] = static_cast<char>(kind);
    for (std::size_t i = 0; i < kFiles; ++i) {
      files[kind].push_back(MakeMemfd(content));
    }
    results.Add(fmt::format("matches.answer_bytes.{}", kMatches[kind]), "bytes",
                static_cast<double>(daemon.AnswerBytes(files[kind].front())));
  }
  for (std::size_t round = 0; round <= extent.rounds; ++round) {
    std::array<double, kMatches.size()> raw_seconds{};
    std::array<double, kMatches.size()> cpu{};
    for (std::size_t kind = 0; kind < kMatches.size(); ++kind) {
      raw_seconds[kind] = raw.Pass(files[kind], 1).seconds;
      const double before = daemon.CpuSeconds();
      if (daemon.Pass(files[kind], kUsualInFlight).matches != kFiles * kMatches[kind]) {
        throw std::runtime_error("the rules made to match do not");
      }
      cpu[kind] = daemon.CpuSeconds() - before;
    }
    if (round > 0) {  // the first one warms up
      for (std::size_t kind = 0; kind < kMatches.size(); ++kind) {
        daemon_cpu[kind].push_back(cpu[kind]);
      }
      raw_seconds_per_match.push_back((raw_seconds[2] - raw_seconds[0]) / (kFiles * kRules));
    }
  }
  const auto add = [&](const std::string& id, const std::string& unit, const auto& value_of_round) {
    std::vector<double> values;
    for (std::size_t round = 0; round < extent.rounds; ++round) {
      values.push_back(value_of_round(round));
    }
    results.Add(id, unit, std::move(values));
  };
  for (std::size_t kind = 0; kind < kMatches.size(); ++kind) {
    add(fmt::format("matches.cpu_per_file.{}", kMatches[kind]), "us",
        [&](std::size_t round) { return daemon_cpu[kind][round] / kFiles * 1e6; });
  }
  add("matches.cpu_per_match", "us",
      [&](std::size_t round) { return (daemon_cpu[2][round] - daemon_cpu[0][round]) / (kFiles * kRules) * 1e6; });
  add("matches.raw_per_match", "us", [&](std::size_t round) { return raw_seconds_per_match[round] * 1e6; });
}

}  // namespace vond::bench
