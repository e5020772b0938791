#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>

#include "bench/measurements.h"
#include "bench/run.h"
#include "bench/slowest_rule.h"

namespace vond::bench {
namespace {

using Rounds = std::map<std::string, std::vector<double>>;

// One class of files with one set of rules: everything that is compared takes turns within each round.
class Group {
 public:
  Group(const FileClass& file_class, std::size_t rule_count, const Inputs& inputs, const Extent& extent)
      : name_(fmt::format("{}.{}", file_class.name, rule_count)),
        extent_(extent),
        files_(inputs.Files(file_class)),
        raw_(inputs.Rules(rule_count)) {
    if (Engine::System() != nullptr) {
      system_ = std::make_unique<RawYara>(inputs.Rules(rule_count), *Engine::System());
    }
    for (const std::uint32_t workers : extent.workers) {
      daemons_[workers] = std::make_unique<Daemon>(inputs.Rules(rule_count), workers);
    }
  }

  void Run(Results& results) {
    if (files_.empty()) {
      results.Note(name_, "no such files");
      return;
    }
    if (!raw_.SlowRules().empty()) {
      results.Note(fmt::format("rules of {} that the compiler calls slow", name_),
                   fmt::format("{}, the first is {}", raw_.SlowRules().size(), raw_.SlowRules().front()));
    }
    Round(0);  // not counted: all have their memory and threads after this
    seconds_.clear();
    for (std::size_t round = 1; round <= extent_.rounds; ++round) {
      Round(round);
    }
    for (const std::uint32_t workers : extent_.workers) {
      for (const std::size_t in_flight : extent_.in_flight) {
        const std::string daemon = DaemonName(workers, in_flight);
        Compare(fmt::format("scan.{}.w{}.f{}", name_, workers, in_flight), "of raw libyara", RawName(workers), daemon,
                results);
        if (system_ != nullptr && in_flight == kUsualInFlight) {
          Compare(fmt::format("debian.{}.w{}.f{}", name_, workers, in_flight), "of the system's libyara",
                  SystemName(workers), daemon, results);
        }
        std::vector<double> rates = seconds_.at(daemon);
        std::transform(rates.begin(), rates.end(), rates.begin(),
                       [&](double seconds) { return static_cast<double>(files_.size()) / seconds; });
        results.Add(fmt::format("rate.{}.w{}.f{}", name_, workers, in_flight), "files/s", std::move(rates));
      }
    }
    if (extent_.workers.size() > 1) {
      Compare(fmt::format("scaling.{}", name_), "2 workers against 1", DaemonName(1, kUsualInFlight),
              DaemonName(2, kUsualInFlight), results);
      Compare(fmt::format("scaling.{}.raw", name_), "2 threads against 1", RawName(1), RawName(2), results);
    }
  }

 private:
  static std::string RawName(std::uint32_t threads) { return fmt::format("raw {}", threads); }
  static std::string SystemName(std::uint32_t threads) { return fmt::format("system {}", threads); }
  static std::string DaemonName(std::uint32_t workers, std::size_t in_flight) {
    return fmt::format("daemon {} {}", workers, in_flight);
  }

  // Every second round backwards, so that what drifts hits both sides.
  void Round(std::size_t number) {
    std::vector<std::pair<std::string, std::function<PassResult()>>> passes;
    for (const std::uint32_t workers : extent_.workers) {
      passes.emplace_back(RawName(workers), [this, workers] { return raw_.Pass(files_, workers); });
      for (const std::size_t in_flight : extent_.in_flight) {
        passes.emplace_back(DaemonName(workers, in_flight),
                            [this, workers, in_flight] { return daemons_.at(workers)->Pass(files_, in_flight); });
      }
      if (system_ != nullptr) {
        passes.emplace_back(SystemName(workers), [this, workers] { return system_->Pass(files_, workers); });
      }
    }
    if (number % 2 == 1) {
      std::reverse(passes.begin(), passes.end());
    }
    for (const auto& [name, pass] : passes) {
      const PassResult result = pass();
      seconds_[name].push_back(result.seconds);
      if (matches_ && *matches_ != result.matches) {
        throw std::runtime_error(
            fmt::format("{}: {} matches by {}, {} before", name_, result.matches, name, *matches_));
      }
      matches_ = result.matches;
    }
  }

  // How many times as fast `daemon` is as `base`, round by round.
  void Compare(const std::string& id, const std::string& unit, const std::string& base, const std::string& daemon,
               Results& results) const {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < extent_.rounds; ++i) {
      ratios.push_back(seconds_.at(base)[i] / seconds_.at(daemon)[i]);
    }
    results.Add(id, unit, std::move(ratios));
  }

  const std::string name_;
  const Extent& extent_;
  const std::vector<auto_resources::ManagedFD> files_;
  RawYara raw_;
  std::unique_ptr<RawYara> system_;
  std::map<std::uint32_t, std::unique_ptr<Daemon>> daemons_;
  Rounds seconds_;
  std::optional<std::size_t> matches_;
};

// Rules are not alike: one of them may take most of the time.
void NameSlowestRules(const Inputs& inputs, const Extent& extent, Results& results) {
  constexpr std::size_t kSampleSize = 64 << 10;
  constexpr double kShareOfNote = 0.1;
  std::string sample(kSampleSize, '\0');
  const auto files = inputs.Files({"sample", kSampleSize, 512 << 10, 1});
  if (files.empty() ||
      ::pread(files.front().Get(), sample.data(), sample.size(), 0) != static_cast<ssize_t>(kSampleSize)) {
    return;
  }
  for (const std::size_t rule_count : inputs.RuleCounts(extent.rule_counts)) {
    const SlowestRule slowest = FindSlowestRule(inputs.Rules(rule_count), sample);
    const bool stands_out = slowest.micros > slowest.all_micros * kShareOfNote;
    results.Note(
        fmt::format("slowest of {} rules", rule_count),
        stands_out ? fmt::format("{}, {:.0f} of {:.0f} us for 64 KiB", slowest.name, slowest.micros, slowest.all_micros)
                   : "none stands out");
  }
}

}  // namespace

void MeasureScans(const Inputs& inputs, const Extent& extent, Results& results) {
  NameSlowestRules(inputs, extent, results);
  for (const FileClass& file_class : kFileClasses) {
    for (const std::size_t rule_count : inputs.RuleCounts(extent.rule_counts)) {
      Group(file_class, rule_count, inputs, extent).Run(results);
    }
  }
}

}  // namespace vond::bench
