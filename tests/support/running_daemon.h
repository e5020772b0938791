#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "agent/client.h"
#include "tests/support/test_support.h"
#include "utils/mutex.h"

namespace vond::test {

/// The environment that makes a child load `library` before all others.
[[nodiscard]] std::map<std::string, std::string> Preloading(const std::string& library);

/// The real vond with an agent's client, and its log.
class RunningDaemon {
 public:
  explicit RunningDaemon(std::map<std::string, std::string> environment = {},
                         const agent::SandboxOptions& sandbox = TestSandbox());

  [[nodiscard]] agent::Client& Client() { return client_; }
  [[nodiscard]] pid_t Pid() { return client_.Process().Pid(); }

  /// Sends any request; fails the test when it gets no answer.
  [[nodiscard]] korvo_daemon::Response Ask(const korvo_daemon::Request& request, const std::vector<int>& fds = {});
  /// Sends a policy whose rule sets are `rules` (block rules for file type 0, 1, ...). `json` holds further members of
  /// the document ("\"yara_timeout_in_seconds\":1,"). Returns whether it was accepted.
  [[nodiscard]] bool SetRules(const std::vector<std::string>& rules, const std::string& json = "",
                              std::uint32_t log_level = 6);
  /// The verdict on `content`, or on the open file `fd`, as file type 0.
  [[nodiscard]] std::string Verdict(std::string_view content);
  [[nodiscard]] std::string Verdict(int fd);

  /// Standard output so far, line by line.
  [[nodiscard]] std::vector<std::string> Log() EXCLUDES(mutex_);
  /// Waits for a line of the log; false if it does not come.
  [[nodiscard]] bool WaitForLog(const std::string& line);

 private:
  korvo::utils::Mutex mutex_;
  std::vector<std::string> log_ GUARDED_BY(mutex_);
  agent::Client client_;
};

/// The names of the rules that matched for block rules, with blanks between; "error <n>", "status <n>", or why there is
/// no answer.
[[nodiscard]] std::string Verdict(const agent::ScanAnswer& answer);

/// A scan for block rules, as file type 0.
[[nodiscard]] static_pattern_matching_proto::ScanRequest BlockScan();
/// A request to scan its first descriptor.
[[nodiscard]] korvo_daemon::Request MakeScan(std::int32_t file_type, const std::vector<int>& rule_types);
/// The scan response in an answer; fails the test if it is none.
[[nodiscard]] static_pattern_matching_proto::ScanResponse ParseScan(const korvo_daemon::Response& response);

}  // namespace vond::test
