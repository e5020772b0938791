#include "bench/slowest_rule.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <span>
#include <vector>

#include "bench/run.h"
#include "yara/yara_source/yara_source.h"

namespace vond::bench {
namespace {

using std::chrono::steady_clock;
using yara_source::RuleText;
using RuleSpan = std::span<const RuleText* const>;

class Finder {
 public:
  Finder(const std::string& rules, std::string_view sample)
      : source_(rules), sample_(sample), index_(yara_source::ParseSource(rules)) {}

  SlowestRule Find() {
    const std::vector<const RuleText*> candidates = Independent();
    SlowestRule slowest;
    slowest.all_micros = Without({});
    RuleSpan suspects(candidates);
    while (suspects.size() > 1) {
      const RuleSpan first = suspects.first(suspects.size() / 2);
      const RuleSpan second = suspects.subspan(suspects.size() / 2);
      suspects = Without(first) < Without(second) ? first : second;
    }
    if (!suspects.empty()) {
      slowest.name = suspects.front()->name;
      slowest.micros = slowest.all_micros - Without(suspects);
    }
    return slowest;
  }

 private:
  // The rules that neither name others nor are named.
  [[nodiscard]] std::vector<const RuleText*> Independent() const {
    std::set<std::string> named;
    for (const RuleText& rule : index_.rules) {
      for (const auto& reference : rule.references) {
        named.insert(reference.name);
      }
    }
    std::vector<const RuleText*> independent;
    for (const RuleText& rule : index_.rules) {
      const bool is_named =
          std::any_of(named.begin(), named.end(), [&](const std::string& name) { return rule.name.starts_with(name); });
      if (rule.references.empty() && !is_named) {
        independent.push_back(&rule);
      }
    }
    return independent;
  }

  // What the sample takes without these rules: the least of several scans, since noise only adds. In microseconds.
  [[nodiscard]] double Without(RuleSpan left_out) const {
    constexpr int kScans = 9;
    yara_source::Edits edits;
    for (const RuleText* rule : left_out) {
      edits.Replace(rule->whole, "");
    }
    const RawYara raw(edits.Apply(source_));
    double least = 0;
    for (int i = 0; i < kScans; ++i) {
      const auto start = steady_clock::now();
      static_cast<void>(raw.Verdict(sample_));
      const double micros = std::chrono::duration<double, std::micro>(steady_clock::now() - start).count();
      least = i == 0 ? micros : std::min(least, micros);
    }
    return least;
  }

  const std::string& source_;
  const std::string_view sample_;
  const yara_source::SourceIndex index_;
};

}  // namespace

SlowestRule FindSlowestRule(const std::string& rules, std::string_view sample) { return Finder(rules, sample).Find(); }

}  // namespace vond::bench
