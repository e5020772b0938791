#pragma once

#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "agent/sandbox.h"
#include "utils/managed_fd.h"

namespace vond::test {

/// The open descriptors of this process (or of `pid`), from /proc; the one used for listing is left out.
[[nodiscard]] std::set<int> OpenDescriptors(pid_t pid = 0);

/// The sandbox of the tests' daemons, the default one. But where root may not look into other users' processes, as in
/// many containers, the daemon stays root's, or OpenDescriptors could not see it.
[[nodiscard]] agent::SandboxOptions TestSandbox();

/// A memfd that holds `content`, its position at 0, close-on-exec.
[[nodiscard]] auto_resources::ManagedFD MakeFile(std::string_view content);

/// Runs `action` and returns what went to descriptor `fd` (1 or 2) meanwhile, from every thread, standard streams
/// flushed.
[[nodiscard]] std::string CaptureOutput(int fd, const std::function<void()>& action);

/// The lines of `text`, without their newlines.
[[nodiscard]] std::vector<std::string> Lines(const std::string& text);

/// `line` split at `separator`, without the blanks around the cells.
[[nodiscard]] std::vector<std::string> Split(const std::string& line, char separator);

/// The rows of a table in tests/data: cells between bars, lines that begin with '#' left out. What stands in [4.2:x] is
/// there with a libyara before 4.5 only, in [4.5:x] from that on. Fails the test if there are none.
[[nodiscard]] std::vector<std::vector<std::string>> ReadTable(const std::string& name);

/// Polls `condition` until it holds; false when `timeout` passes first.
[[nodiscard]] bool WaitUntil(const std::function<bool()>& condition,
                             std::chrono::milliseconds timeout = std::chrono::seconds(20));

/// How a child process ended and what it wrote.
struct ChildResult {
  int signal = 0;
  int exit_status = 0;
  std::string out;
  std::string err;
};

/// Runs `arguments` (the program's path first), with `environment` entries ("NAME=value") added, to its end; kills it
/// after `timeout`. The child keeps the descriptors listed in `keep`, under their numbers.
[[nodiscard]] ChildResult RunChild(const std::vector<std::string>& arguments,
                                   const std::vector<std::string>& environment = {},
                                   std::chrono::milliseconds timeout = std::chrono::seconds(60),
                                   const std::vector<int>& keep = {});

}  // namespace vond::test
