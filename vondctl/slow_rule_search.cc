#include "vondctl/slow_rule_search.h"

#include <time.h>
#include <yara.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <queue>
#include <set>
#include <stdexcept>
#include <utility>

#include "vondctl/rule_compiler.h"

namespace vond::vondctl {
namespace {

using std::chrono::steady_clock;
using yara_source::RuleReference;
using yara_source::RuleText;

constexpr int kTimeoutInSeconds = 30;
// A pass with all rules may take this part of the time there is: some thirty timings lead to the slowest of 10,000.
constexpr double kPassPart = 1.0 / 40;
constexpr int kPassesPerTiming = 2;  // of which the faster one counts

// Processor time of this thread, which others on the machine hardly change.
double CpuSeconds() {
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

int IgnoreMessage(YR_SCAN_CONTEXT* /*context*/, int /*message*/, void* /*data*/, void* /*user_data*/) noexcept {
  return CALLBACK_CONTINUE;
}

class Search {
 public:
  Search(const MergedSource& source, const std::vector<SampleFile>& sample, steady_clock::time_point deadline)
      : source_(source),
        sample_(sample),
        deadline_(deadline),
        index_(yara_source::ParseSource(source.Text())),
        needs_(index_.rules.size()) {
    std::map<std::string, std::size_t> by_name;
    for (std::size_t i = 0; i < index_.rules.size(); ++i) {
      for (const RuleReference& reference : index_.rules[i].references) {
        for (auto it = by_name.lower_bound(reference.name);
             it != by_name.end() && it->first.starts_with(reference.name); ++it) {
          if (reference.is_prefix || it->first == reference.name) {
            needs_[i].push_back(it->second);
          }
        }
      }
      by_name.emplace(index_.rules[i].name, i);
    }
  }

  SlowRuleSearch Run(std::size_t count) {
    std::vector<std::size_t> all(index_.rules.size());
    std::iota(all.begin(), all.end(), 0U);
    ChooseFiles(all);
    result_.files = files_;
    base_ = Time({});
    const double total = Time(all);
    result_.seconds = total;
    std::priority_queue<Part> parts;
    parts.push({total - base_, std::move(all)});
    while (result_.rules.size() < count && !parts.empty() && steady_clock::now() < deadline_) {
      Part part = parts.top();
      parts.pop();
      if (part.seconds < kLeastShare * total) {
        result_.complete = true;
        return result_;
      }
      if (part.rules.size() == 1) {
        Conclude(part, total, parts);
        continue;
      }
      const auto middle = part.rules.begin() + static_cast<std::ptrdiff_t>(part.rules.size() / 2);
      for (std::vector<std::size_t> half :
           {std::vector(part.rules.begin(), middle), std::vector(middle, part.rules.end())}) {
        const double seconds = Time(half) - base_;
        parts.push({seconds, std::move(half)});
      }
    }
    result_.complete = parts.empty() || result_.rules.size() == count;
    return result_;
  }

 private:
  // Some rules, and the seconds that they take on top of what it takes without any.
  struct Part {
    double seconds;
    std::vector<std::size_t> rules;
    bool operator<(const Part& other) const { return seconds < other.seconds; }
  };

  // A single rule is left. What it needs may be what takes the time.
  void Conclude(const Part& part, double total, std::priority_queue<Part>& parts) {
    const std::size_t rule = part.rules.front();
    if (!concluded_.insert(rule).second) {
      return;
    }
    double own = part.seconds;
    if (!needs_[rule].empty()) {
      own -= Time(needs_[rule]) - base_;
      for (const std::size_t needed : needs_[rule]) {
        if (!concluded_.contains(needed)) {
          parts.push({Time({needed}) - base_, {needed}});
        }
      }
    }
    if (own >= kLeastShare * total) {
      const RuleText& text = index_.rules[rule];
      const SlowRule slow{text.name, source_.PlaceOfLine(text.line), std::min(own / total, 1.0), own};
      const auto at = std::find_if(result_.rules.begin(), result_.rules.end(),
                                   [own](const SlowRule& other) { return other.seconds < own; });
      result_.rules.insert(at, slow);
    }
  }

  // So many files that a pass with all rules takes the time it may.
  void ChooseFiles(const std::vector<std::size_t>& all) {
    const double limit = std::chrono::duration<double>(deadline_ - steady_clock::now()).count() * kPassPart;
    const CompiledSource compiled = Compile(all);
    const double start = CpuSeconds();
    for (files_ = 0; files_ < sample_.size() && (files_ == 0 || CpuSeconds() - start < limit); ++files_) {
      Scan(compiled, files_);
    }
  }

  // Imports, and the rules with all that they need, in the set's order.
  [[nodiscard]] CompiledSource Compile(const std::vector<std::size_t>& rules) const {
    std::set<std::size_t> wanted;
    std::vector<std::size_t> open = rules;
    while (!open.empty()) {
      const std::size_t rule = open.back();
      open.pop_back();
      if (wanted.insert(rule).second) {
        open.insert(open.end(), needs_[rule].begin(), needs_[rule].end());
      }
    }
    std::string text;
    const auto append = [&](yara_source::Range range) {
      text.append(source_.Text(), range.begin, range.Size()).append("\n");
    };
    for (const yara_source::Directive& import : index_.imports) {
      append(import.range);
    }
    for (const std::size_t rule : wanted) {
      append(index_.rules[rule].whole);
    }
    CompiledSource compiled = CompileRuleSource(text);
    if (compiled.Failed()) {
      throw std::runtime_error("a part of the rules does not compile: " + compiled.reports.back().message);
    }
    return compiled;
  }

  void Scan(const CompiledSource& compiled, std::size_t file) const {
    ::yr_rules_scan_fd(compiled.rules.get(), sample_[file].fd.Get(), SCAN_FLAGS_REPORT_RULES_MATCHING, &IgnoreMessage,
                       nullptr, kTimeoutInSeconds);
  }

  [[nodiscard]] double Time(const std::vector<std::size_t>& rules) const {
    const CompiledSource compiled = Compile(rules);
    double best = 0;
    for (int pass = 0; pass < kPassesPerTiming; ++pass) {
      const double start = CpuSeconds();
      for (std::size_t file = 0; file < files_; ++file) {
        Scan(compiled, file);
      }
      const double seconds = CpuSeconds() - start;
      best = pass == 0 ? seconds : std::min(best, seconds);
    }
    return best;
  }

  const MergedSource& source_;
  const std::vector<SampleFile>& sample_;
  const steady_clock::time_point deadline_;
  const yara_source::SourceIndex index_;
  std::vector<std::vector<std::size_t>> needs_;  // of each rule, the rules in its condition
  std::size_t files_ = 0;                        // of the sample that are timed
  double base_ = 0;                              // seconds without any rule
  std::set<std::size_t> concluded_;
  SlowRuleSearch result_;
};

}  // namespace

SlowRuleSearch FindSlowRules(const MergedSource& source, const std::vector<SampleFile>& sample, std::size_t count,
                             steady_clock::time_point deadline) {
  return Search(source, sample, deadline).Run(count);
}

}  // namespace vond::vondctl
