// vond_microbench: the small parts that a request or a policy passes through, each by itself.

#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/rule_packer.h"
#include "bench/build_check.h"
#include "bench/workload.h"
#include "korvo_common/proto/KorvoDaemon.pb.h"
#include "static_pattern_matching/json_conversion.h"
#include "static_pattern_matching/rule_set_decoder.h"
#include "static_pattern_matching/yara_config.h"
#include "utils/ipc_channel.h"
#include "utils/log.h"
#include "utils/thread_pool.h"
#include "yara/yara_lib/yara_lib.h"
#include "yara/yara_lib/yara_messages.h"

namespace {

using korvo::static_pattern_matching_daemon::DecodeRuleSet;
using korvo::static_pattern_matching_daemon::IpcChannel;
using korvo::static_pattern_matching_daemon::YaraConfig;
using korvo::yara::yara_lib::YaraLib;
using static_pattern_matching_proto::UserConfigData;
using vond::bench::MakeMemfd;

constexpr std::uint32_t kSeed = 20240607;
constexpr std::size_t kPolicyRules = 5000;

const std::string& PolicySource() {
  static const std::string source = vond::bench::MakeRules(kPolicyRules, kSeed);
  return source;
}

const std::string& PackedPolicy() {
  static const std::string packed = vond::agent::PackRuleSet(PolicySource());
  return packed;
}

// The answer's bytes from the outcome of a scan in which range(0) rules of eight metadata items match.
void MessageOfMatches(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  const auto rules = YaraLib::Instance().CompileAndLoad(vond::bench::MakeMatchingRules(count, count), "id", false, {});
  const std::uint8_t content = 1;
  const auto outcome = YaraLib::Instance().ScanMemory(&content, 1, rules, {});
  if (outcome.matches.size() != count) {
    state.SkipWithError("the rules made to match do not");
  }
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(korvo::yara::yara_lib::SerializeOutcome(outcome).size());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(MessageOfMatches)->Arg(1)->Arg(10)->Arg(900);

// The document of a policy with 20 rule sets and range(0) overrides.
void PolicyDocument(benchmark::State& state) {
  std::string json = R"({"max_number_of_threads": 2, "rule_sets": [)";
  for (int i = 0; i < 20; ++i) {
    json += (i == 0 ? "" : ",") + std::string(R"({"file_type": )") + std::to_string(i) +
            R"(, "rule_type": "Block", "fd_index": 0})";
  }
  json += R"(], "rule_overrides": [)";
  for (int i = 0; i < state.range(0); ++i) {
    json += (i == 0 ? "" : ",") + std::string(R"({"rule_id": ")") + std::to_string(i) +
            R"(", "item": {"key": "action", "value": {"string_value": "disable"}}})";
  }
  json += "]}";
  while (state.KeepRunning()) {
    UserConfigData document;
    if (korvo::static_pattern_matching_daemon::JsonToMessage(json, document) != 0) {
      state.SkipWithError("the document does not parse");
    }
  }
}
BENCHMARK(PolicyDocument)->Arg(0)->Arg(100)->Unit(benchmark::kMicrosecond);

// The stages of a packed policy of 5,000 rules, and the whole of it; what is left of that is reading and validating.
void StageDecode(benchmark::State& state) {
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(DecodeRuleSet(PackedPolicy()).size());
  }
}
BENCHMARK(StageDecode)->Unit(benchmark::kMillisecond);

void StageCompile(benchmark::State& state) {
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(YaraLib::Instance().Compile(PolicySource(), false).GetChecksum());
  }
}
BENCHMARK(StageCompile)->Unit(benchmark::kMillisecond);

void StageLoad(benchmark::State& state) {
  const auto compiled = YaraLib::Instance().Compile(PolicySource(), false);
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(YaraLib::Instance().Load(compiled, "id", {})->size());
  }
}
BENCHMARK(StageLoad)->Unit(benchmark::kMillisecond);

void WholePolicy(benchmark::State& state) {
  const auto file = MakeMemfd(PackedPolicy());
  UserConfigData document;
  document.add_rule_sets();
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(YaraConfig(document, {file.Get()}).GetRuleSets().size());
  }
}
BENCHMARK(WholePolicy)->Unit(benchmark::kMillisecond);

// From queueing a task to hearing that another thread has run it.
void PoolHandOff(benchmark::State& state) {
  korvo::utils::ThreadPool pool("", 1, 1, 200, std::chrono::minutes(1));
  pool.StartThreads(1);
  std::atomic<int> done{0};
  while (state.KeepRunning()) {
    done = 0;
    pool.AddTask([&done] {
      done = 1;
      done.notify_one();
    });
    done.wait(0);
  }
  pool.Stop();
}
BENCHMARK(PoolHandOff)->UseRealTime();

// A request with a descriptor, sent and received on one thread.
void ChannelSendReceive(benchmark::State& state) {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw std::runtime_error("socketpair failed");
  }
  IpcChannel sender(ends[0]);
  IpcChannel receiver(ends[1]);
  const auto file = MakeMemfd("content");
  const std::vector<int> sent{file.Get()};
  korvo_daemon::Request request;
  request.mutable_header()->set_id(1);
  request.mutable_generic_data_request()->set_data("\x12\x01");
  while (state.KeepRunning()) {
    korvo_daemon::Request received;
    std::vector<int> fds;
    if (sender.SendMessageWithFds(request, sent) != 0 || receiver.ReceiveMessage(received, 131072, fds, -1) != 0) {
      state.SkipWithError("the packet did not arrive");
      break;
    }
    for (const int fd : fds) {
      ::close(fd);
    }
  }
}
BENCHMARK(ChannelSendReceive);

void LogLineBelowLevel(benchmark::State& state) {
  while (state.KeepRunning()) {
    LOG_DEBUG("Got request with ", state.iterations(), " fds");
    benchmark::ClobberMemory();
  }
}
BENCHMARK(LogLineBelowLevel);

}  // namespace

int main(int argc, char** argv) {
  if (const char* const why = vond::bench::WhyBuildIsRefused()) {
    static_cast<void>(std::fprintf(stderr, "vond_microbench: %s\n", why));
    return 1;
  }
  korvo::utils::SetLogLevel(2);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 64;
  }
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
