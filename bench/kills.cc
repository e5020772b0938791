#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "agent/client.h"
#include "bench/process_figures.h"
#include "bench/soak.h"
#include "bench/workload.h"
#include "utils/managed_fd.h"

namespace vond::bench {
namespace {

using auto_resources::ManagedFD;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kDeadline{300};
constexpr milliseconds kLateBy{200};  // what a busy machine may add until a callback runs
constexpr std::array<int, 4> kSignals{SIGKILL, SIGSEGV, SIGTERM, SIGSTOP};

struct Ends {
  std::atomic<int> answered{0};
  std::atomic<int> died{0};
  std::atomic<int> overdue{0};
  std::atomic<int> other{0};
  std::atomic<int> late{0};
  int not_once = 0;  // requests that had no end, or two
};

void Count(const std::optional<agent::Error>& error, steady_clock::time_point deadline, Ends& ends) {
  ends.late += steady_clock::now() > deadline + kLateBy ? 1 : 0;
  if (!error) {
    ++ends.answered;
  } else if (error->Code() == agent::ErrorCode::kDaemonDied) {
    ++ends.died;
  } else if (error->Code() == agent::ErrorCode::kDeadlineExceeded) {
    ++ends.overdue;
  } else {
    ++ends.other;
  }
}

// One daemon, hit by `signum` somewhere in its start, its policy or its scans. Returns how many requests were made.
int KillOne(int signum, std::minstd_rand& random, int rules, const std::vector<ManagedFD>& files, Ends& ends) {
  std::vector<std::atomic<int>> times(files.size());  // each scan has ended; outlives the client
  auto next = times.begin();
  agent::DaemonOptions options;
  options.executable = VOND_PATH;
  auto client = std::make_unique<agent::Client>(std::move(options));
  std::thread killer([&client, signum, delay = std::chrono::microseconds(random() % 60'000)] {
    std::this_thread::sleep_for(delay);
    client->Process().Kill(signum);
  });
  int requests = 1;
  agent::Policy policy;
  policy.document.add_rule_sets();
  policy.rule_set_fds = {rules};
  policy.log_level = 3;
  std::optional<agent::Error> error;
  const auto deadline = steady_clock::now() + kDeadline;
  try {
    client->ApplyPolicy(policy, kDeadline);
  } catch (const agent::Error& e) {
    error = e;
  }
  Count(error, deadline, ends);
  static_pattern_matching_proto::ScanRequest scan;
  scan.add_rule_type(static_pattern_matching_proto::Block);
  for (const ManagedFD& file : files) {
    const auto scan_deadline = steady_clock::now() + kDeadline;
    client->ScanAsync(file.Get(), scan, scan_deadline,
                      [&ends, &ended = *next++, scan_deadline](const agent::ScanAnswer& answer) {
                        ++ended;
                        Count(answer.error, scan_deadline, ends);
                      });
    ++requests;
  }
  killer.join();
  if (signum == SIGSTOP) {
    std::this_thread::sleep_for(kDeadline + kLateBy);  // stopped for longer than any deadline
    client->Process().Kill(SIGCONT);
  }
  client.reset();
  ends.not_once += static_cast<int>(std::count_if(times.begin(), times.end(), [](const auto& n) { return n != 1; }));
  return requests;
}

}  // namespace

void Kill(int count, VerdictTable& table) {
  std::minstd_rand random(20260102);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same moments in every run
  const ManagedFD rules(::memfd_create("rules", MFD_CLOEXEC));
  const std::string source = MakeRules(100, 1);
  if (::write(rules.Get(), source.data(), source.size()) != static_cast<ssize_t>(source.size())) {
    throw std::runtime_error("memfd failed");
  }
  const auto files = MakeFiles({"64 KB", 64 << 10, 64 << 10, 40}, 1);
  Ends ends;
  int requests = 0;
  const std::size_t descriptors = ReadFigures(::getpid()).descriptors;
  const std::size_t threads = ReadFigures(::getpid()).threads;
  for (int i = 0; i < count; ++i) {
    requests += KillOne(kSignals[static_cast<std::size_t>(i) % kSignals.size()], random, rules.Get(), files, ends);
  }
  table.Note("kills: daemons, requests", fmt::format("{}, {}", count, requests));
  table.Add("kills: answered, \"no answer\": died, overdue", "some of each",
            fmt::format("{}, {}, {}", ends.answered.load(), ends.died.load(), ends.overdue.load()),
            ends.answered > 0 && ends.died > 0 && ends.overdue > 0);
  table.Add("kills: requests without exactly one end, with another", "0, 0",
            fmt::format("{}, {}", ends.not_once, ends.other.load()), ends.not_once == 0 && ends.other == 0);
  table.Add(fmt::format("kills: ends more than {} ms after their deadline", kLateBy.count()), "0",
            std::to_string(ends.late.load()), ends.late == 0);
  const bool no_child = ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
  table.Add("kills: child processes left", "none", no_child ? "none" : "some", no_child);
  const ProcessFigures figures = ReadFigures(::getpid());
  table.Add("kills: descriptors, threads left in the agent", "0, 0",
            fmt::format("{}, {}", static_cast<long>(figures.descriptors) - static_cast<long>(descriptors),
                        static_cast<long>(figures.threads) - static_cast<long>(threads)),
            figures.descriptors == descriptors && figures.threads == threads);
}

}  // namespace vond::bench
