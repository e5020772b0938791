#include "agent/rule_packer.h"
#include "bench/measurements.h"
#include "bench/run.h"

namespace vond::bench {

void MeasurePolicyLoad(const Inputs& inputs, const Extent& extent, Results& results) {
  const std::string rules = inputs.Rules(kManyRules);
  const auto packed = MakeMemfd(agent::PackRuleSet(rules));
  std::vector<double> ratios;
  std::vector<double> swap_ratios;
  std::vector<double> compiles;
  std::vector<double> loads;
  for (std::size_t round = 0; round < extent.rounds; ++round) {
    Daemon daemon(2);
    const double first = round % 2 == 0 ? daemon.Apply(packed.Get()) : 0;
    const double compile = RawYara(rules).CompileSeconds();
    const double load = round % 2 == 0 ? first : daemon.Apply(packed.Get());
    loads.push_back(load * 1e3);
    compiles.push_back(compile * 1e3);
    ratios.push_back(load / compile);
    swap_ratios.push_back(daemon.Apply(packed.Get()) / compile);
  }
  results.Add("policy.ratio", "of the time of raw compiling", std::move(ratios));
  results.Add("policy.swap_ratio", "of the time of raw compiling", std::move(swap_ratios));
  results.Add("policy.load", "ms", std::move(loads));
  results.Add("policy.raw_compile", "ms", std::move(compiles));
}

}  // namespace vond::bench
