#include "bench/run.h"

#include <sys/mman.h>
#include <unistd.h>
#include <yara.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "agent/client.h"

namespace vond::bench {
namespace {

using auto_resources::ManagedFD;
using std::chrono::steady_clock;

double SecondsSince(steady_clock::time_point start) {
  return std::chrono::duration<double>(steady_clock::now() - start).count();
}

int CountMatch(YR_SCAN_CONTEXT* /*context*/, int message, void* /*data*/, void* user_data) {
  if (message == CALLBACK_MSG_RULE_MATCHING) {
    ++*static_cast<std::size_t*>(user_data);
  }
  return CALLBACK_CONTINUE;
}

int AddName(YR_SCAN_CONTEXT* /*context*/, int message, void* data, void* user_data) {
  if (message == CALLBACK_MSG_RULE_MATCHING) {
    static_cast<std::string*>(user_data)->append(static_cast<YR_RULE*>(data)->identifier).append(" ");
  }
  return CALLBACK_CONTINUE;
}

}  // namespace

struct RawYara::Rules {
  YR_RULES* rules = nullptr;
};

RawYara::RawYara(const std::string& rules) : rules_(std::make_unique<Rules>()) {
  YR_COMPILER* compiler = nullptr;
  if (::yr_initialize() != ERROR_SUCCESS || ::yr_compiler_create(&compiler) != ERROR_SUCCESS) {
    throw std::runtime_error("libyara does not start");
  }
  const bool compiled = ::yr_compiler_add_string(compiler, rules.c_str(), nullptr) == 0 &&
                        ::yr_compiler_get_rules(compiler, &rules_->rules) == ERROR_SUCCESS;
  ::yr_compiler_destroy(compiler);
  if (!compiled) {
    throw std::runtime_error("the benchmark's rules do not compile");
  }
}

RawYara::~RawYara() {
  ::yr_rules_destroy(rules_->rules);
  ::yr_finalize();
}

PassResult RawYara::Pass(const std::vector<ManagedFD>& files, std::size_t threads) {
  std::atomic<std::size_t> next{0};
  std::atomic<std::size_t> matches{0};
  const auto start = steady_clock::now();
  std::vector<std::thread> workers;
  for (std::size_t i = 0; i < threads; ++i) {
    workers.emplace_back([&] {
      std::size_t found = 0;
      for (std::size_t file = next++; file < files.size(); file = next++) {
        ::yr_rules_scan_fd(rules_->rules, files[file].Get(), SCAN_FLAGS_REPORT_RULES_MATCHING, &CountMatch, &found, 30);
      }
      matches += found;
    });
  }
  for (std::thread& worker : workers) {
    worker.join();
  }
  return {SecondsSince(start), matches};
}

std::string RawYara::Verdict(std::string_view content) const {
  std::string names;
  const int error = ::yr_rules_scan_mem(rules_->rules, reinterpret_cast<const std::uint8_t*>(content.data()),
                                        content.size(), SCAN_FLAGS_REPORT_RULES_MATCHING, &AddName, &names, 60);
  return error == ERROR_SUCCESS ? names : "error " + std::to_string(error);
}

struct Daemon::State {
  explicit State(agent::DaemonOptions options) : client(std::move(options)) {}
  agent::Client client;
};

Daemon::Daemon(const std::string& rules, std::uint32_t workers) {
  agent::DaemonOptions options;
  options.executable = VOND_PATH;
  state_ = std::make_unique<State>(std::move(options));
  const ManagedFD file(::memfd_create("rules", MFD_CLOEXEC));
  if (::write(file.Get(), rules.data(), rules.size()) != static_cast<ssize_t>(rules.size())) {
    throw std::runtime_error("memfd failed");
  }
  agent::Policy policy;
  policy.document.add_rule_sets();
  policy.document.set_max_number_of_threads(workers);
  policy.document.set_yara_timeout_in_seconds(30);
  policy.rule_set_fds = {file.Get()};
  policy.log_level = 3;
  state_->client.ApplyPolicy(policy, std::chrono::minutes(10));
}

Daemon::~Daemon() = default;

PassResult Daemon::Pass(const std::vector<ManagedFD>& files, std::size_t in_flight) {
  static_pattern_matching_proto::ScanRequest request;
  request.add_rule_type(static_pattern_matching_proto::Block);
  std::mutex mutex;
  std::condition_variable condition;
  std::size_t open = 0;
  std::size_t matches = 0;
  bool failed = false;
  const auto start = steady_clock::now();
  for (const ManagedFD& file : files) {
    std::unique_lock lock(mutex);
    condition.wait(lock, [&] { return open < in_flight; });
    ++open;
    lock.unlock();
    state_->client.ScanAsync(
        file.Get(), request, start + std::chrono::minutes(10), [&](const agent::ScanAnswer& answer) {
          const std::lock_guard guard(mutex);
          --open;
          failed = failed || answer.error || answer.response.results().at(0).result().error() != 0;
          matches += answer.error
                         ? 0U
                         : static_cast<std::size_t>(answer.response.results().at(0).result().matched_rules_size());
          condition.notify_one();
        });
  }
  std::unique_lock lock(mutex);
  condition.wait(lock, [&] { return open == 0; });
  if (failed) {
    throw std::runtime_error("a file was not scanned");
  }
  return {SecondsSince(start), matches};
}

}  // namespace vond::bench
