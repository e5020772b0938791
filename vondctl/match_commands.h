#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "utils/mutex.h"
#include "vondctl/interrupt.h"

namespace vond::vondctl {

/// The path by which `command` is started: itself if it has a slash, else where PATH has it. Nothing if there is no
/// such program that this user may run.
[[nodiscard]] std::optional<std::string> FindProgram(const std::string& command);

/// Runs a program for each match, a few at once, never through a shell. Each gets its text as standard input (a file,
/// so it need not read it), standard error as both outputs, no other descriptor, and a process group of its own, which
/// is killed when its time is over. One thread. What still runs when this is destroyed, or when a signal ends the
/// process, is killed.
class MatchCommands {
 public:
  struct Options {
    std::vector<std::string> arguments;  ///< the program's path first
    std::chrono::seconds timeout{0};
  };
  /// Takes a line for people.
  using Say = std::function<void(const std::string& text)>;

  MatchCommands(Options options, Say say);
  MatchCommands(const MatchCommands&) = delete;
  MatchCommands& operator=(const MatchCommands&) = delete;
  ~MatchCommands();

  /// Runs the program with `input`, now or in its turn.
  void Add(std::string input);
  /// Looks who has ended or is overdue, and starts what waits. To be called often.
  void Poll() EXCLUDES(mutex_);
  /// Waits until all have ended; those that have not by `until` are killed, those that wait are given up.
  void Finish(std::chrono::steady_clock::time_point until);

  /// Whether so many wait that the caller had better add no more for now.
  [[nodiscard]] bool IsFull() const { return waiting_.size() >= kMaxWaiting; }
  [[nodiscard]] bool IsIdle() EXCLUDES(mutex_);
  [[nodiscard]] std::uint64_t Started() const noexcept { return started_; }
  /// Those that did not end with status 0, or could not be started.
  [[nodiscard]] std::uint64_t Failed() const noexcept { return failed_; }

 private:
  static constexpr std::size_t kMaxRunning = 4;
  static constexpr std::size_t kMaxWaiting = 64;

  struct Running {
    pid_t pid;  // and its process group
    std::chrono::steady_clock::time_point until;
    bool killed = false;
  };

  void Start(const std::string& input) EXCLUDES(mutex_);
  void Fail(const std::string& text);
  // Takes note of those that have ended.
  void Reap() EXCLUDES(mutex_);
  void KillOverdue() EXCLUDES(mutex_);
  void KillAll() EXCLUDES(mutex_);

  Options options_;
  Say say_;
  std::deque<std::string> waiting_;
  std::uint64_t started_ = 0;
  std::uint64_t failed_ = 0;
  korvo::utils::Mutex mutex_;
  std::vector<Running> running_ GUARDED_BY(mutex_);
  AtInterrupt kill_;
};

}  // namespace vond::vondctl
