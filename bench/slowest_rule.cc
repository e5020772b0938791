#include "bench/slowest_rule.h"

#include <time.h>
#include <yara.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <stdexcept>

namespace vond::bench {
namespace {

// Processor time of this thread: it does not count what others do meanwhile.
double CpuSeconds() {
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

int Ignore(YR_SCAN_CONTEXT* /*context*/, int /*message*/, void* /*data*/, void* /*user_data*/) {
  return CALLBACK_CONTINUE;
}

std::unique_ptr<YR_RULES, int (*)(YR_RULES*)> Compile(const std::string& source) {
  YR_COMPILER* compiler = nullptr;
  YR_RULES* rules = nullptr;
  if (::yr_initialize() != ERROR_SUCCESS || ::yr_compiler_create(&compiler) != ERROR_SUCCESS) {
    throw std::runtime_error("libyara does not start");
  }
  const bool compiled = ::yr_compiler_add_string(compiler, source.c_str(), nullptr) == 0 &&
                        ::yr_compiler_get_rules(compiler, &rules) == ERROR_SUCCESS;
  ::yr_compiler_destroy(compiler);
  if (!compiled) {
    throw std::runtime_error("the rules do not compile");
  }
  return {rules, &::yr_rules_destroy};
}

class Scanner {
 public:
  Scanner(YR_RULES& rules, const std::vector<auto_resources::ManagedFD>& files) : rules_(rules), files_(files) {}

  // The least seconds of some passes in which the strings of the rules from `first` up to `last` are not looked for, or
  // only those. The rules stay enabled: conditions that count one that is not would end the process.
  [[nodiscard]] double Seconds(std::size_t first, std::size_t last, bool only_those) const {
    for (std::size_t i = 0; i < rules_.num_rules; ++i) {
      const bool within = first <= i && i < last;
      const YR_RULE* const rule = &rules_.rules_table[i];
      YR_STRING* string = nullptr;
      yr_rule_strings_foreach(rule, string) {
        if (within == only_those) {
          string->flags &= ~STRING_FLAGS_DISABLED;
        } else {
          string->flags |= STRING_FLAGS_DISABLED;
        }
      }
    }
    constexpr int kPasses = 3;
    double least = std::numeric_limits<double>::max();
    for (int pass = 0; pass < kPasses; ++pass) {
      const double start = CpuSeconds();
      for (const auto& file : files_) {
        ::yr_rules_scan_fd(&rules_, file.Get(), SCAN_FLAGS_REPORT_RULES_MATCHING, &Ignore, nullptr, 30);
      }
      least = std::min(least, CpuSeconds() - start);
    }
    return least;
  }

 private:
  YR_RULES& rules_;
  const std::vector<auto_resources::ManagedFD>& files_;
};

}  // namespace

SlowestRule FindSlowestRule(const std::string& rules, const std::vector<auto_resources::ManagedFD>& files) {
  const auto compiled = Compile(rules);
  const Scanner scanner(*compiled, files);
  std::size_t first = 0;
  std::size_t last = compiled->num_rules;
  while (last - first > 1) {
    const std::size_t middle = first + (last - first) / 2;
    if (scanner.Seconds(first, middle, true) >= scanner.Seconds(middle, last, true)) {
      last = middle;
    } else {
      first = middle;
    }
  }
  const double all = scanner.Seconds(0, 0, false);
  const double without = scanner.Seconds(first, last, false);
  return {compiled->rules_table[first].identifier, std::max(0.0, 1 - without / all)};
}

}  // namespace vond::bench
