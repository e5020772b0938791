#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/client.h"
#include "agent/held_policy.h"
#include "agent/proto/Relay.pb.h"
#include "agent/scan_statistics.h"
#include "agent/supervised_daemon.h"
#include "agent/unix_listener.h"
#include "korvo_common/proto/KorvoDaemon.pb.h"
#include "utils/managed_fd.h"
#include "utils/mutex.h"

namespace vond::agent {

struct RelayOptions {
  DaemonOptions daemon;
  AccessRule access;
  std::size_t max_clients = 128;
  std::chrono::milliseconds stall_timeout = std::chrono::seconds(30);  ///< for a client that does not read its answers
  std::chrono::seconds scan_deadline{0};        ///< until the daemon counts as hung; 0: DefaultDeadline of the policy
  std::function<void(const std::string&)> say;  ///< what happens, a line each, for people; any thread, may be empty
  /// Gets the relay's status every `publish_interval` and at the end, on the thread of Run; may be empty.
  std::function<void(const vond_relay::Status&)> publish;
  std::chrono::milliseconds publish_interval = std::chrono::seconds(2);
};

/// One daemon for many agents: takes connections, and hands each client's requests to a daemon that it keeps alive
/// (SupervisedDaemon), which sees them as if one agent had sent them. Descriptors go along, ids are rewritten and
/// restored.
///
/// - Clients speak the daemon's own protocol. A scan that gets no answer from the daemon ends with FailureResponse.
///   Policies are taken from clients of this process's own user alone; others get the daemon's "no success".
/// - Turn by turn each client with something to send has one request sent; how many of one client's may be with the
///   daemon at once is bounded, more tightly where its scans are slow. What comes on top waits in the client's socket.
/// - A client that sends what is no request, or reads none of its answers for stall_timeout or until 8 MiB wait, is
///   closed. Descriptors of its waiting requests are closed; scans under way end unheard.
/// - Scans that were with a daemon when it died are tried once more on the next one, one at a time, so that the file
///   that did it is known by that and ends with an error.
///
/// Run is one thread's, which never waits for a client or the daemon; it does ask the file system about each file
/// (fstat). Stop and ReloadAsync may be called from any thread and callback. SIGPIPE is never raised.
class Relay {
 public:
  /// Starts the daemon and waits until the first policy is in force. Throws Error, or std::system_error.
  Relay(UnixListener listener, HeldPolicy policy, RelayOptions options);
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;
  ~Relay();

  /// Serves until Stop, then lets the scans that the daemon has end, for some seconds, and returns. Returns why when
  /// the daemon has died too often.
  [[nodiscard]] std::optional<std::string> Run();
  void Stop();
  /// Puts another policy in force; no scan is lost over it. See SupervisedDaemon::ApplyAsync for the callbacks.
  void ReloadAsync(SupervisedDaemon::MakePolicy make, SupervisedDaemon::Applied done);

 private:
  using TimePoint = std::chrono::steady_clock::time_point;

  struct Job {
    std::uint64_t peer = 0;
    korvo_daemon::MessageHeader header;  // the client's
    korvo_daemon::Request request;
    std::size_t bytes = 0;  // of the packet
    std::vector<auto_resources::ManagedFD> fds;
    std::optional<static_pattern_matching_proto::ScanRequest> scan;  // if it is one
    std::uint64_t file_size = 0;
    TimePoint received;
    TimePoint sent;
    std::optional<TimePoint> begun;  // when a worker took it up, as far as we can tell
    bool tried_before = false;
    bool overdue = false;
  };
  using Jobs = std::map<std::uint64_t, Job>;

  struct Peer {
    auto_resources::ManagedFD socket;
    PeerIdentity identity;
    std::deque<Job> waiting;
    std::size_t waiting_bytes = 0;
    std::size_t in_flight = 0;
    std::size_t policies = 0;  // with the daemon or on the way there
    std::deque<std::string> output;
    std::size_t output_bytes = 0;
    TimePoint last_read;        // of its output, or when that began to wait
    double scan_seconds = 1e9;  // lately, from sending to answer; slow until shown otherwise
    bool doomed = false;        // to be closed
  };
  using Peers = std::map<std::uint64_t, Peer>;

  struct Finished {
    std::uint64_t job;
    Answer answer;
  };
  struct AppliedPolicy {
    std::uint64_t peer;
    korvo_daemon::MessageHeader header;
    bool success;
  };

  // Brings what happens on other threads to the one that runs.
  class Inbox {
   public:
    Inbox();
    void Push(Finished finished) EXCLUDES(mutex_);
    void Push(AppliedPolicy applied) EXCLUDES(mutex_);
    void Wake();
    void Drain();
    [[nodiscard]] int Fd() const noexcept { return event_.Get(); }
    [[nodiscard]] std::vector<Finished> TakeFinished() EXCLUDES(mutex_);
    [[nodiscard]] std::vector<AppliedPolicy> TakeApplied() EXCLUDES(mutex_);

   private:
    auto_resources::ManagedFD event_;
    korvo::utils::Mutex mutex_;
    std::vector<Finished> finished_ GUARDED_BY(mutex_);
    std::vector<AppliedPolicy> applied_ GUARDED_BY(mutex_);
  };

  void Say(const std::string& text) const;
  void TakeInbox();
  void LookAtDaemon();
  void TakeFinished(Finished finished);
  void EndJob(Job& job, korvo_daemon::Response response);
  void FailJob(Job& job, const Error& error, ScanOutcome outcome);
  void RetryOrFail(std::uint64_t number, Job job, const Error& death);

  void AcceptClients();
  void ReadFrom(std::uint64_t number, Peer& peer);
  void TakePacket(std::uint64_t number, Peer& peer, const std::string& packet,
                  std::vector<auto_resources::ManagedFD> fds, bool fds_lost);
  void TakePolicy(std::uint64_t number, Peer& peer, korvo_daemon::Request request,
                  std::vector<auto_resources::ManagedFD> fds);
  void SendAnswer(Peer& peer, const korvo_daemon::MessageHeader& header, korvo_daemon::Response response);
  void Flush(Peer& peer);
  void Doom(Peer& peer, const std::string& why);
  void CloseDoomed();

  // Gives the daemon what there is room for.
  void Pump();
  [[nodiscard]] Peer* NextPeer();
  [[nodiscard]] std::size_t WindowOf(const Peer& peer) const;
  // False when the daemon takes nothing now; `job` is unchanged then.
  [[nodiscard]] bool SendJob(Job& job);
  [[nodiscard]] bool CheckJob(Job& job);
  void BeginWaiting();
  void AbandonIfOverdue(TimePoint now);
  void CloseStalled(TimePoint now);

  [[nodiscard]] bool MayRead(const Peer& peer) const;
  void WaitForEvents();
  void BeginToStop(const std::string& why);
  [[nodiscard]] bool HasWoundUp(TimePoint now) const;
  void Publish(TimePoint now, bool at_once);
  [[nodiscard]] vond_relay::Status MakeStatus();

  RelayOptions options_;
  UnixListener listener_;
  Inbox inbox_;
  SupervisedDaemon daemon_;        // after all that its callbacks use
  SupervisedDaemon::State state_;  // as of seen_version_
  std::uint64_t seen_version_ = 0;
  std::size_t workers_ = 1;
  std::size_t most_descriptors_;
  std::size_t descriptors_ = 0;  // of clients, kept here
  std::atomic<bool> stop_{false};
  bool stopping_ = false;
  TimePoint start_;
  TimePoint stop_by_;
  TimePoint accept_after_;
  TimePoint send_after_;
  TimePoint next_publish_;
  std::uint64_t next_peer_ = 1;
  std::uint64_t last_served_ = 0;
  std::uint64_t next_job_ = 1;
  Peers peers_;
  Jobs in_flight_;  // in the order in which the daemon takes them
  std::size_t begun_ = 0;
  Jobs again_;  // were with a daemon that died
  ScanStatistics statistics_;
  vond_relay::Clients clients_;
  std::uint64_t retried_ = 0;
  std::string buffer_;
};

}  // namespace vond::agent
