#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/client.h"
#include "agent/held_policy.h"
#include "utils/mutex.h"
#include "vondctl/file_walker.h"
#include "vondctl/report.h"

namespace vond::vondctl {

using agent::DefaultDeadline;

struct ScannerSettings {
  static_pattern_matching_proto::ScanRequest request;  ///< the same for each file
  std::uint32_t timeout_in_seconds = 0;                ///< the policy's, of one scan
  std::size_t workers = 1;                             ///< of the daemon
  std::chrono::nanoseconds deadline{0};                ///< for a file that is being scanned
  std::uint64_t max_errors = 0;                        ///< 0: no bound
  bool private_rules = false;                          ///< count as matches
  /// How long after a signal the files that are there are still scanned; 0: it stops everything at once.
  std::chrono::nanoseconds wind_up{0};
};

/// Gets this process, and the daemons that it starts from now on, enough descriptors for a full window of files, if the
/// system allows that. Returns how many it may have.
std::size_t RaiseDescriptorLimit();

/// Scans what a walk finds and gives each file its one end. Keeps as many files with the daemon as keep its workers
/// busy.
///
/// A daemon that dies, or lets a file's deadline pass and is killed for it, is replaced by one with the same policy.
/// The files that were with it are tried once more, one at a time, so that one that kills the daemon again is known by
/// that and takes no other with it.
///
/// All methods are for one thread. Holds an InterruptScope while it runs.
class Scanner {
 public:
  /// Starts a daemon and sends it the policy. Throws agent::Error.
  using StartDaemon = std::function<std::unique_ptr<agent::Client>()>;

  /// `client` is the first daemon's, with the policy in force.
  Scanner(std::unique_ptr<agent::Client> client, StartDaemon start_daemon, ScannerSettings settings,
          Reporter& reporter);
  Scanner(const Scanner&) = delete;
  Scanner& operator=(const Scanner&) = delete;
  ~Scanner();

  /// Scans all that `source` has, or stops early, with the daemon gone in each case. Tells how the run ended; the
  /// exit status is left for the caller.
  [[nodiscard]] RunSummary Run(FileSource& source);

 private:
  struct InFlight {
    WalkedFile file;
    bool tried_before = false;
    bool overdue = false;
    std::optional<std::chrono::steady_clock::time_point> begun;  // when a worker took it up, as far as we can tell
  };
  struct Finished {
    std::uint64_t id;
    agent::ScanAnswer answer;
  };
  using InFlightMap = std::map<std::uint64_t, InFlight>;

  // Brings finished scans from the client's thread to the one that reports.
  class FinishedQueue {
   public:
    void Push(Finished finished) EXCLUDES(mutex_);
    void Wake() EXCLUDES(mutex_);
    // All there are; waits for one or a Wake, at most `timeout`.
    [[nodiscard]] std::vector<Finished> Take(std::chrono::milliseconds timeout) EXCLUDES(mutex_);

   private:
    korvo::utils::Mutex mutex_;
    std::condition_variable_any condition_;
    std::vector<Finished> queue_ GUARDED_BY(mutex_);
    bool awake_ GUARDED_BY(mutex_) = false;
  };

  // Takes up another file. How long to wait for answers before there may be more to do.
  [[nodiscard]] std::chrono::milliseconds Advance(FileSource& source);
  [[nodiscard]] bool IsDone() const { return walk_ended_ && in_flight_.empty() && again_.empty(); }
  [[nodiscard]] std::optional<RunEnd> ReasonToStop();
  [[nodiscard]] bool MayWindUp();
  void Send(WalkedFile file, bool tried_before);
  // Has the file at the head of the daemon's queue begun, as often as workers are free.
  void BeginWaiting();
  void TakeUp(Finished finished);
  void KillIfOverdue();
  // Puts another daemon in the place of one that has died. False when there is none to be had.
  [[nodiscard]] bool Replace();
  void GiveUpOnRest(const std::string& why);

  void ReportUnopened(const WalkedFile& file);
  void ReportError(const WalkedFile& file, Outcome outcome, const std::string& error);
  [[nodiscard]] FileReport Judge(const InFlight& scanned, const agent::ScanAnswer& answer);
  void JudgeError(const agent::Error& error, FileReport& report) const;
  void JudgeResponse(const static_pattern_matching_proto::ScanResponse& response, FileReport& report);
  // The last line of the daemon's log that says why a scan failed.
  [[nodiscard]] std::string LastScanError();

  StartDaemon start_daemon_;
  ScannerSettings settings_;
  Reporter& reporter_;
  std::size_t window_;
  FinishedQueue finished_;
  std::unique_ptr<agent::Client> client_;  // after finished_, which its callbacks use
  std::uint64_t next_id_ = 0;
  InFlightMap in_flight_;    // by id, so in the order in which the daemon takes them
  std::size_t begun_ = 0;    // of those
  InFlightMap again_;        // were with a daemon that died
  std::string death_;        // how it died; empty while it lives
  int deaths_in_a_row_ = 0;  // without an answer in between
  bool walk_ended_ = false;
  std::optional<std::chrono::steady_clock::time_point> told_to_end_;
  RunSummary summary_;
};

}  // namespace vond::vondctl
