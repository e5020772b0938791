#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>

#include "vondctl/file_walker.h"

namespace vond::vondctl {

/// Counts in the background what a walk will come to, so that progress can tell how much is left.
class TotalCounter {
 public:
  struct Total {
    std::uint64_t files = 0;
    std::uint64_t bytes = 0;
  };

  /// Starts counting. `walker` must only look; it is used up.
  explicit TotalCounter(FileWalker walker);

  /// The total, once it is known.
  [[nodiscard]] std::optional<Total> Get() const;

 private:
  void Count(const std::stop_token& stop);

  FileWalker walker_;
  Total total_;
  std::atomic<bool> known_ = false;
  std::jthread thread_;  // last, so that it ends before what it uses
};

/// How far a scan has come.
struct ProgressState {
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  std::uint64_t found = 0;
  std::uint64_t errors = 0;  ///< files that could not be scanned
  std::optional<TotalCounter::Total> total;
  std::string in_hand;  ///< path of the file that has been at work longest
};

/// The line for `state` after `elapsed`. The path is cut at its start, or left out, so as to fit into `columns`.
[[nodiscard]] std::string ProgressText(const ProgressState& state, std::chrono::duration<double> elapsed,
                                       std::size_t columns);

/// One line on standard error that is overwritten, at most five times a second, and leaves nothing behind. One thread.
class ProgressLine {
 public:
  /// When not `enabled`, or when standard error is no terminal, nothing is ever written.
  explicit ProgressLine(bool enabled);
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;
  ~ProgressLine() { Clear(); }

  [[nodiscard]] bool IsEnabled() const noexcept { return enabled_; }
  /// Whether it is time for another line.
  [[nodiscard]] bool IsDue() const;
  void Show(const ProgressState& state);
  /// Takes the line away, before something else is written.
  void Clear();

 private:
  bool enabled_;
  bool shown_ = false;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point last_;
};

}  // namespace vond::vondctl
