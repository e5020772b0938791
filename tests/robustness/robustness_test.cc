// The real daemon under what wears daemons out. Each test prints the figures that it has reached.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "agent/rule_packer.h"
#include "tests/support/packed_rules.h"
#include "tests/support/running_daemon.h"
#include "tests/support/test_support.h"

namespace vond::test {
namespace {

using auto_resources::ManagedFD;
using korvo_daemon::Request;
using std::chrono::seconds;
using std::chrono::steady_clock;

#ifdef VOND_SANITIZED  // everything takes many times as long
constexpr seconds kStorm{10};
constexpr int kLeastFaults = 100;
constexpr int kRequests = 10'000;
#else
constexpr seconds kStorm{30};
constexpr int kLeastFaults = 2000;
constexpr int kRequests = 100'000;
#endif

const std::string kRuleA = "rule A { meta: id = \"a\" action = \"block\" strings: $a = \"alpha\" condition: $a }\n";

TEST(Robustness, NoDamagedRuleSetIsAccepted) {
  RunningDaemon daemon;
  ASSERT_TRUE(daemon.SetRules({agent::PackRuleSet(kRuleA)}, "", 3));
  auto damaged = DamagedRuleSets();
  damaged.emplace_back("bomb", Encrypt(Gzip(std::string((std::size_t{256} << 20) + 1, ' '), 1)));
  std::size_t refused = 0;
  for (const auto& [what, file] : damaged) {
    const bool accepted = daemon.SetRules({file}, "", 3);
    EXPECT_FALSE(accepted) << what;
    refused += !accepted;
    ASSERT_TRUE(accepted || daemon.Verdict("alpha") == "A") << what;
  }
  EXPECT_TRUE(daemon.SetRules({agent::PackRuleSet("")}, "", 3));
  EXPECT_GE(damaged.size(), 2000U);
  std::printf("damaged rule-set files: %zu, refused, with the old rules still answering: %zu\n", damaged.size(),
              refused);
}

TEST(Robustness, DescriptorsComeBackWhateverTheRequests) {
  RunningDaemon daemon;
  ASSERT_TRUE(daemon.SetRules({kRuleA}, "", 3));
  ASSERT_EQ(daemon.Verdict("alpha"), "A");
  const std::set<int> idle = {0, 1, 2, 3, 4, 5};  // standard streams, channel, the signal dispatcher's pipe
  ASSERT_TRUE(WaitUntil([&] { return OpenDescriptors(daemon.Pid()) == idle; }));
  const ManagedFD file = MakeFile("alpha");
  const ManagedFD rules = MakeFile(kRuleA);
  const ManagedFD damaged = MakeFile(agent::PackRuleSet(kRuleA).substr(0, 100));
  const auto data = [](const std::string& bytes) {
    Request request;
    request.mutable_generic_data_request()->set_data(bytes);
    return request;
  };
  const auto policy = [](const std::string& document) {
    Request request;
    request.mutable_config()->set_log_level(3);
    request.mutable_config()->mutable_user_config()->set_data(document);
    return request;
  };
  const int f = file.Get();
  const std::vector<std::pair<Request, std::vector<int>>> kinds = {
      {MakeScan(0, {0}), {f}},
      {MakeScan(0, {0, 1}), std::vector<int>(32, f)},  // no allow rules
      {MakeScan(9, {0}), {f, f}},
      {MakeScan(0, {0}), {}},
      {data("\xff\xff"), {f, f, f}},
      {{}, {f}},
      {policy("nonsense"), {f, rules.Get()}},
      {policy(R"({"rule_sets":[{"fd_index":7}]})"), {rules.Get()}},
      {policy(R"({"rule_sets":[{}]})"), {damaged.Get(), f}},
      {policy(R"({"rule_sets":[{}]})"), {rules.Get(), f}}};
  std::minstd_rand random(7);
  std::atomic<int> answers{0};
  std::size_t sent = 0;
  for (int i = 0; i < kRequests; ++i) {
    // Mostly scans: policies are applied one by one.
    const auto& [request, fds] = kinds[random() % (i % 20 == 0 ? kinds.size() : 6)];
    sent += fds.size();
    daemon.Client().SendAsync(request, fds, steady_clock::now() + seconds(60), [&](const agent::Answer& answer) {
      EXPECT_FALSE(answer.error) << answer.error->what();
      ++answers;
    });
  }
  EXPECT_TRUE(WaitUntil([&] { return answers == kRequests; }, seconds(60)));
  static_cast<void>(WaitUntil([&] { return OpenDescriptors(daemon.Pid()) == idle; }));
  const std::set<int> left = OpenDescriptors(daemon.Pid());
  EXPECT_EQ(left, idle);
  EXPECT_EQ(daemon.Verdict("alpha"), "A");
  std::printf("requests: %d with %zu descriptors, answers: %d, descriptors open before: %zu, after: %zu\n", kRequests,
              sent, answers.load(), idle.size(), left.size());
}

#ifndef VOND_SANITIZED  // whose allocators keep what is freed
// Resident memory of a process in MiB.
double ResidentMib(pid_t pid) {
  std::ifstream statm("/proc/" + std::to_string(pid) + "/statm");
  double size = 0;
  double resident = 0;
  statm >> size >> resident;
  return resident * static_cast<double>(::sysconf(_SC_PAGESIZE)) / (1 << 20);
}

TEST(Robustness, MemoryOfAPolicyComesBackFromTheLastScanThatUsesIt) {
  auto environment = Preloading(VOND_PROCESSORS_PATH);
  environment["VOND_PROCESSORS"] = "2";  // a worker for the scan, and one for the policy
  RunningDaemon daemon(environment);
  ASSERT_TRUE(daemon.SetRules({kRuleA}, "", 3));
  const double before = ResidentMib(daemon.Pid());
  std::string large =
      "rule Slow { meta: id = \"s\" action = \"block\" condition: for all i in (0..400000000) : (i >= 0) }\n";
  for (int i = 0; i < 10'000; ++i) {
    const std::string number = std::to_string(i);
    large.append("rule R").append(number).append(" { meta: id = \"").append(number);
    large.append("\" action = \"block\" strings: $a = \"number ").append(number).append("\" condition: $a }\n");
  }
  ASSERT_TRUE(daemon.SetRules({large}, R"("yara_timeout_in_seconds":3,)", 3));
  const ManagedFD file = MakeFile("alpha");
  std::atomic<bool> ended{false};
  daemon.Client().ScanAsync(file.Get(), BlockScan(), steady_clock::now() + seconds(60),
                            [&](const agent::ScanAnswer&) { ended = true; });
  ASSERT_TRUE(daemon.SetRules({kRuleA}, "", 3));
  const double swapped = ResidentMib(daemon.Pid());
  ASSERT_FALSE(ended);  // it has the old policy still
  ASSERT_TRUE(WaitUntil([&] { return ended.load(); }));
  EXPECT_TRUE(WaitUntil([&] { return ResidentMib(daemon.Pid()) < before * 1.5; }, seconds(5)));
  std::printf("resident with one rule: %.1f MiB, after 10,000 with a scan still at it: %.1f, after that scan: %.1f\n",
              before, swapped, ResidentMib(daemon.Pid()));
}
#endif

// How many of the daemon's threads are workers.
std::size_t Workers(pid_t pid) {
  const std::filesystem::directory_iterator threads("/proc/" + std::to_string(pid) + "/task");
  return static_cast<std::size_t>(std::count_if(begin(threads), end(threads), [](const auto& thread) {
    std::string name;
    std::getline(std::ifstream(thread.path() / "comm"), name);
    return name == "RequestHandler";
  }));
}

TEST(Robustness, WorkersAreAsManyAsThePolicyAndTheProcessorsAllow) {
  const std::string slow =
      "rule Slow { meta: id = \"s\" action = \"block\" condition: for all i in (0..1099511627776) : (i >= 0) }";
  const ManagedFD file = MakeFile("x");
  static_pattern_matching_proto::ScanRequest request;
  request.add_rule_type(static_pattern_matching_proto::Block);
  struct Row {
    const char* processors;
    const char* max_number_of_threads;
    std::size_t workers;
  };
  for (const Row& row :
       {Row{"16", "0", 4}, Row{"16", "2", 2}, Row{"16", "64", 16}, Row{"1", "64", 1}, Row{"0", "9", 4}}) {
    auto environment = Preloading(VOND_PROCESSORS_PATH);
    environment["VOND_PROCESSORS"] = row.processors;
    RunningDaemon daemon(environment);
    ASSERT_TRUE(daemon.SetRules({slow}, std::string("\"yara_timeout_in_seconds\":1,\"max_number_of_threads\":") +
                                            row.max_number_of_threads + ","));
    EXPECT_TRUE(daemon.WaitForLog("INFO New configuration loaded successfully"));
    const auto log = daemon.Log();
    EXPECT_EQ(std::count(log.begin(), log.end(), "ERROR std::thread::hardware_concurrency() failed"),
              row.processors == std::string("0"));
    std::atomic<int> ends{0};
    for (int i = 0; i < 20; ++i) {
      daemon.Client().ScanAsync(file.Get(), request, steady_clock::now() + seconds(60),
                                [&](const agent::ScanAnswer&) { ++ends; });
    }
    EXPECT_TRUE(WaitUntil([&] { return Workers(daemon.Pid()) >= row.workers; })) << row.workers;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(Workers(daemon.Pid()), row.workers);
    daemon.Client().Process().Kill(SIGKILL);
    EXPECT_TRUE(WaitUntil([&] { return ends == 20; }));
  }
}

TEST(Robustness, FilesCutShortUnderScansNeverEndTheDaemon) {
  constexpr std::size_t kInFlightPerFile = 3;
  RunningDaemon daemon(Preloading(VOND_PROCESSORS_PATH));
  std::string rules;
  std::string names;
  for (char part = 'A'; part <= 'X'; ++part) {
    rules += std::string("rule ") + part + " { meta: id = \"" + part + "\" action = \"block\" strings: $a = \"part" +
             part + "\" condition: $a }\n";
    names += std::string(names.empty() ? "" : " ") + part;
  }
  ASSERT_TRUE(daemon.SetRules({rules}, "", 3));

  struct CutFile {
    std::size_t part_size = 0;
    std::string content;
    ManagedFD fd;
    std::atomic<std::size_t> in_flight{0};
  };
  std::vector<CutFile> files(6);
  for (std::size_t i = 0; i < files.size(); ++i) {
    files[i].part_size = i % 3 == 0 ? 4096 : 12288;  // small files are copied for their scan, large ones mapped
    for (char part = 'A'; part <= 'X'; ++part) {
      files[i].content += std::string("part") + part + std::string(files[i].part_size - 5, ' ');
    }
    files[i].fd = MakeFile(files[i].content);
  }
  std::atomic<bool> stop{false};
  int cuts = 0;  // of files that the daemon had at that moment, in a scan or waiting for one
  std::thread cutter([&] {
    for (std::size_t round = 0; !stop; ++round) {
      const CutFile& file = files[round % files.size()];
      const std::size_t keep = round * 7 % 24 * file.part_size;
      cuts += file.in_flight > 0;
      ASSERT_EQ(::ftruncate(file.fd.Get(), static_cast<off_t>(keep)), 0);
      std::this_thread::sleep_for(std::chrono::microseconds(50));  // long enough for a scan to come by
      for (std::size_t at = keep; at < file.content.size(); at += 4096) {
        ASSERT_EQ(::pwrite(file.fd.Get(), &file.content[at], 4096, static_cast<off_t>(at)), 4096);
      }
    }
  });
  static_pattern_matching_proto::ScanRequest request;
  request.add_rule_type(static_pattern_matching_proto::Block);
  std::atomic<int> faults{0}, right{0}, wrong{0};
  std::size_t workers = 0;
  const auto deadline = steady_clock::now() + kStorm;
  const auto latest = deadline + seconds(150);  // where the cutter seldom gets a processor
  while (steady_clock::now() < deadline || (faults < kLeastFaults && steady_clock::now() < latest)) {
    for (CutFile& file : files) {
      if (file.in_flight < kInFlightPerFile) {
        ++file.in_flight;
        daemon.Client().ScanAsync(file.fd.Get(), request, latest + seconds(60), [&](const agent::ScanAnswer& answer) {
          const std::string verdict = Verdict(answer);
          ++(verdict == "error 4" ? faults : names.starts_with(verdict) ? right : wrong);  // the first parts
          --file.in_flight;
        });
      }
    }
    workers = std::max(workers, Workers(daemon.Pid()));
  }
  EXPECT_TRUE(WaitUntil(
      [&] { return std::none_of(files.begin(), files.end(), [](const CutFile& file) { return file.in_flight > 0; }); },
      seconds(60)));
  stop = true;
  cutter.join();
  std::printf(
      "cuts of files with the daemon: %d; scans that met one (error 4): %d, right for a length: %d, wrong: %d\n", cuts,
      faults.load(), right.load(), wrong.load());
  EXPECT_EQ(workers, 4U);
  EXPECT_GE(faults, kLeastFaults);
  EXPECT_GT(right, 100);
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(daemon.Verdict(files[0].content), names);
  EXPECT_EQ(daemon.Verdict(files[1].content), names);
  // Our own handlers are still in place.
  ASSERT_TRUE(daemon.Client().Process().Kill(SIGSEGV));
  const auto status = daemon.Client().Process().Wait(seconds(20));
  ASSERT_TRUE(status);
  EXPECT_EQ(status->signal, SIGABRT);
  EXPECT_TRUE(WaitUntil([&] {
    const auto err = daemon.Client().Process().RecentOutput(agent::OutputStream::kStderr);
    return std::find(err.begin(), err.end(), "Dumping backtrace") != err.end();
  }));
}

}  // namespace
}  // namespace vond::test
