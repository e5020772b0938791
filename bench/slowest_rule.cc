#include "bench/slowest_rule.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <utility>
#include <vector>

#include "yara/yara_lib/yara_lib.h"

namespace vond::bench {
namespace {

using korvo::yara::yara_lib::YaraLib;
using korvo::yara::yara_lib::YaraRuleSet;
using std::chrono::steady_clock;

class Stopwatch {
 public:
  Stopwatch(const std::string& rules, std::string_view sample)
      : set_(YaraLib::Instance().CompileAndLoad(rules, "id", false, {})), sample_(sample) {}

  [[nodiscard]] YaraRuleSet& Set() { return *set_; }

  // The least of several scans, in microseconds: noise only adds.
  [[nodiscard]] double Scan(int times) const {
    double least = 0;
    for (int i = 0; i < times; ++i) {
      const auto start = steady_clock::now();
      static_cast<void>(YaraLib::Instance().ScanMemory(reinterpret_cast<const std::uint8_t*>(sample_.data()),
                                                       sample_.size(), set_, {0, 0, 60}));
      const double micros = std::chrono::duration<double, std::micro>(steady_clock::now() - start).count();
      least = i == 0 ? micros : std::min(least, micros);
    }
    return least;
  }

  [[nodiscard]] double ScanWith(std::size_t rule, int times) {
    set_->SetRuleEnabled(rule, true);
    // The engine can't do with a condition that counts rules which are switched off.
    const double micros = set_->FindDisabledMember() ? 0 : Scan(times);
    set_->SetRuleEnabled(rule, false);
    return micros;
  }

 private:
  std::shared_ptr<YaraRuleSet> set_;
  std::string_view sample_;
};

}  // namespace

SlowestRule FindSlowestRule(const std::string& rules, std::string_view sample) {
  constexpr std::size_t kFinalists = 10;
  constexpr int kTimes = 7;
  Stopwatch stopwatch(rules, sample);
  YaraRuleSet& set = stopwatch.Set();
  SlowestRule slowest;
  slowest.all_micros = stopwatch.Scan(kTimes);
  for (std::size_t i = 0; i < set.size(); ++i) {
    set.SetRuleEnabled(i, false);
  }
  const double without = stopwatch.Scan(kTimes);
  std::vector<std::pair<double, std::size_t>> costs;
  for (std::size_t i = 0; i < set.size(); ++i) {
    costs.emplace_back(stopwatch.ScanWith(i, 2), i);
  }
  std::sort(costs.rbegin(), costs.rend());
  costs.resize(std::min(costs.size(), kFinalists));
  for (const auto& [micros, rule] : costs) {
    const double again = stopwatch.ScanWith(rule, kTimes) - without;
    if (slowest.name.empty() || again > slowest.micros) {
      slowest.name = set.GetRule(rule).name;
      slowest.micros = again;
    }
  }
  return slowest;
}

}  // namespace vond::bench
