#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "agent/sandbox.h"
#include "utils/managed_fd.h"
#include "utils/mutex.h"

namespace vond::agent {

/// Which of the daemon's outputs a line came from.
enum class OutputStream { kStdout, kStderr };

struct DaemonOptions {
  std::string executable;                                   ///< path of vond
  std::vector<std::string> extra_arguments;                 ///< go before "-c <fd>:requests"
  std::map<std::string, std::string> environment;           ///< added to this process's own
  std::size_t socket_buffer_bytes = std::size_t{64} << 20;  ///< wanted on both ends; the system may grant less
  /// Called for each line of output, without its newline and cut at 64 KiB, on the draining thread. May be empty. Must
  /// not throw, nor call back into the object that calls it; while it runs, nothing is drained.
  std::function<void(OutputStream, const std::string& line)> on_output;
  /// Puts the daemon into a process group of its own, where a terminal's Ctrl-C does not reach it: its end is then the
  /// agent's affair alone.
  bool own_process_group = false;
  /// What the daemon may do. Where a layer can't be had, a line of its standard error says so, to `on_output` too. That
  /// SandboxMode::kRequired is met is for Client to see: a DaemonProcess by itself only ends early if not.
  SandboxOptions sandbox = {};
};

/// How a process ended: by exit(`status`) or by signal `signal`. Status -1: unknown, since somebody else in this
/// process reaped it.
struct ExitStatus {
  bool signaled = false;
  int status = 0;
  int signal = 0;
};

/// A running vond and everything around it: the process, our end of the socket pair, and a thread that drains both
/// outputs from the first moment (a daemon whose log is not read stalls). The child inherits standard input from
/// /dev/null, the two outputs and its end of the pair; nothing else, and all that is opened here is close-on-exec.
///
/// The destructor closes the channel, which ends the daemon, waits a moment, kills it if need be, and reaps it: no
/// zombie, no descriptor stays. Methods may be called from any thread.
class DaemonProcess {
 public:
  /// Starts the daemon. Throws Error kStartFailed.
  explicit DaemonProcess(DaemonOptions options);
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;
  ~DaemonProcess();

  [[nodiscard]] pid_t Pid() const noexcept { return pid_; }
  /// Our end of the channel, still owned here.
  [[nodiscard]] int ChannelFd() const noexcept { return channel_.Get(); }
  /// What the system granted for one packet in the daemon's direction to us, in bytes (SO_SNDBUF of its end).
  [[nodiscard]] std::size_t SendBufferBytes() const noexcept { return send_buffer_bytes_; }

  /// Sends a signal if the process has not been reaped. Returns whether it was sent.
  bool Kill(int signum) EXCLUDES(mutex_);
  /// Waits for the end of the process and reaps it; nothing when `timeout` passes first. May be called again.
  [[nodiscard]] std::optional<ExitStatus> Wait(std::chrono::milliseconds timeout) EXCLUDES(mutex_);

  /// The last lines of output, oldest first (at most 200 of each stream): what a report of a dead daemon quotes.
  [[nodiscard]] std::vector<std::string> RecentOutput(OutputStream stream) EXCLUDES(output_mutex_);
  /// Waits until both outputs have ended and their last lines are in RecentOutput; false when `timeout` passes first.
  bool WaitForOutputEnd(std::chrono::milliseconds timeout) EXCLUDES(output_mutex_);

 private:
  void DrainOutputs() EXCLUDES(output_mutex_);
  void TakeLine(OutputStream stream, const std::string& line) EXCLUDES(output_mutex_);
  void StopDrainer();
  [[nodiscard]] std::optional<ExitStatus> TryReap() EXCLUDES(mutex_);

  DaemonOptions options_;
  auto_resources::ManagedFD channel_;
  auto_resources::ManagedFD stdout_;
  auto_resources::ManagedFD stderr_;
  auto_resources::ManagedFD stop_drainer_;  // an eventfd: the outputs need not end with the daemon, if it had children
  pid_t pid_ = -1;
  std::size_t send_buffer_bytes_ = 0;
  korvo::utils::Mutex mutex_;
  std::optional<ExitStatus> exit_status_ GUARDED_BY(mutex_);
  korvo::utils::Mutex output_mutex_;
  std::deque<std::string> recent_stdout_ GUARDED_BY(output_mutex_);
  std::deque<std::string> recent_stderr_ GUARDED_BY(output_mutex_);
  bool output_ended_ GUARDED_BY(output_mutex_) = false;
  std::condition_variable_any output_end_;  // of output_mutex_
  std::thread drainer_;
};

}  // namespace vond::agent
