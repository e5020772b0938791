#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "agent/client.h"
#include "agent/held_policy.h"
#include "agent/proto/Relay.pb.h"
#include "utils/mutex.h"

namespace vond::agent {

/// Counts crashes and says how long to wait after each. One thread.
class CrashWindow {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  /// The `most`-th crash within `span` is one too many.
  explicit CrashWindow(std::size_t most = 5, std::chrono::milliseconds span = std::chrono::minutes(1))
      : most_(most), span_(span) {}
  /// Notes a crash. False when it is one too many.
  [[nodiscard]] bool Note(TimePoint now);
  /// 0.1 s after a crash that stands alone, twice as long for each one before it within the span.
  [[nodiscard]] std::chrono::milliseconds BackOff() const;
  [[nodiscard]] std::size_t Crashes() const noexcept { return crashes_.size(); }

 private:
  std::size_t most_;
  std::chrono::milliseconds span_;
  std::deque<TimePoint> crashes_;  // those within the span before the last one
};

/// A daemon that is there again after it has died, with the last policy that was in force; five deaths within a minute,
/// starts that fail included, are the end of it. A policy that is refused, can't be read, or brings the daemon down
/// leaves the one before in force.
///
/// Any thread may call any method. Starting and loading happen on a thread of its own. The callbacks of Options run
/// there and on the daemon's own threads, must be quick, must not throw, and must not call back into this object.
class SupervisedDaemon {
 public:
  struct Options {
    DaemonOptions daemon;
    std::chrono::milliseconds policy_timeout = std::chrono::minutes(10);
    std::function<void(const std::string&)> say;  ///< what happens, a line each, for people
    std::function<void()> on_change;              ///< GetState has something new
  };

  struct State {
    bool alive = false;
    pid_t pid = -1;
    std::uint64_t restarts = 0;
    vond_relay::Policy policy;
    static_pattern_matching_proto::UserConfigData document;
    std::string failure;  ///< not empty once it has been given up
  };

  /// Makes a policy, on this object's thread. May throw, which is the policy's refusal.
  using MakePolicy = std::function<HeldPolicy()>;
  /// The end of ApplyAsync: why the policy is not in force, or nothing. Runs as the callbacks of Options do.
  using Applied = std::function<void(const std::optional<std::string>& refusal)>;

  /// Starts the daemon with its first policy and waits for both. Throws Error.
  SupervisedDaemon(Options options, HeldPolicy policy);
  SupervisedDaemon(const SupervisedDaemon&) = delete;
  SupervisedDaemon& operator=(const SupervisedDaemon&) = delete;
  /// Ends the daemon. What is open ends with Error kDaemonDied; policies that wait are dropped without an end.
  ~SupervisedDaemon();

  /// Puts another policy in force, after those that were asked for before.
  void ApplyAsync(MakePolicy make, Applied done) EXCLUDES(mutex_);
  /// Client::SendNowAsync. False, and nothing else happens, while no daemon is there.
  [[nodiscard]] bool TrySend(const korvo_daemon::Request& request, const std::vector<int>& fds,
                             Client::Callback callback) EXCLUDES(mutex_);
  /// Kills a daemon that hangs; it counts as a crash.
  void Abandon(const std::string& why) EXCLUDES(mutex_);
  [[nodiscard]] State GetState() EXCLUDES(mutex_);
  /// Another number whenever GetState has something new; never 0.
  [[nodiscard]] std::uint64_t Version() EXCLUDES(mutex_);

 private:
  struct Job {
    MakePolicy make;
    Applied done;
  };

  [[nodiscard]] std::unique_ptr<Client> StartDaemon() EXCLUDES(mutex_);
  void Work() EXCLUDES(mutex_);
  void Restart() EXCLUDES(mutex_);
  // Starts a daemon and gives it the policy. Why not, if that fails.
  [[nodiscard]] std::optional<std::string> TryRestart() EXCLUDES(mutex_);
  void RunJob(Job job) EXCLUDES(mutex_);
  // False when this object is to end meanwhile.
  [[nodiscard]] bool Pause(std::chrono::milliseconds time) EXCLUDES(mutex_);

  Options options_;
  CrashWindow crashes_;
  korvo::utils::Mutex mutex_;
  std::condition_variable_any condition_;
  bool stop_ GUARDED_BY(mutex_) = false;
  bool died_ GUARDED_BY(mutex_) = false;
  std::string why_died_ GUARDED_BY(mutex_);           // of a daemon that was killed from here
  std::uint64_t incarnation_ GUARDED_BY(mutex_) = 0;  // of the daemon whose death counts
  std::deque<Job> jobs_ GUARDED_BY(mutex_);
  Client* loading_ GUARDED_BY(mutex_) = nullptr;        // has a policy to answer
  std::unique_ptr<Client> current_ GUARDED_BY(mutex_);  // changed by the worker alone
  HeldPolicy policy_;                                   // the worker's
  State state_ GUARDED_BY(mutex_);
  std::uint64_t version_ GUARDED_BY(mutex_) = 1;
  std::thread worker_;
};

}  // namespace vond::agent
