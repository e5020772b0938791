#include "agent/relay.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "agent/relay_protocol.h"

namespace vond::agent {
namespace {

using auto_resources::ManagedFD;
using korvo::utils::MutexLock;
using korvo_daemon::MessageHeader;
using korvo_daemon::Request;
using korvo_daemon::Response;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr std::size_t kWindowPerWorker = 8;  // with all clients' scans together, where they are fast
constexpr std::size_t kMostInWindow = kMaxInFlight - 10;
constexpr double kSlowSeconds = 0.05;     // scans that take this long get a window no deeper than the workers
constexpr double kNewest = 0.2;           // weight of the last scan
constexpr std::size_t kMostWaiting = 32;  // requests of one client that are kept here
constexpr std::size_t kMostWaitingBytes = 1U << 20;
constexpr std::size_t kMostPolicies = 4;                        // of one client, not yet answered
constexpr std::size_t kMostOutputBytes = std::size_t{8} << 20;  // that a client leaves unread
constexpr std::size_t kOutputToPause = 1U << 16;                // that keeps us from taking more of its requests
constexpr int kPacketsAtOnce = 8;                               // of one client, before the others' turn
constexpr int kSocketBuffer = 4 << 20;
constexpr std::size_t kOwnDescriptors = 64;
constexpr std::size_t kMostPassed = 253;  // in one packet, by the kernel
constexpr milliseconds kShortWait{20};
constexpr milliseconds kLongestWait{1000};
constexpr seconds kWindUp{5};

Error Ending() { return {ErrorCode::kRelayFailed, "the relay is ending"}; }

std::size_t DescriptorBudget(std::size_t max_clients) {
  rlimit limit{};
  const std::size_t most = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY
                               ? static_cast<std::size_t>(limit.rlim_cur)
                               : 65536;
  const std::size_t others = kOwnDescriptors + max_clients + kMostPassed;
  return most > others + kMaxDescriptors ? most - others : kMaxDescriptors;
}

// What one packet brought.
struct Received {
  ssize_t size = -1;  // as recvmsg has it
  bool cut = false;   // the bytes
  bool fds_lost = false;
  std::vector<ManagedFD> fds;
};

Received Receive(int socket, std::string& buffer) {
  union {
    cmsghdr header;
    std::array<char, CMSG_SPACE(kMostPassed * sizeof(int))> bytes;
  } control{};
  iovec data{buffer.data(), buffer.size()};
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control.bytes.data();
  message.msg_controllen = control.bytes.size();
  Received received;
  received.size = ::recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (received.size < 0) {
    return received;
  }
  for (const cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
       header = CMSG_NXTHDR(&message, const_cast<cmsghdr*>(header))) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) {
      continue;
    }
    const std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int fd = -1;
      std::memcpy(&fd, CMSG_DATA(header) + i * sizeof fd, sizeof fd);
      received.fds.emplace_back(fd);
    }
  }
  received.cut = (message.msg_flags & MSG_TRUNC) != 0;
  received.fds_lost = (message.msg_flags & MSG_CTRUNC) != 0;
  return received;
}

std::string Describe(const PeerIdentity& peer) {
  return "client " + std::to_string(peer.pid) + " of user " + std::to_string(peer.uid);
}

std::vector<int> Numbers(const std::vector<ManagedFD>& fds) {
  std::vector<int> numbers;
  std::transform(fds.begin(), fds.end(), std::back_inserter(numbers), [](const ManagedFD& fd) { return fd.Get(); });
  return numbers;
}

}  // namespace

Relay::Inbox::Inbox() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!event_.IsValid()) {
    throw std::system_error(errno, std::generic_category(), "eventfd");
  }
}

void Relay::Inbox::Push(Finished finished) {
  {
    const MutexLock lock(mutex_);
    finished_.push_back(std::move(finished));
  }
  Wake();
}

void Relay::Inbox::Push(AppliedPolicy applied) {
  {
    const MutexLock lock(mutex_);
    applied_.push_back(std::move(applied));
  }
  Wake();
}

void Relay::Inbox::Wake() { ::eventfd_write(event_.Get(), 1); }

void Relay::Inbox::Drain() {
  eventfd_t count = 0;
  ::eventfd_read(event_.Get(), &count);
}

std::vector<Relay::Finished> Relay::Inbox::TakeFinished() {
  const MutexLock lock(mutex_);
  return std::exchange(finished_, {});
}

std::vector<Relay::AppliedPolicy> Relay::Inbox::TakeApplied() {
  const MutexLock lock(mutex_);
  return std::exchange(applied_, {});
}

Relay::Relay(UnixListener listener, HeldPolicy policy, RelayOptions options)
    : options_(std::move(options)),
      listener_(std::move(listener)),
      daemon_(
          [this] {
            SupervisedDaemon::Options daemon;
            daemon.daemon = options_.daemon;
            daemon.say = [this](const std::string& text) { Say(text); };
            daemon.on_change = [this] { inbox_.Wake(); };
            return daemon;
          }(),
          std::move(policy)),
      most_descriptors_(DescriptorBudget(options_.max_clients)),
      start_(steady_clock::now()),
      buffer_(kMaxPacketSize, '\0') {}

Relay::~Relay() = default;

void Relay::Stop() {
  stop_ = true;
  inbox_.Wake();
}

void Relay::ReloadAsync(SupervisedDaemon::MakePolicy make, SupervisedDaemon::Applied done) {
  daemon_.ApplyAsync(std::move(make), std::move(done));
}

void Relay::Say(const std::string& text) const {
  if (options_.say) {
    options_.say(text);
  }
}

std::optional<std::string> Relay::Run() {
  std::string failure;
  while (true) {
    TakeInbox();
    if (!stopping_ && !state_.failure.empty()) {
      failure = state_.failure;
      BeginToStop(failure);
    } else if (!stopping_ && stop_) {
      BeginToStop("the relay is ending");
    }
    Pump();
    const TimePoint now = steady_clock::now();
    AbandonIfOverdue(now);
    CloseStalled(now);
    CloseDoomed();
    if (stopping_ && HasWoundUp(now)) {
      break;
    }
    Publish(now, false);
    WaitForEvents();
  }
  Publish(steady_clock::now(), true);
  return failure.empty() ? std::nullopt : std::optional(failure);
}

void Relay::TakeInbox() {
  // First what came back from a daemon, then whether there is another.
  for (Finished& finished : inbox_.TakeFinished()) {
    TakeFinished(std::move(finished));
  }
  LookAtDaemon();
  for (const AppliedPolicy& applied : inbox_.TakeApplied()) {
    const auto peer = peers_.find(applied.peer);
    if (peer != peers_.end()) {
      --peer->second.policies;
      Response response;
      response.mutable_config_result()->set_success(applied.success);
      SendAnswer(peer->second, applied.header, std::move(response));
    }
  }
}

void Relay::LookAtDaemon() {
  const std::uint64_t version = daemon_.Version();
  if (version != seen_version_) {
    seen_version_ = version;
    state_ = daemon_.GetState();
    workers_ = std::max<std::size_t>(WorkerCount(state_.document), 1);
  }
}

void Relay::TakeFinished(Finished finished) {
  auto node = in_flight_.extract(finished.job);
  Job& job = node.mapped();
  begun_ -= job.begun ? 1 : 0;
  BeginWaiting();
  const auto peer = peers_.find(job.peer);
  if (peer != peers_.end()) {
    --peer->second.in_flight;
  }
  const TimePoint now = steady_clock::now();
  if (finished.answer.error) {
    const Error& error = *finished.answer.error;
    if (error.Code() == ErrorCode::kDaemonDied) {
      RetryOrFail(finished.job, std::move(job), error);
    } else if (error.Code() == ErrorCode::kSendFailed && error.SysErrno() == EAGAIN && peer != peers_.end()) {
      // Its turn comes again. No deadline: a daemon that takes nothing is found by the scans that it has.
      job.begun.reset();
      send_after_ = now + kShortWait;
      peer->second.waiting_bytes += job.bytes;
      peer->second.waiting.push_front(std::move(job));
    } else {
      FailJob(job, error, error.Code() == ErrorCode::kDeadlineExceeded ? ScanOutcome::kTimeout : ScanOutcome::kError);
    }
    return;
  }
  if (job.scan) {
    static_pattern_matching_proto::ScanResponse response;
    ScanOutcome outcome = ScanOutcome::kError;
    if (finished.answer.response.has_generic_data_response() &&
        response.ParseFromString(finished.answer.response.generic_data_response().data())) {
      outcome = JudgeScan(*job.scan, response);
      statistics_.AddHits(response);
    }
    statistics_.Add(outcome, job.file_size, now - job.received);
    if (peer != peers_.end()) {
      const double took = std::chrono::duration<double>(now - job.sent).count();
      double& lately = peer->second.scan_seconds;
      lately = lately > 1e6 ? took : lately * (1 - kNewest) + took * kNewest;
    }
  }
  EndJob(job, std::move(finished.answer.response));
}

void Relay::EndJob(Job& job, Response response) {
  descriptors_ -= job.fds.size();
  job.fds.clear();
  const auto peer = peers_.find(job.peer);
  if (peer != peers_.end()) {
    SendAnswer(peer->second, job.header, std::move(response));
  }
}

void Relay::FailJob(Job& job, const Error& error, ScanOutcome outcome) {
  if (job.scan) {
    statistics_.AddUnsent(outcome);
  }
  EndJob(job, FailureResponse(error));
}

void Relay::RetryOrFail(std::uint64_t number, Job job, const Error& death) {
  if (stopping_) {
    FailJob(job, Ending(), ScanOutcome::kError);
  } else if (job.tried_before && job.overdue) {
    FailJob(job, Error(ErrorCode::kDeadlineExceeded, "vond hung with this file, twice, and was killed"),
            ScanOutcome::kTimeout);
  } else if (job.tried_before) {
    FailJob(job,
            Error(ErrorCode::kRelayFailed,
                  std::string("vond ended each of the two times it had this file: ") + death.what()),
            ScanOutcome::kError);
  } else if (!peers_.contains(job.peer)) {
    FailJob(job, death, ScanOutcome::kError);
  } else {
    job.tried_before = true;
    job.overdue = false;
    job.begun.reset();
    ++retried_;
    again_.emplace(number, std::move(job));
  }
}

void Relay::AcceptClients() {
  while (true) {
    ManagedFD socket(::accept4(listener_.Fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket.IsValid()) {
      if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
        accept_after_ = steady_clock::now() + milliseconds(100);
      }
      if (errno == EINTR || errno == ECONNABORTED) {
        continue;
      }
      return;
    }
    PeerIdentity identity;
    try {
      identity = IdentifyPeer(socket.Get());
    } catch (const std::system_error&) {
      continue;  // gone again, or of no kind to be let in
    }
    if (!options_.access.Admits(identity, ::geteuid())) {
      clients_.set_refused(clients_.refused() + 1);
      Say(Describe(identity) + " may not connect");
      continue;
    }
    if (peers_.size() >= options_.max_clients) {
      clients_.set_refused(clients_.refused() + 1);
      Say(Describe(identity) + " is refused: " + std::to_string(peers_.size()) + " clients are connected");
      continue;
    }
    if (::setsockopt(socket.Get(), SOL_SOCKET, SO_SNDBUFFORCE, &kSocketBuffer, sizeof kSocketBuffer) != 0) {
      // As much as the system grants; too large an answer then fails by itself.
      static_cast<void>(::setsockopt(socket.Get(), SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer));
    }
    clients_.set_accepted(clients_.accepted() + 1);
    Peer& peer = peers_[next_peer_++];
    peer.socket = std::move(socket);
    peer.identity = std::move(identity);
  }
}

bool Relay::MayRead(const Peer& peer) const {
  return !stopping_ && !peer.doomed && peer.waiting.size() < kMostWaiting && peer.waiting_bytes < kMostWaitingBytes &&
         peer.output_bytes < kOutputToPause && descriptors_ < most_descriptors_;
}

void Relay::ReadFrom(std::uint64_t number, Peer& peer) {
  for (int packets = 0; packets < kPacketsAtOnce && MayRead(peer); ++packets) {
    Received received = Receive(peer.socket.Get(), buffer_);
    if (received.size < 0) {
      if (errno != EAGAIN && errno != EINTR) {
        peer.doomed = true;
      }
      return;
    }
    if (received.size == 0 && received.fds.empty()) {
      peer.doomed = true;  // its end, or an empty packet, which is the same to the daemon
      return;
    }
    if (received.cut) {
      clients_.set_malformed(clients_.malformed() + 1);
      Doom(peer, "sent a packet of more than " + std::to_string(kMaxPacketSize) + " bytes");
      return;
    }
    TakePacket(number, peer, buffer_.substr(0, static_cast<std::size_t>(received.size)), std::move(received.fds),
               received.fds_lost);
  }
}

void Relay::TakePacket(std::uint64_t number, Peer& peer, const std::string& packet, std::vector<ManagedFD> fds,
                       bool fds_lost) {
  Request request;
  if (!request.ParseFromString(packet)) {
    clients_.set_malformed(clients_.malformed() + 1);
    Doom(peer, "sent a packet that is no request");
    return;
  }
  if (fds.size() > kMaxDescriptors) {
    fds.erase(fds.begin() + kMaxDescriptors, fds.end());  // as the daemon has it
  }
  const MessageHeader header = request.header();
  if (IsStatusRequest(request)) {
    SendAnswer(peer, header, StatusResponse(MakeStatus()));
    return;
  }
  if (fds_lost && (request.has_config() || request.has_generic_data_request())) {
    SendAnswer(peer, header,
               FailureResponse(Error(ErrorCode::kRelayFailed, "the relay is out of descriptors", EMFILE)));
    return;
  }
  if (request.has_config()) {
    TakePolicy(number, peer, std::move(request), std::move(fds));
    return;
  }
  Job job;
  job.peer = number;
  job.header = header;
  job.received = steady_clock::now();
  job.bytes = packet.size();
  if (request.has_generic_data_request()) {
    if (!job.scan.emplace().ParseFromString(request.generic_data_request().data())) {
      job.scan->Clear();  // the daemon has a word for it
    }
    if (fds.size() > 1) {
      fds.erase(fds.begin() + 1, fds.end());  // the daemon looks at the first one only
    }
    descriptors_ += fds.size();
    job.fds = std::move(fds);
  }
  job.request = std::move(request);
  peer.waiting_bytes += job.bytes;
  peer.waiting.push_back(std::move(job));
}

void Relay::TakePolicy(std::uint64_t number, Peer& peer, Request request, std::vector<ManagedFD> fds) {
  const MessageHeader header = request.header();
  const bool is_owner = peer.identity.uid == ::geteuid();
  if (!is_owner || peer.policies >= kMostPolicies) {
    Say(Describe(peer.identity) + (is_owner ? " sends too many policies at once; one is refused"
                                            : " sent a policy, which is the owner's to do; it is refused"));
    Response response;
    response.mutable_config_result()->set_success(false);
    SendAnswer(peer, header, std::move(response));
    return;
  }
  ++peer.policies;
  const auto held = std::make_shared<std::vector<ManagedFD>>(std::move(fds));
  const std::string who = Describe(peer.identity);
  auto make = [held, who, request = std::move(request)] {
    Policy policy;
    policy.json = request.config().user_config().data();
    if (policy.json.empty()) {
      throw Error(ErrorCode::kPolicyRefused, "a policy without a document");
    }
    policy.log_level = request.config().log_level();
    policy.rule_set_fds = Numbers(*held);
    HeldPolicy made = HoldPolicy(policy, who);
    held->clear();
    return made;
  };
  auto done = [this, number, header, who](const std::optional<std::string>& refusal) {
    Say(refusal ? "the policy of " + who + " is not in force, the one before stays: " + *refusal
                : "the policy of " + who + " is in force");
    inbox_.Push(AppliedPolicy{number, header, !refusal});
  };
  daemon_.ApplyAsync(std::move(make), std::move(done));
}

void Relay::SendAnswer(Peer& peer, const MessageHeader& header, Response response) {
  if (peer.doomed) {
    return;
  }
  *response.mutable_header() = header;
  if (peer.output.empty()) {
    peer.last_read = steady_clock::now();
  }
  peer.output.push_back(response.SerializeAsString());
  peer.output_bytes += peer.output.back().size();
  Flush(peer);
}

void Relay::Flush(Peer& peer) {
  while (!peer.output.empty() && !peer.doomed) {
    std::string& packet = peer.output.front();
    if (::send(peer.socket.Get(), packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
      peer.last_read = steady_clock::now();
    } else if (errno == EMSGSIZE) {
      Response response;
      response.ParseFromString(packet);
      Response failure =
          FailureResponse(Error(ErrorCode::kAnswerTooLarge, "the answer is too large for the client's socket", errno));
      *failure.mutable_header() = response.header();
      peer.output_bytes -= packet.size();
      packet = failure.SerializeAsString();
      peer.output_bytes += packet.size();
      continue;
    } else if (errno == EAGAIN || errno == ENOBUFS || errno == EINTR) {
      return;
    } else {
      peer.doomed = true;
      return;
    }
    peer.output_bytes -= packet.size();
    peer.output.pop_front();
  }
}

void Relay::Doom(Peer& peer, const std::string& why) {
  peer.doomed = true;
  Say(Describe(peer.identity) + " " + why + "; its connection is closed");
}

void Relay::CloseDoomed() {
  for (auto it = peers_.begin(); it != peers_.end();) {
    if (!it->second.doomed) {
      ++it;
      continue;
    }
    for (const Job& job : it->second.waiting) {
      descriptors_ -= job.fds.size();
    }
    it = peers_.erase(it);
  }
}

void Relay::Pump() {
  const TimePoint now = steady_clock::now();
  if (stopping_ || !state_.alive || now < send_after_) {
    return;
  }
  if (!again_.empty()) {
    // Alone, so that a file that ends the daemon takes no other with it.
    if (in_flight_.empty() && SendJob(again_.begin()->second)) {
      again_.erase(again_.begin());
    }
    return;
  }
  const std::size_t window = std::min(workers_ * kWindowPerWorker, kMostInWindow);
  while (in_flight_.size() < window) {
    Peer* const peer = NextPeer();
    if (peer == nullptr) {
      return;
    }
    Job& job = peer->waiting.front();
    const std::size_t bytes = job.bytes;
    if (CheckJob(job) && !SendJob(job)) {
      return;
    }
    peer->waiting_bytes -= bytes;
    peer->waiting.pop_front();
  }
}

Relay::Peer* Relay::NextPeer() {
  auto it = peers_.upper_bound(last_served_);
  for (std::size_t looked_at = 0; looked_at < peers_.size(); ++looked_at, ++it) {
    if (it == peers_.end()) {
      it = peers_.begin();
    }
    Peer& peer = it->second;
    if (!peer.doomed && !peer.waiting.empty() && peer.in_flight < WindowOf(peer) &&
        peer.output_bytes < kOutputToPause) {
      last_served_ = it->first;
      return &peer;
    }
  }
  return nullptr;
}

// The daemon serves in the order of arrival, so what one client has there is what the next one waits for.
std::size_t Relay::WindowOf(const Peer& peer) const {
  if (peer.scan_seconds < kSlowSeconds) {
    return workers_ * kWindowPerWorker / 2;
  }
  // With others around one worker is left to them.
  return peers_.size() > 1 ? std::max<std::size_t>(workers_ - 1, 1) : workers_;
}

bool Relay::CheckJob(Job& job) {
  if (!job.scan || job.fds.empty()) {
    return true;
  }
  struct stat status {};
  const int fd = job.fds.front().Get();
  if (const std::optional<Error> error = CheckScannable(fd, state_.document.max_sample_size())) {
    // The number is ours and means nothing to the client.
    const std::string ours = "descriptor " + std::to_string(fd);
    std::string text = error->what();
    text = text.starts_with(ours) ? "the descriptor" + text.substr(ours.size()) : text;
    FailJob(job, Error(error->Code(), text, error->SysErrno()), ScanOutcome::kSkipped);
    return false;
  }
  job.file_size = ::fstat(fd, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
  return true;
}

bool Relay::SendJob(Job& job) {
  const std::uint64_t number = next_job_++;
  job.sent = steady_clock::now();
  const bool sent = daemon_.TrySend(job.request, Numbers(job.fds), [this, number](Answer answer) {
    inbox_.Push(Finished{number, std::move(answer)});
  });
  if (!sent) {
    return false;
  }
  const auto peer = peers_.find(job.peer);
  if (peer != peers_.end()) {
    ++peer->second.in_flight;
  }
  in_flight_.emplace(number, std::move(job));
  BeginWaiting();
  return true;
}

void Relay::BeginWaiting() {
  for (auto it = in_flight_.begin(); it != in_flight_.end() && begun_ < workers_; ++it) {
    if (!it->second.begun) {
      it->second.begun = steady_clock::now();
      ++begun_;
    }
  }
}

void Relay::AbandonIfOverdue(TimePoint now) {
  bool hung = false;
  for (auto& [number, job] : in_flight_) {
    if (!job.begun) {
      break;  // nor has any behind it
    }
    const seconds deadline = options_.scan_deadline.count() != 0
                                 ? options_.scan_deadline
                                 : DefaultDeadline(state_.document, job.scan ? job.scan->rule_type_size() : 0);
    if (!job.overdue && now - *job.begun > deadline) {
      job.overdue = true;
      hung = true;
    }
  }
  if (hung) {
    daemon_.Abandon("vond did not answer in time and was killed");
  }
}

void Relay::CloseStalled(TimePoint now) {
  for (auto& [number, peer] : peers_) {
    if (!peer.doomed && !peer.output.empty() &&
        (peer.output_bytes > kMostOutputBytes || now - peer.last_read > options_.stall_timeout)) {
      clients_.set_stalled(clients_.stalled() + 1);
      Doom(peer, "does not read its answers");
    }
  }
}

void Relay::WaitForEvents() {
  constexpr std::size_t kOthers = 2;
  std::vector<pollfd> fds;
  std::vector<std::uint64_t> numbers;
  const TimePoint now = steady_clock::now();
  fds.push_back({inbox_.Fd(), POLLIN, 0});
  fds.push_back({stopping_ || now < accept_after_ ? -1 : listener_.Fd(), POLLIN, 0});
  for (const auto& [number, peer] : peers_) {
    const int events = (MayRead(peer) ? POLLIN : 0) | (peer.output.empty() ? 0 : POLLOUT);
    fds.push_back({peer.socket.Get(), static_cast<short>(events), 0});
    numbers.push_back(number);
  }
  const milliseconds wait = stopping_ || now < accept_after_ || now < send_after_ ? kShortWait : kLongestWait;
  if (::poll(fds.data(), fds.size(), static_cast<int>(wait.count())) <= 0) {
    return;
  }
  if (fds[0].revents != 0) {
    inbox_.Drain();
  }
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const short events = fds[i + kOthers].revents;
    Peer& peer = peers_.at(numbers[i]);
    if ((events & POLLOUT) != 0) {
      Flush(peer);
    }
    if ((events & (POLLIN | POLLERR)) != 0 && MayRead(peer)) {
      ReadFrom(numbers[i], peer);
    } else if ((events & (POLLHUP | POLLERR)) != 0) {
      peer.doomed = true;  // nobody is there to hear answers
    }
  }
  if (fds[1].revents != 0) {
    AcceptClients();
  }
}

void Relay::BeginToStop(const std::string& why) {
  stopping_ = true;
  stop_by_ = steady_clock::now() + kWindUp;
  listener_.Close();
  const Error error(ErrorCode::kRelayFailed, why);
  for (auto& [number, job] : std::exchange(again_, {})) {
    FailJob(job, error, ScanOutcome::kError);
  }
  for (auto& [number, peer] : peers_) {
    while (!peer.waiting.empty()) {
      FailJob(peer.waiting.front(), error, ScanOutcome::kError);
      peer.waiting.pop_front();
    }
  }
}

bool Relay::HasWoundUp(TimePoint now) const {
  return now > stop_by_ || (in_flight_.empty() && std::all_of(peers_.begin(), peers_.end(), [](const auto& entry) {
                              return entry.second.output.empty() && entry.second.policies == 0;
                            }));
}

void Relay::Publish(TimePoint now, bool at_once) {
  if (options_.publish && (at_once || now >= next_publish_)) {
    next_publish_ = now + options_.publish_interval;
    options_.publish(MakeStatus());
  }
}

vond_relay::Status Relay::MakeStatus() {
  vond_relay::Status status;
  LookAtDaemon();
  status.set_alive(state_.alive);
  status.set_daemon_pid(state_.pid);
  status.set_uptime(std::chrono::duration<double>(steady_clock::now() - start_).count());
  status.set_restarts(state_.restarts);
  *status.mutable_policy() = state_.policy;
  statistics_.Fill(status);
  std::uint64_t waiting = again_.size();
  for (const auto& [number, peer] : peers_) {
    waiting += peer.waiting.size();
  }
  status.set_waiting(waiting);
  status.set_in_flight(in_flight_.size());
  *status.mutable_clients() = clients_;
  status.mutable_clients()->set_connected(peers_.size());
  status.set_retried(retried_);
  return status;
}

}  // namespace vond::agent
