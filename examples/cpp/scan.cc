// A small agent: starts vond, gives it the rules of one file, has files scanned, prints what matched.
//
//     scan [-t SECONDS] VOND RULES FILE...
//
// SECONDS is the time-out of one scan, 30 by default. Exit status: 0 nothing matched, 1 something matched, 2 a file was
// not scanned, 3 the rules were refused, 4 vond did not start, died or hung, 64 wrong usage.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "agent/client.h"

namespace {

using auto_resources::ManagedFD;
using std::chrono::seconds;
using vond::agent::Client;
using vond::agent::ErrorCode;

enum Status : int { kClean, kMatched, kNotScanned, kRefused, kVondFailed, kUsage = 64 };

constexpr seconds kPolicyDeadline{300};  // thousands of rules take their time to compile
constexpr std::size_t kThreads = 2;      // scans that are with vond at once
constexpr std::int32_t kFileType = 0;    // any number; it only chooses among the policy's rule sets

// Opens for reading without waiting for the other end of a FIFO. Not valid when that fails; errno says why.
ManagedFD Open(const std::string& path) { return ManagedFD(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)); }

std::string ErrnoText() { return std::generic_category().message(errno); }

// Scans files with one client and prints a line for each. Scan may be called from several threads.
class Scanner {
 public:
  Scanner(Client& client, seconds timeout) : client_(client), timeout_(timeout) {
    request_.set_file_type(kFileType);
    request_.add_rule_type(static_pattern_matching_proto::Block);
  }

  void Scan(const std::string& path) {
    const ManagedFD file = Open(path);
    if (!file.IsValid()) {
      Report(kNotScanned, path + ": not scanned: " + ErrnoText());
      return;
    }
    // The engine looks at its clock now and then only, so vond's own word on a time-out may be late.
    const auto answer = client_.Scan(file.Get(), request_, kThreads * timeout_ + seconds(2));
    if (answer.error) {
      const bool hangs = answer.error->Code() == ErrorCode::kDeadlineExceeded;
      if (hangs) {
        client_.Process().Kill(SIGKILL);  // all that is with it, and all that follows, ends as kDaemonDied at once
      }
      const bool failed = hangs || answer.error->Code() == ErrorCode::kDaemonDied;
      Report(failed ? kVondFailed : kNotScanned, path + ": not scanned: " + answer.error->what());
      return;
    }
    // Three statuses must be 0 and the rule type's entry there; anything else is not "clean".
    const auto entry = answer.response.results().find(static_pattern_matching_proto::Block);
    if (answer.response.status() != 0 || entry == answer.response.results().end()) {
      Report(kNotScanned,
             path + ": not scanned: response status " + std::to_string(static_cast<int>(answer.response.status())));
    } else if (entry->second.status() != 0 || entry->second.result().error() != 0) {
      Report(kNotScanned, path + ": not scanned: scan status " +
                              std::to_string(static_cast<int>(entry->second.status())) + ", engine error " +
                              std::to_string(entry->second.result().error()));
    } else if (entry->second.result().matched_rules().empty()) {
      Report(kClean, path + ": clean");
    } else {
      std::string names;
      for (const yara_lib::YaraRuleDescriptor& rule : entry->second.result().matched_rules()) {
        names += (names.empty() ? "" : ", ") + rule.name() + " (" + Action(rule) + ")";
      }
      Report(kMatched, path + ": matches " + names);
    }
  }

  // The worst of all files.
  [[nodiscard]] Status Worst() {
    const std::lock_guard lock(mutex_);
    return worst_;
  }

 private:
  // What the agent is to do about a match; vond takes no rule without it.
  static std::string Action(const yara_lib::YaraRuleDescriptor& rule) {
    for (const yara_lib::YaraRuleMetadataItem& item : rule.metadata_items()) {
      if (item.key() == "action") {
        return item.value().string_value();
      }
    }
    return "";
  }

  void Report(Status status, const std::string& line) {
    const std::lock_guard lock(mutex_);
    (status <= kMatched ? std::cout : std::cerr) << line << '\n';
    worst_ = std::max(worst_, status);
  }

  Client& client_;
  const seconds timeout_;
  static_pattern_matching_proto::ScanRequest request_;
  std::mutex mutex_;  // of the outputs and worst_
  Status worst_ = kClean;
};

int Run(const std::string& vond, const std::string& rules_path, const std::vector<std::string>& files,
        seconds timeout) {
  const ManagedFD rules = Open(rules_path);
  if (!rules.IsValid()) {
    std::cerr << rules_path << ": " << ErrnoText() << '\n';
    return kRefused;
  }
  vond::agent::Policy policy;
  policy.document.set_yara_timeout_in_seconds(static_cast<std::uint32_t>(timeout.count()));
  auto& rule_set = *policy.document.add_rule_sets();
  rule_set.set_file_type(kFileType);
  rule_set.set_rule_type(static_pattern_matching_proto::Block);
  rule_set.set_fd_index(0);
  policy.rule_set_fds = {rules.Get()};

  try {
    vond::agent::DaemonOptions options;
    options.executable = vond;
    Client client(std::move(options));
    client.ApplyPolicy(policy, kPolicyDeadline);
    Scanner scanner(client, timeout);
    std::atomic<std::size_t> next{0};
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        for (std::size_t file = next++; file < files.size(); file = next++) {
          scanner.Scan(files[file]);
        }
      });
    }
    threads.clear();  // joins them
    return scanner.Worst();
  } catch (const vond::agent::Error& e) {
    std::cerr << rules_path << ": " << e.what() << '\n';
    const bool vond_failed = e.Code() == ErrorCode::kStartFailed || e.Code() == ErrorCode::kDaemonDied ||
                             e.Code() == ErrorCode::kDeadlineExceeded || e.Code() == ErrorCode::kBadAnswer;
    return vond_failed ? kVondFailed : kRefused;
  }
}

}  // namespace

int main(int argc, char** argv) {
  long timeout = 30;
  int option = ::getopt(argc, argv, "+t:");
  for (; option == 't'; option = ::getopt(argc, argv, "+t:")) {
    timeout = std::strtol(optarg, nullptr, 10);
  }
  if (option != -1 || argc - optind < 3 || timeout < 1 || timeout > 86400) {
    std::cerr << "usage: scan [-t SECONDS] VOND RULES FILE...\n";
    return kUsage;
  }
  return Run(argv[optind], argv[optind + 1], {argv + optind + 2, argv + argc}, seconds(timeout));
}
