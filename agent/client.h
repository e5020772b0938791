#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "agent/daemon_process.h"
#include "agent/error.h"
#include "korvo_common/proto/KorvoDaemon.pb.h"
#include "static_pattern_matching/proto/StaticPatternMatching.pb.h"
#include "utils/mutex.h"

namespace vond::agent {

inline constexpr std::size_t kMaxPacketSize = 131072;  ///< bytes of one request
inline constexpr std::size_t kMaxDescriptors = 32;     ///< of one request
/// Requests that may be with the daemon at once. Its queue holds 200, and what comes on top vanishes.
inline constexpr std::size_t kMaxInFlight = 100;

/// A policy to be sent. The descriptors are the caller's and may be closed once ApplyPolicy has returned.
struct Policy {
  static_pattern_matching_proto::UserConfigData document;  ///< `fd_index` counts in `rule_set_fds`
  std::string json;                                        ///< sent instead of `document` when not empty
  std::vector<int> rule_set_fds;
  std::uint32_t log_level = 6;  ///< of the daemon; at least 3 is sent, since lost answers show only in its log
};

/// The request by which ApplyPolicy sends `policy`, but for its id. Throws Error kPolicyRefused for a document that
/// can't be written as JSON.
[[nodiscard]] korvo_daemon::Request PolicyRequest(const Policy& policy);

/// The policy's max_sample_size in bytes, 0 for no limit; 0 too for a document that the daemon won't take.
[[nodiscard]] std::uint32_t MaxSampleSize(const Policy& policy);

/// What keeps a daemon from scanning the content of `fd`: not a readable regular file (or memfd), which it would report
/// as an empty one, or larger than `max_sample_size` bytes (0: no limit). Asks the file system, which may take its
/// time.
[[nodiscard]] std::optional<Error> CheckScannable(int fd, std::uint32_t max_sample_size);

/// The end of one request: an answer, or why there is none. Never both.
struct Answer {
  std::optional<Error> error;
  korvo_daemon::Response response;
};

/// The end of one scan. Without an error there is still a scan to judge: `response` has a status of its own, and one
/// per rule type, and the engine's error code in each result; the file was scanned only where all three are 0.
struct ScanAnswer {
  std::optional<Error> error;  ///< set: the file was not scanned
  static_pattern_matching_proto::ScanResponse response;
};

/// The agent's side of one daemon: starts it or reaches it through a relay (relay.h), sends policies and scans, pairs
/// answers with requests by id, and gives every request an end, be it an answer or an Error, within its deadline.
///
/// Any thread may call any method; the object must outlive the calls and is not destroyed from a callback. Callbacks
/// run on the client's own thread, one at a time, and must return quickly and not throw; they may start new requests
/// with SendAsync/ScanAsync, which from a callback fail at once (kSendFailed) instead of waiting for room. The waiting
/// calls (Send, Scan, ApplyPolicy) fail there likewise. Nothing here changes signal dispositions. Descriptors passed in
/// stay the caller's and may be closed once the call has returned: the kernel copies them while sending.
class Client {
 public:
  using Deadline = std::chrono::steady_clock::time_point;
  using Callback = std::function<void(Answer)>;
  using ScanCallback = std::function<void(ScanAnswer)>;

  /// Starts a daemon. `on_end` is called once, on the client's thread, when the channel has ended by itself; it may be
  /// empty and must do as callbacks must. Throws Error kStartFailed, also where a sandbox that is required can't be
  /// had; the text then quotes the daemon on what is missing.
  explicit Client(DaemonOptions options, std::function<void()> on_end = {});
  /// Speaks to whoever is at the other end of `connection`, a SOCK_SEQPACKET socket (see ConnectToRelay). Its end is
  /// kDaemonDied to all that is open. There is no log: a refused policy comes without reasons. Throws likewise.
  explicit Client(auto_resources::ManagedFD connection);
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  /// Gives every open request Error kDaemonDied, then ends the daemon, or the connection.
  ~Client();

  /// Sends a request and calls `callback` exactly once with its end, never from inside this call. The header's id is
  /// set here. Waits while kMaxInFlight requests are with the daemon, or while the socket is full, at most until
  /// `deadline`. An answer that the daemon drops shows as such only if its log level is at least 3.
  void SendAsync(korvo_daemon::Request request, const std::vector<int>& fds, Deadline deadline, Callback callback);
  /// The same without ever waiting: where SendAsync would, the end is kSendFailed with the errno EAGAIN.
  void SendNowAsync(korvo_daemon::Request request, const std::vector<int>& fds, Deadline deadline, Callback callback);
  /// SendAsync, waiting for the end.
  [[nodiscard]] Answer Send(korvo_daemon::Request request, const std::vector<int>& fds,
                            std::chrono::milliseconds timeout);

  /// Scans the regular file (or memfd) behind `fd`. Refuses, as an Error in the answer, what is not a readable regular
  /// file, which the daemon would scan as an empty one, and what is larger than the policy's max_sample_size.
  void ScanAsync(int fd, const static_pattern_matching_proto::ScanRequest& request, Deadline deadline,
                 ScanCallback callback);
  [[nodiscard]] ScanAnswer Scan(int fd, const static_pattern_matching_proto::ScanRequest& request,
                                std::chrono::milliseconds timeout);

  /// Sends a policy and waits for the daemon's word. Policies go one at a time: a second call first waits for the end
  /// of the one before. Rule sets must be regular files (or memfds) too. Throws Error: kPolicyRefused (the text quotes
  /// what the daemon's log says about it) or any other kind; after kDeadlineExceeded it is not known which policy is in
  /// force until another one is accepted.
  void ApplyPolicy(const Policy& policy, std::chrono::milliseconds timeout);

  /// Requests that the daemon has and has not answered, those past their deadline included.
  [[nodiscard]] std::size_t InFlight() EXCLUDES(mutex_);
  /// Whether the channel still stands.
  [[nodiscard]] bool IsAlive() EXCLUDES(mutex_);
  /// How the channel came to its end; empty while it stands.
  [[nodiscard]] std::string WhyDead() EXCLUDES(mutex_);
  /// Kills the daemon, or breaks the connection: what is open ends with kDaemonDied. Does not wait.
  void Abandon();
  [[nodiscard]] bool IsConnection() const noexcept { return process_ == nullptr; }
  /// The daemon that was started here. Not for a connection.
  [[nodiscard]] DaemonProcess& Process() noexcept { return *process_; }
  /// The last lines of the daemon's log, oldest first; none from behind a connection.
  [[nodiscard]] std::vector<std::string> RecentLog();

 private:
  struct Pending {
    Deadline deadline;
    Callback callback;  // empty once the request has had its end but the daemon has not answered yet
  };

  struct Ended {
    Callback callback;
    Answer answer;
  };

  // Starts the receiver once `open_channel` has made the channel.
  void Start(const std::function<void()>& open_channel);
  [[nodiscard]] int ChannelFd() const noexcept { return process_ ? process_->ChannelFd() : connection_.Get(); }
  void SendWaiting(korvo_daemon::Request request, const std::vector<int>& fds, Deadline deadline, Callback callback,
                   bool may_wait) EXCLUDES(mutex_);
  [[nodiscard]] bool OnReceiver() const { return std::this_thread::get_id() == receiver_.get_id(); }
  void Stop() EXCLUDES(mutex_);
  // Waits for the daemon to serve, and says what is wrong if it does so without a sandbox.
  [[nodiscard]] std::optional<Error> CheckSandbox() EXCLUDES(mutex_);
  // Makes the receiver look at ended_ and the deadlines.
  void Wake();
  // Gives a request that was never pending its end.
  void Fail(Callback callback, const Error& error) EXCLUDES(mutex_);
  // Waits for room and makes the request pending; gives it its end and returns false if that cannot be.
  [[nodiscard]] bool Register(std::uint64_t id, Deadline deadline, Callback callback, bool may_wait) EXCLUDES(mutex_);
  // Sends a pending request, or withdraws it.
  void Transmit(std::uint64_t id, const std::string& packet, const std::vector<int>& fds, Deadline deadline,
                bool may_wait) EXCLUDES(mutex_);
  void Withdraw(std::uint64_t id, const Error& error) EXCLUDES(mutex_);
  // The daemon's ERROR lines about the policy that it has just refused.
  [[nodiscard]] std::string CollectPolicyErrors() EXCLUDES(mutex_);

  void ReceiveLoop() EXCLUDES(mutex_);
  // Takes the packets that have arrived. False when there will be no more.
  [[nodiscard]] bool ReceivePackets(std::string& buffer) EXCLUDES(mutex_);
  void TakePacket(const std::string& packet) EXCLUDES(mutex_);
  void TakeEndOfDaemon() EXCLUDES(mutex_);
  void OnOutputLine(OutputStream stream, const std::string& line) EXCLUDES(mutex_);

  // The daemon has the request no more: `answer` is its end unless it has had one.
  void EndPending(std::uint64_t id, Answer answer) REQUIRES(mutex_);
  // From now on nothing is answered.
  void EndAllPending(const std::string& why) REQUIRES(mutex_);
  void EndOverdue() REQUIRES(mutex_);
  // The daemon will not answer one of the pending requests, not known which.
  void NoteLostAnswer(const Error& error) REQUIRES(mutex_);
  void ResolveLostAnswers() REQUIRES(mutex_);

  std::function<void(OutputStream, const std::string&)> user_on_output_;
  std::function<void()> on_end_;
  korvo::utils::Mutex policy_mutex_;  // held while a policy is with the daemon; before mutex_
  korvo::utils::Mutex mutex_;
  std::condition_variable_any window_;  // of mutex_: room for another request, or the end of the daemon
  std::uint64_t next_id_ GUARDED_BY(mutex_) = 1;
  std::unordered_map<std::uint64_t, Pending> pending_ GUARDED_BY(mutex_);
  std::vector<Ended> ended_ GUARDED_BY(mutex_);              // their callbacks are the receiver's next work
  Deadline next_look_ GUARDED_BY(mutex_) = Deadline::max();  // when the receiver wakes by itself
  std::size_t lost_answers_ GUARDED_BY(mutex_) = 0;
  std::optional<Error> lost_error_ GUARDED_BY(mutex_);             // of the last one
  std::unordered_set<std::uint64_t> suspects_ GUARDED_BY(mutex_);  // see NoteLostAnswer
  bool stop_ GUARDED_BY(mutex_) = false;
  bool dead_ GUARDED_BY(mutex_) = false;
  std::string death_ GUARDED_BY(mutex_);  // how it died
  std::uint32_t max_sample_size_ GUARDED_BY(mutex_) = 0;
  std::vector<std::string> policy_errors_ GUARDED_BY(mutex_);  // ERROR lines since the last policy was sent
  auto_resources::ManagedFD wake_;                             // an eventfd
  auto_resources::ManagedFD connection_;                       // where no daemon was started
  std::unique_ptr<DaemonProcess> process_;  // after all that OnOutputLine touches, so that it goes first
  std::thread receiver_;
};

}  // namespace vond::agent
