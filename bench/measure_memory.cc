#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>
#include <thread>

#include "agent/rule_packer.h"
#include "bench/measurements.h"
#include "bench/process_figures.h"
#include "bench/raw_process.h"
#include "bench/run.h"

namespace vond::bench {
namespace {

constexpr int kSwaps = 10;

double Mib(std::size_t kib) { return static_cast<double>(kib) / 1024; }

// Memory goes back after the answer.
void Settle() { std::this_thread::sleep_for(std::chrono::milliseconds(500)); }

void MeasureAtRest(const Inputs& inputs, Results& results) {
  Daemon daemon(2);
  Settle();
  results.Add("memory.rest.none", "MiB", Mib(ReadFigures(daemon.Pid()).resident_kib));
  for (const std::size_t count : inputs.RuleCounts({10, 300, kManyRules})) {
    const std::string rules = inputs.Rules(count);
    Daemon loaded(rules, 2);
    Settle();
    results.Add(fmt::format("memory.rest.{}", count), "MiB", Mib(ReadFigures(loaded.Pid()).resident_kib));
    const auto files = inputs.Files(kFileClasses[0]);
    if (!files.empty()) {
      ResetPeak(loaded.Pid());
      const std::size_t before = ReadFigures(loaded.Pid()).resident_kib;
      static_cast<void>(loaded.Pass(files, 64));
      const std::size_t peak = ReadFigures(loaded.Pid()).peak_resident_kib;
      results.Add(fmt::format("memory.scans.{}", count), "MiB more at the peak of scanning, 64 in flight",
                  Mib(peak - std::min(before, peak)));
    }
  }
  constexpr std::chrono::seconds kIdle{2};
  const double before = daemon.CpuSeconds();
  std::this_thread::sleep_for(kIdle);
  results.Add("idle.cpu", "ms of processor time a second", (daemon.CpuSeconds() - before) * 1e3 / kIdle.count());
}

// Resident memory while scans run: the median of some looks, since it goes up and down with them.
double ResidentUnderLoad(const Daemon& daemon) {
  std::vector<double> looks;
  for (int i = 0; i < 20; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    looks.push_back(Mib(ReadFigures(daemon.Pid()).resident_kib));
  }
  return Summarize(looks).median;
}

void MeasureSwapsUnderLoad(const Inputs& inputs, int swaps, int rule_set_fd, Results& results) {
  const auto files = inputs.Files(kFileClasses[0]);
  if (files.empty()) {
    return;
  }
  Daemon daemon(2);
  daemon.Apply(rule_set_fd);
  std::atomic<bool> stop{false};
  auto load = std::async(std::launch::async, [&] {
    while (!stop) {
      static_cast<void>(daemon.Pass(files, kUsualInFlight));
    }
  });
  double first = 0;
  double last = 0;
  try {
    daemon.Apply(rule_set_fd);
    first = ResidentUnderLoad(daemon);
    for (int swap = 1; swap < swaps; ++swap) {
      daemon.Apply(rule_set_fd);
    }
    last = ResidentUnderLoad(daemon);
  } catch (...) {
    stop = true;
    throw;
  }
  stop = true;
  load.get();  // throws if a file was not scanned
  results.Add("memory.load.first", "MiB resident under load after the first swap", first);
  results.Add("memory.load.last", fmt::format("MiB resident under load after {} swaps", swaps), last);
  results.Add("memory.load.ratio", "of resident after the first swap", last / first);
}

}  // namespace

void MeasureMemory(const Inputs& inputs, const Extent& extent, Results& results) {
  MeasureAtRest(inputs, results);

  const std::string rules = inputs.Rules(kManyRules);
  const auto packed = MakeMemfd(agent::PackRuleSet(rules));
  Daemon daemon(2);
  Settle();
  const double without_policy = Mib(ReadFigures(daemon.Pid()).resident_kib);
  std::vector<double> peaks;
  std::vector<double> residents;
  for (int swap = 0; swap <= kSwaps; ++swap) {
    ResetPeak(daemon.Pid());
    daemon.Apply(packed.Get());
    Settle();
    const ProcessFigures figures = ReadFigures(daemon.Pid());
    residents.push_back(Mib(figures.resident_kib));
    if (swap > 0) {  // the first policy has none before it
      peaks.push_back(Mib(figures.peak_resident_kib));
    }
  }
  results.Add("memory.swap.first", "MiB resident", residents.front());
  results.Add("memory.swap.tenth", "MiB resident", residents.back());
  results.Add("memory.swap.ratio", "of resident after one", residents.back() / residents.front());
  const Summary peak = Summarize(peaks);
  results.Add("memory.swap.peak", "MiB", peak);
  MeasureSwapsUnderLoad(inputs, extent.swaps_under_load, packed.Get(), results);

  const ScratchFolder scratch;
  const std::filesystem::path source = scratch.Path() / "rules";
  std::ofstream(source) << rules;
  const RawFigures compile = RunRaw("raw-compile", source);
  const RawFigures load = RunRaw("raw-load", source.string() + ".out");
  const RawFigures nothing = RunRaw("raw-load", "");
  results.Add("memory.raw.compile_peak", "MiB", compile.peak_mib);
  results.Add("memory.raw.load", "MiB more than without rules", load.resident_mib - nothing.resident_mib);
  const auto more_than = [&](double without, double base) {
    return Summary{(peak.median - without) / base, (peak.low - without) / base, (peak.high - without) / base,
                   peak.rounds};
  };
  // What both processes take without rules, which is mostly their libraries, is left out on both sides.
  results.Add("memory.swap.peak_ratio", "of what raw loading takes",
              more_than(without_policy, load.resident_mib - nothing.resident_mib));
  results.Add("memory.swap.peak_compile_ratio", "of the most that raw compiling takes",
              more_than(without_policy, compile.peak_mib - nothing.resident_mib));
}

}  // namespace vond::bench
