#include <fstream>

#include "agent/rule_packer.h"
#include "bench/measurements.h"
#include "bench/raw_process.h"
#include "bench/run.h"

namespace vond::bench {

void MeasurePolicyLoad(const Inputs& inputs, const Extent& extent, Results& results) {
  const std::string rules = inputs.Rules(kManyRules);
  const auto packed = MakeMemfd(agent::PackRuleSet(rules));
  const ScratchFolder scratch;
  const std::filesystem::path source = scratch.Path() / "rules";
  std::ofstream(source) << rules;
  std::vector<double> ratios;
  std::vector<double> swap_ratios;
  std::vector<double> warm_ratios;
  std::vector<double> compiles;
  std::vector<double> loads;
  for (std::size_t round = 0; round < extent.rounds; ++round) {
    // A new daemon has to ask the system for all its memory, and so must what it is compared with.
    Daemon daemon(2);
    const double first = round % 2 == 0 ? daemon.Apply(packed.Get()) : 0;
    const double compile = RunRaw("raw-compile", source).compile_seconds;
    const double load = round % 2 == 0 ? first : daemon.Apply(packed.Get());
    const double swap = daemon.Apply(packed.Get());
    loads.push_back(load * 1e3);
    compiles.push_back(compile * 1e3);
    ratios.push_back(load / compile);
    swap_ratios.push_back(swap / compile);
    // This process has compiled the same before, and kept the memory.
    warm_ratios.push_back(load / RawYara(rules).CompileSeconds());
  }
  results.Add("policy.ratio", "of the time of raw compiling in a new process", std::move(ratios));
  results.Add("policy.swap_ratio", "of the time of raw compiling in a new process", std::move(swap_ratios));
  results.Add("policy.warm_ratio", "of the time of raw compiling in a process that has kept its memory",
              std::move(warm_ratios));
  results.Add("policy.load", "ms", std::move(loads));
  results.Add("policy.raw_compile", "ms", std::move(compiles));
}

}  // namespace vond::bench
