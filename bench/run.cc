#include "bench/run.h"

#include <time.h>
#include <yara.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "agent/client.h"
#include "bench/workload.h"

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

void AddMessage(int /*level*/, const char* /*file*/, int line, const YR_RULE* rule, const char* message,
                void* messages) {
  static_cast<std::vector<std::string>*>(messages)->push_back(
      (rule == nullptr ? "line " + std::to_string(line) : std::string(rule->identifier)) + ": " + message);
}

static_pattern_matching_proto::ScanRequest BlockScan() {
  static_pattern_matching_proto::ScanRequest request;
  request.add_rule_type(static_pattern_matching_proto::Block);
  return request;
}

std::size_t CountReported(const static_pattern_matching_proto::ScanResponse& response) {
  const auto& rules = response.results().at(0).result().matched_rules();
  // Private rules are none to libyara's callback.
  return static_cast<std::size_t>(
      std::count_if(rules.begin(), rules.end(), [](const auto& rule) { return !rule.is_private_rule(); }));
}

}  // namespace

RawYara::RawYara(const std::string& rules, const Engine& engine) : engine_(engine) {
  YR_COMPILER* compiler = nullptr;
  if (engine_.initialize() != ERROR_SUCCESS) {
    throw std::runtime_error("libyara does not start");
  }
  const auto start = steady_clock::now();
  if (engine_.compiler_create(&compiler) != ERROR_SUCCESS) {
    throw std::runtime_error("libyara does not start");
  }
  std::vector<std::string> messages;
  if (&engine_ == &Engine::Linked()) {  // of another version's rules nothing is known
    engine_.compiler_set_callback(compiler, &AddMessage, &messages);
  }
  const bool compiled = engine_.compiler_add_string(compiler, rules.c_str(), nullptr) == 0 &&
                        engine_.compiler_get_rules(compiler, &rules_) == ERROR_SUCCESS;
  compile_seconds_ = SecondsSince(start);
  engine_.compiler_destroy(compiler);
  for (std::string& message : messages) {
    if (message.find("may slow down scanning") != std::string::npos ||
        message.find("is slowing down scanning") != std::string::npos) {
      slow_rules_.push_back(std::move(message));
    }
  }
  if (!compiled) {
    throw std::runtime_error("the benchmark's rules do not compile: " +
                             (messages.empty() ? std::string() : messages.back()));
  }
}

RawYara::~RawYara() {
  engine_.rules_destroy(rules_);
  engine_.finalize();
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
        engine_.rules_scan_fd(rules_, files[file].Get(), SCAN_FLAGS_REPORT_RULES_MATCHING, &CountMatch, &found, 30);
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
  const int error = engine_.rules_scan_mem(rules_, reinterpret_cast<const std::uint8_t*>(content.data()),
                                           content.size(), SCAN_FLAGS_REPORT_RULES_MATCHING, &AddName, &names, 60);
  return error == ERROR_SUCCESS ? names : "error " + std::to_string(error);
}

struct Daemon::State {
  explicit State(agent::DaemonOptions options) : client(std::move(options)) {}
  agent::Client client;
};

Daemon::Daemon(std::uint32_t workers, bool sandbox) : workers_(workers) {
  agent::DaemonOptions options;
  options.executable = VOND_PATH;
  options.sandbox.mode = sandbox ? agent::SandboxMode::kOn : agent::SandboxMode::kOff;
  state_ = std::make_unique<State>(std::move(options));
}

Daemon::Daemon(const std::string& rules, std::uint32_t workers, bool sandbox) : Daemon(workers, sandbox) {
  Apply(MakeMemfd(rules).Get());
}

Daemon::~Daemon() = default;

double Daemon::Apply(int rule_set_fd) {
  agent::Policy policy;
  policy.document.add_rule_sets();
  policy.document.set_max_number_of_threads(workers_);
  policy.document.set_yara_timeout_in_seconds(30);
  policy.rule_set_fds = {rule_set_fd};
  policy.log_level = 3;
  const auto start = steady_clock::now();
  state_->client.ApplyPolicy(policy, std::chrono::minutes(10));
  return SecondsSince(start);
}

std::size_t Daemon::AnswerBytes(const ManagedFD& file) {
  korvo_daemon::Request request;
  BlockScan().SerializeToString(request.mutable_generic_data_request()->mutable_data());
  const agent::Answer answer = state_->client.Send(request, {file.Get()}, std::chrono::minutes(1));
  if (answer.error) {
    throw agent::Error(*answer.error);
  }
  return answer.response.ByteSizeLong();
}

pid_t Daemon::Pid() const { return state_->client.Process().Pid(); }

double Daemon::CpuSeconds() const {
  clockid_t clock{};
  timespec time{};
  if (::clock_getcpuclockid(Pid(), &clock) != 0 || ::clock_gettime(clock, &time) != 0) {
    throw std::runtime_error("the daemon is gone");
  }
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

PassResult Daemon::Pass(const std::vector<ManagedFD>& files, std::size_t in_flight) {
  const static_pattern_matching_proto::ScanRequest request = BlockScan();
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
    state_->client.ScanAsync(file.Get(), request, start + std::chrono::minutes(10),
                             [&](const agent::ScanAnswer& answer) {
                               const std::lock_guard guard(mutex);
                               --open;
                               failed = failed || answer.error || answer.response.results().at(0).result().error() != 0;
                               matches += answer.error ? 0U : CountReported(answer.response);
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
