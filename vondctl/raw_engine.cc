#include "vondctl/raw_engine.h"

#include <yara.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <thread>

#include "vondctl/rule_compiler.h"

namespace vond::vondctl {
namespace {

using std::chrono::steady_clock;

constexpr int kTimeoutInSeconds = 30;

double SecondsSince(steady_clock::time_point start) {
  return std::chrono::duration<double>(steady_clock::now() - start).count();
}

int CountMatch(YR_SCAN_CONTEXT* /*context*/, int message, void* /*data*/, void* user_data) noexcept {
  if (message == CALLBACK_MSG_RULE_MATCHING) {
    ++*static_cast<std::size_t*>(user_data);
  }
  return CALLBACK_CONTINUE;
}

}  // namespace

RawEngine::RawEngine(const std::string& source) {
  const auto start = steady_clock::now();
  CompiledSource compiled = CompileRuleSource(source);
  if (compiled.Failed()) {
    throw std::runtime_error("the rules do not compile: " + compiled.reports.back().message);
  }
  rules_ = std::move(compiled.rules);
  compile_seconds_ = SecondsSince(start);
}

SamplePass RawEngine::Pass(const std::vector<SampleFile>& sample, std::size_t threads, Deadline deadline) const {
  SamplePass pass;
  pass.latencies.resize(sample.size());
  std::atomic<std::size_t> next{0};
  std::atomic<std::size_t> matches{0};
  std::atomic<std::size_t> failed{0};
  const auto start = steady_clock::now();
  const auto work = [&] {
    std::size_t found = 0;
    while (steady_clock::now() < deadline) {
      const std::size_t file = next++;
      if (file >= sample.size()) {
        break;
      }
      const auto begin = steady_clock::now();
      const int error = ::yr_rules_scan_fd(rules_.get(), sample[file].fd.Get(), SCAN_FLAGS_REPORT_RULES_MATCHING,
                                           &CountMatch, &found, kTimeoutInSeconds);
      pass.latencies[file] = SecondsSince(begin);
      failed += error == ERROR_SUCCESS ? 0 : 1;
    }
    matches += found;
  };
  std::vector<std::thread> workers;
  for (std::size_t i = 1; i < threads; ++i) {
    workers.emplace_back(work);
  }
  work();
  for (std::thread& worker : workers) {
    worker.join();
  }
  pass.seconds = SecondsSince(start);
  pass.files = std::min<std::size_t>(next, sample.size());
  pass.latencies.resize(pass.files);
  pass.matches = matches;
  pass.failed = failed;
  return pass;
}

}  // namespace vond::vondctl
