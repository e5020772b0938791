#include "agent/client.h"

#include <fcntl.h>
#include <google/protobuf/util/json_util.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

#include "agent/relay_protocol.h"
#include "utils/unix_fds.h"

namespace vond::agent {
namespace {

using auto_resources::ManagedFD;
using korvo::utils::MutexLock;
using korvo_daemon::Request;
using static_pattern_matching_proto::ScanRequest;
using static_pattern_matching_proto::UserConfigData;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kLongestTimeout = std::chrono::hours(24 * 365);
constexpr milliseconds kStartTimeout = std::chrono::seconds(60);
constexpr milliseconds kReapTimeout{500};     // for a daemon that has closed its channel
constexpr milliseconds kLogLagTimeout{200};   // for lines that the daemon wrote before it answered or died
constexpr std::uint32_t kLeastLogLevel = 3;   // lets ERROR through
constexpr std::uint32_t kMostLogLevel = 100;  // the daemon's level is signed; anything from 8 on is everything
constexpr std::size_t kMaxPolicyErrors = 40;
constexpr int kMaxPacketsAtOnce = 64;  // before the deadlines are looked at again

// Starts of lines of the daemon's log.
constexpr std::string_view kErrorLine = "ERROR ";
constexpr std::string_view kLostAnswerLine = "ERROR Exception in thread pool: ";
constexpr std::string_view kPolicyFailedLine = "ERROR ProcessConfig failed with error: ";
constexpr std::string_view kScanErrorLines[] = {"ERROR ScanFile failed", "ERROR ProcessFileScan failed"};

std::string ErrnoText(int error) { return std::generic_category().message(error); }

Client::Deadline After(milliseconds timeout) { return steady_clock::now() + std::min(timeout, kLongestTimeout); }

// For poll; rounded up, so that the deadline has passed when poll times out.
int PollTimeout(Client::Deadline deadline) {
  constexpr milliseconds kLongestPoll = std::chrono::hours(1);
  const Client::Deadline now = steady_clock::now();
  if (deadline <= now) {
    return 0;
  }
  return static_cast<int>(std::min(std::chrono::ceil<milliseconds>(deadline - now), kLongestPoll).count());
}

std::string DescriptorName(int fd) { return "descriptor " + std::to_string(fd); }

// For a descriptor that a system call has just refused.
Error NotOpen(int fd) {
  const int error = errno;
  return {ErrorCode::kBadDescriptor, DescriptorName(fd) + ": " + ErrnoText(error), error};
}

// Serializes `request` into `packet`, or says what it and its descriptors would do on the other side.
std::optional<Error> Pack(const Request& request, const std::vector<int>& fds, std::string& packet) {
  if (request.ByteSizeLong() > kMaxPacketSize) {
    return Error(ErrorCode::kPacketTooLarge, "the request has " + std::to_string(request.ByteSizeLong()) +
                                                 " bytes, and vond takes at most " + std::to_string(kMaxPacketSize));
  }
  if (fds.size() > kMaxDescriptors) {
    return Error(ErrorCode::kTooManyDescriptors, "the request has " + std::to_string(fds.size()) +
                                                     " descriptors, and vond takes at most " +
                                                     std::to_string(kMaxDescriptors));
  }
  for (const int fd : fds) {
    if (::fcntl(fd, F_GETFD) < 0) {
      return NotOpen(fd);
    }
  }
  // A packet that does not parse ends the daemon, and text that is not UTF-8 serializes but does not parse.
  if (!request.SerializeToString(&packet) || !Request().ParseFromString(packet)) {
    return Error(ErrorCode::kSendFailed, "the request holds text that is not valid UTF-8, which vond does not take");
  }
  return std::nullopt;
}

const char* FileKind(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFDIR:
      return "a directory";
    case S_IFIFO:
      return "a pipe";
    case S_IFSOCK:
      return "a socket";
    case S_IFLNK:
      return "a symbolic link";
    case S_IFBLK:
    case S_IFCHR:
      return "a device";
    default:
      return "of no kind that has content";  // epoll, eventfd and the like
  }
}

Request ToRequest(const ScanRequest& scan) {
  Request request;
  scan.SerializeToString(request.mutable_generic_data_request()->mutable_data());
  return request;
}

ScanAnswer ToScanAnswer(Answer answer) {
  ScanAnswer scan_answer{std::move(answer.error), {}};
  if (!scan_answer.error && answer.response.has_generic_result()) {
    scan_answer.error = ErrorIn(answer.response.generic_result());
  } else if (!scan_answer.error &&
             (!answer.response.has_generic_data_response() ||
              !scan_answer.response.ParseFromString(answer.response.generic_data_response().data()))) {
    scan_answer.error.emplace(ErrorCode::kBadAnswer, "vond's answer to a scan is not the result of a scan");
    scan_answer.response.Clear();
  }
  return scan_answer;
}

// The policy's document as it is to be sent.
std::string PolicyJson(const Policy& policy) {
  if (!policy.json.empty()) {
    return policy.json;
  }
  std::string json;
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  const auto status = google::protobuf::util::MessageToJsonString(policy.document, &json, options);
  if (!status.ok()) {
    throw Error(ErrorCode::kPolicyRefused, "the policy cannot be written as JSON: " + status.ToString());
  }
  return json;
}

// What a daemon said before it ended, if it ended badly.
std::string LastWords(DaemonProcess& process, const ExitStatus& status) {
  std::string words;
  for (const std::string& line : process.RecentOutput(OutputStream::kStderr)) {
    if (line == "Dumping backtrace") {
      break;
    }
    words = line;
  }
  if (words.empty() && !status.signaled) {
    const std::vector<std::string> log = process.RecentOutput(OutputStream::kStdout);
    constexpr std::size_t kLast = 3;  // an older error is another story
    for (std::size_t i = log.size() - std::min(log.size(), kLast); i < log.size(); ++i) {
      if (log[i].starts_with(kErrorLine)) {
        words = log[i];
      }
    }
  }
  return words;
}

std::string DescribeEnd(DaemonProcess& process) {
  const std::optional<ExitStatus> status = process.Wait(kReapTimeout);
  if (!status || status->status < 0) {
    return "vond has closed its channel";
  }
  std::string text = "vond exited with status " + std::to_string(status->status);
  if (status->signaled) {
    const char* const name = ::sigabbrev_np(status->signal);
    text = "vond was killed by signal " + std::to_string(status->signal) +
           (name == nullptr ? "" : std::string(" (SIG") + name + ")");
  }
  process.WaitForOutputEnd(kLogLagTimeout);
  const std::string words = LastWords(process, *status);
  return words.empty() ? text : text + "; its last words: " + words;
}

// What a line of the log that begins with kLostAnswerLine means for the request.
Error LostAnswerError(const std::string& line, std::size_t socket_buffer_bytes) {
  const std::string_view reason = std::string_view(line).substr(kLostAnswerLine.size());
  for (const int error : {EMSGSIZE, ENOBUFS}) {  // past the buffer, past what the kernel allocates in one piece
    // The daemon never leaves the "C" locale; this process may have.
    if (reason == std::string("Failed to send response: ") + ::strerrordesc_np(error)) {
      return {ErrorCode::kAnswerTooLarge,
              "the answer is too large for vond's socket, whose buffer has " + std::to_string(socket_buffer_bytes) +
                  " bytes; its log says: " + line,
              error};
    }
  }
  return {ErrorCode::kBadAnswer, "vond could not answer; its log says: " + line};
}

}  // namespace

std::optional<Error> CheckScannable(int fd, std::uint32_t max_sample_size) {
  struct stat status {};
  struct statfs filesystem {};
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fstat(fd, &status) != 0) {
    return NotOpen(fd);
  }
  if (!S_ISREG(status.st_mode)) {
    return Error(ErrorCode::kNotRegularFile,
                 DescriptorName(fd) + " is " + FileKind(status.st_mode) + ", and only regular files can be scanned");
  }
  if (status.st_size == 0 && ::fstatfs(fd, &filesystem) == 0 && filesystem.f_type == PROC_SUPER_MAGIC) {
    return Error(ErrorCode::kNotRegularFile,
                 DescriptorName(fd) + " is a file of /proc, whose content only comes to be by reading");
  }
  if ((flags & O_PATH) != 0 || (flags & O_ACCMODE) == O_WRONLY) {
    return Error(ErrorCode::kBadDescriptor, DescriptorName(fd) + " is not open for reading", EBADF);
  }
  if (max_sample_size != 0 && static_cast<std::uint64_t>(status.st_size) > max_sample_size) {
    return Error(ErrorCode::kFileTooLarge, DescriptorName(fd) + ": the file has " + std::to_string(status.st_size) +
                                               " bytes, and the policy's max_sample_size is " +
                                               std::to_string(max_sample_size));
  }
  return std::nullopt;
}

std::uint32_t MaxSampleSize(const Policy& policy) {
  if (policy.json.empty()) {
    return policy.document.max_sample_size();
  }
  UserConfigData document;
  google::protobuf::util::JsonParseOptions options;
  options.ignore_unknown_fields = true;
  // Whether the document is good is the daemon's to say.
  return google::protobuf::util::JsonStringToMessage(policy.json, &document, options).ok() ? document.max_sample_size()
                                                                                           : 0;
}

Client::Client(DaemonOptions options, std::function<void()> on_end)
    : user_on_output_(std::move(options.on_output)), on_end_(std::move(on_end)) {
  options.on_output = [this](OutputStream stream, const std::string& line) { OnOutputLine(stream, line); };
  const bool sandbox_required = options.sandbox.mode == SandboxMode::kRequired;
  Start([&] { process_ = std::make_unique<DaemonProcess>(std::move(options)); });
  if (sandbox_required) {
    if (const std::optional<Error> error = CheckSandbox()) {
      Stop();
      throw Error(*error);
    }
  }
}

Client::Client(ManagedFD connection) : connection_(std::move(connection)) {
  Start([] {});
}

void Client::Start(const std::function<void()>& open_channel) {
  wake_.Reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!wake_.IsValid()) {
    throw Error(ErrorCode::kStartFailed, "starting vond: eventfd: " + ErrnoText(errno), errno);
  }
  open_channel();
  try {
    receiver_ = std::thread(&Client::ReceiveLoop, this);
  } catch (const std::system_error& e) {
    throw Error(ErrorCode::kStartFailed, std::string("starting vond: ") + e.what(), e.code().value());
  }
}

Client::~Client() { Stop(); }

void Client::Stop() {
  {
    const MutexLock lock(mutex_);
    stop_ = true;
  }
  Wake();
  receiver_.join();
}

std::optional<Error> Client::CheckSandbox() {
  Request request;
  request.mutable_stats();
  const Answer answer = Send(request, {}, kStartTimeout);  // the daemon answers once it is inside
  if (answer.error) {
    return Error(ErrorCode::kStartFailed, std::string("starting vond in a sandbox: ") + answer.error->what());
  }
  if (!IsConfined(process_->Pid())) {
    return Error(ErrorCode::kStartFailed, "starting vond in a sandbox: it has not entered one");
  }
  return std::nullopt;
}

void Client::SendAsync(Request request, const std::vector<int>& fds, Deadline deadline, Callback callback) {
  SendWaiting(std::move(request), fds, deadline, std::move(callback), !OnReceiver());
}

void Client::SendNowAsync(Request request, const std::vector<int>& fds, Deadline deadline, Callback callback) {
  SendWaiting(std::move(request), fds, deadline, std::move(callback), false);
}

void Client::SendWaiting(Request request, const std::vector<int>& fds, Deadline deadline, Callback callback,
                         bool may_wait) {
  std::uint64_t id = 0;
  {
    const MutexLock lock(mutex_);
    id = next_id_++;
  }
  request.mutable_header()->set_id(id);
  std::string packet;
  if (const auto error = Pack(request, fds, packet)) {
    Fail(std::move(callback), *error);
    return;
  }
  // Pending before it is sent, or its answer could come first.
  if (Register(id, deadline, std::move(callback), may_wait)) {
    Transmit(id, packet, fds, deadline, may_wait);
  }
}

Answer Client::Send(Request request, const std::vector<int>& fds, milliseconds timeout) {
  if (OnReceiver()) {
    return {Error(ErrorCode::kSendFailed, "a callback cannot wait for an answer"), {}};
  }
  const auto promise = std::make_shared<std::promise<Answer>>();
  SendAsync(std::move(request), fds, After(timeout),
            [promise](Answer answer) { promise->set_value(std::move(answer)); });
  return promise->get_future().get();
}

void Client::ScanAsync(int fd, const ScanRequest& request, Deadline deadline, ScanCallback callback) {
  Callback wrapped = [callback = std::move(callback)](Answer answer) { callback(ToScanAnswer(std::move(answer))); };
  std::uint32_t max_sample_size = 0;
  {
    const MutexLock lock(mutex_);
    max_sample_size = max_sample_size_;
  }
  if (const auto error = CheckScannable(fd, max_sample_size)) {
    Fail(std::move(wrapped), *error);
    return;
  }
  SendAsync(ToRequest(request), {fd}, deadline, std::move(wrapped));
}

ScanAnswer Client::Scan(int fd, const ScanRequest& request, milliseconds timeout) {
  if (OnReceiver()) {
    return {Error(ErrorCode::kSendFailed, "a callback cannot wait for an answer"), {}};
  }
  const auto promise = std::make_shared<std::promise<ScanAnswer>>();
  ScanAsync(fd, request, After(timeout), [promise](ScanAnswer answer) { promise->set_value(std::move(answer)); });
  return promise->get_future().get();
}

Request PolicyRequest(const Policy& policy) {
  Request request;
  korvo_daemon::Config& config = *request.mutable_config();
  config.set_log_level(std::clamp(policy.log_level, kLeastLogLevel, kMostLogLevel));
  config.mutable_user_config()->set_data(PolicyJson(policy));
  return request;
}

void Client::ApplyPolicy(const Policy& policy, milliseconds timeout) {
  if (OnReceiver()) {
    throw Error(ErrorCode::kSendFailed, "a callback cannot wait for an answer");
  }
  for (const int fd : policy.rule_set_fds) {
    // A device or pipe would be read as a rule set without rules.
    if (const auto error = CheckScannable(fd, 0)) {
      throw Error(*error);
    }
  }
  Request request = PolicyRequest(policy);
  const std::uint32_t max_sample_size = MaxSampleSize(policy);

  const MutexLock one_at_a_time(policy_mutex_);
  {
    const MutexLock lock(mutex_);
    policy_errors_.clear();
  }
  const Answer answer = Send(std::move(request), policy.rule_set_fds, timeout);
  if (answer.error) {
    throw Error(*answer.error);
  }
  if (!answer.response.has_config_result()) {
    throw Error(ErrorCode::kBadAnswer, "vond's answer to a policy is not its verdict on it");
  }
  if (!answer.response.config_result().success()) {
    const std::string reason = process_ ? "its log says: " + CollectPolicyErrors() : "the relay's messages say why";
    throw Error(ErrorCode::kPolicyRefused, "vond refused the policy, and its former one stays in force; " + reason);
  }
  const MutexLock lock(mutex_);
  max_sample_size_ = max_sample_size;
}

std::string Client::CollectPolicyErrors() {
  // The lines were written before the answer, but come by another way.
  const Deadline deadline = After(kLogLagTimeout);
  while (true) {
    {
      const MutexLock lock(mutex_);
      const bool complete = std::any_of(policy_errors_.begin(), policy_errors_.end(),
                                        [](const std::string& line) { return line.starts_with(kPolicyFailedLine); });
      if (complete || steady_clock::now() > deadline) {
        std::string text;
        for (const std::string& line : policy_errors_) {
          text += (text.empty() ? "" : "; ") + line;
        }
        return text.empty() ? "nothing" : text;
      }
    }
    std::this_thread::sleep_for(milliseconds(2));
  }
}

std::size_t Client::InFlight() {
  const MutexLock lock(mutex_);
  return pending_.size();
}

bool Client::IsAlive() {
  const MutexLock lock(mutex_);
  return !dead_;
}

std::string Client::WhyDead() {
  const MutexLock lock(mutex_);
  return death_;
}

void Client::Abandon() {
  if (process_) {
    process_->Kill(SIGKILL);
  } else {
    ::shutdown(connection_.Get(), SHUT_RDWR);
  }
}

std::vector<std::string> Client::RecentLog() {
  return process_ ? process_->RecentOutput(OutputStream::kStdout) : std::vector<std::string>{};
}

void Client::Wake() { ::eventfd_write(wake_.Get(), 1); }

void Client::Fail(Callback callback, const Error& error) {
  const MutexLock lock(mutex_);
  ended_.push_back({std::move(callback), {error, {}}});
  Wake();
}

bool Client::Register(std::uint64_t id, Deadline deadline, Callback callback, bool may_wait) {
  const MutexLock lock(mutex_);
  while (!dead_ && pending_.size() >= kMaxInFlight && may_wait && steady_clock::now() < deadline) {
    window_.wait_until(mutex_, deadline);
  }
  std::optional<Error> error;
  if (dead_) {
    error.emplace(ErrorCode::kDaemonDied, death_);
  } else if (steady_clock::now() >= deadline) {
    error.emplace(ErrorCode::kDeadlineExceeded, "not sent: the deadline passed while others were with vond");
  } else if (pending_.size() >= kMaxInFlight) {
    error.emplace(ErrorCode::kSendFailed,
                  "not sent: " + std::to_string(kMaxInFlight) + " others are with vond, and a callback cannot wait",
                  EAGAIN);
  }
  if (error) {
    ended_.push_back({std::move(callback), {*error, {}}});
    Wake();
    return false;
  }
  pending_.emplace(id, Pending{deadline, std::move(callback)});
  if (deadline < next_look_) {
    Wake();
  }
  return true;
}

void Client::Transmit(std::uint64_t id, const std::string& packet, const std::vector<int>& fds, Deadline deadline,
                      bool may_wait) {
  const int channel = ChannelFd();
  while (true) {
    // One packet is one call, so that senders need no lock among themselves.
    const bool sent = fds.empty()
                          ? ::send(channel, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0
                          : korvo::static_pattern_matching_daemon::unix_send_fds(
                                channel, fds.data(), fds.size(), packet.data(), packet.size(), MSG_NOSIGNAL) == 0;
    if (sent) {
      return;
    }
    const int error = errno;
    if (error == EPIPE || error == ECONNRESET) {
      return;  // the receiver meets the same end and gives it to all that is pending, this request too
    }
    if (error == EAGAIN) {
      pollfd writable{channel, POLLOUT, 0};
      if (!may_wait) {
        Withdraw(id, Error(ErrorCode::kSendFailed, "not sent: the socket is full, and a callback cannot wait", error));
        return;
      }
      if (::poll(&writable, 1, PollTimeout(deadline)) == 0 && steady_clock::now() >= deadline) {
        Withdraw(id, Error(ErrorCode::kDeadlineExceeded, "not sent: vond has not read for too long", error));
        return;
      }
    } else if (error != EINTR) {
      Withdraw(id, Error(ErrorCode::kSendFailed,
                         "sending " + std::to_string(packet.size()) + " bytes and " + std::to_string(fds.size()) +
                             " descriptors to vond: " + ErrnoText(error),
                         error));
      return;
    }
  }
}

void Client::Withdraw(std::uint64_t id, const Error& error) {
  const MutexLock lock(mutex_);
  EndPending(id, {error, {}});
  Wake();
}

void Client::ReceiveLoop() {
  std::string buffer;
  std::array<pollfd, 2> fds{pollfd{ChannelFd(), POLLIN, 0}, pollfd{wake_.Get(), POLLIN, 0}};
  while (true) {
    std::vector<Ended> ended;
    Deadline next_look;
    {
      const MutexLock lock(mutex_);
      if (stop_) {
        EndAllPending("the client has been closed");
      }
      EndOverdue();
      ended.swap(ended_);
      if (ended.empty() && stop_) {
        return;
      }
      next_look = next_look_;
    }
    for (Ended& end : ended) {
      end.callback(std::move(end.answer));
    }
    if (!ended.empty()) {
      continue;  // that may have taken its time
    }
    if (::poll(fds.data(), fds.size(), PollTimeout(next_look)) <= 0) {
      continue;
    }
    if (fds[1].revents != 0) {
      eventfd_t count = 0;
      ::eventfd_read(wake_.Get(), &count);
    }
    if (fds[0].fd >= 0 && fds[0].revents != 0 && !ReceivePackets(buffer)) {
      fds[0].fd = -1;
      TakeEndOfDaemon();
    }
  }
}

bool Client::ReceivePackets(std::string& buffer) {
  const int channel = ChannelFd();
  for (int packets = 0; packets < kMaxPacketsAtOnce; ++packets) {
    const ssize_t size = ::recv(channel, nullptr, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
    if (size > 0) {
      buffer.resize(static_cast<std::size_t>(size));
      if (::recv(channel, buffer.data(), buffer.size(), MSG_DONTWAIT) == size) {
        TakePacket(buffer);
        continue;
      }
    } else if (size < 0 && errno == ECONNRESET) {
      continue;  // told once, by a daemon that left requests unread; its last answers still follow
    }
    return size < 0 && (errno == EAGAIN || errno == EINTR);
  }
  return true;
}

void Client::TakePacket(const std::string& packet) {
  Answer answer;
  const bool parsed = answer.response.ParseFromString(packet);
  const std::uint64_t id = answer.response.header().id();
  const MutexLock lock(mutex_);
  if (parsed) {
    EndPending(id, std::move(answer));
  } else {
    NoteLostAnswer(Error(ErrorCode::kBadAnswer, "vond's answer cannot be parsed"));
  }
}

void Client::TakeEndOfDaemon() {
  const std::string how = process_ ? DescribeEnd(*process_) : "the relay has closed the connection";
  {
    const MutexLock lock(mutex_);
    EndAllPending(how);
  }
  if (on_end_) {
    on_end_();
  }
}

void Client::OnOutputLine(OutputStream stream, const std::string& line) {
  if (stream == OutputStream::kStdout && line.starts_with(kErrorLine)) {
    const bool of_a_scan = std::any_of(std::begin(kScanErrorLines), std::end(kScanErrorLines),
                                       [&line](std::string_view start) { return line.starts_with(start); });
    const MutexLock lock(mutex_);
    if (line.starts_with(kLostAnswerLine)) {
      if (!pending_.empty()) {
        NoteLostAnswer(LostAnswerError(line, process_->SendBufferBytes()));
        Wake();
      }
    } else if (!of_a_scan && policy_errors_.size() < kMaxPolicyErrors) {
      policy_errors_.push_back(line);
    }
  }
  if (user_on_output_) {
    user_on_output_(stream, line);
  }
}

void Client::EndPending(std::uint64_t id, Answer answer) {
  const auto it = pending_.find(id);
  if (it == pending_.end()) {
    return;
  }
  if (it->second.callback) {
    ended_.push_back({std::move(it->second.callback), std::move(answer)});
  }
  pending_.erase(it);
  window_.notify_all();
  suspects_.erase(id);
  ResolveLostAnswers();
}

void Client::EndAllPending(const std::string& why) {
  dead_ = true;
  death_ = why;
  for (auto& [id, pending] : pending_) {
    if (pending.callback) {
      ended_.push_back({std::move(pending.callback), {Error(ErrorCode::kDaemonDied, why), {}}});
    }
  }
  pending_.clear();
  suspects_.clear();
  lost_answers_ = 0;
  window_.notify_all();
}

void Client::EndOverdue() {
  const Deadline now = steady_clock::now();
  next_look_ = Deadline::max();
  for (auto& [id, pending] : pending_) {
    if (!pending.callback) {
      continue;
    }
    if (pending.deadline > now) {
      next_look_ = std::min(next_look_, pending.deadline);
      continue;
    }
    // Stays pending without its callback: the daemon has it all the same, and its late answer is dropped.
    ended_.push_back(
        {std::exchange(pending.callback, nullptr),
         {Error(ErrorCode::kDeadlineExceeded, "vond has not answered in time and may still be at work"), {}}});
  }
}

// The daemon says in its log that it has dropped an answer, but not whose. It says so after it had the request, and a
// request stays in pending_ until it is answered, withdrawn or found lost; so the one meant is among those pending when
// the line arrives, however late that is. All of these become suspects. Each either leaves the set, because its answer
// arrives (before or after the line makes no difference) or because it was never sent, or has lost its answer too.
// Hence suspects_ always holds the lost_answers_ requests that the lines so far stand for, and when it holds no more
// than that, it is exactly them. A second line in between adds what has become pending since. The window bounds the
// wait: once every request in it is lost, the numbers agree.
void Client::NoteLostAnswer(const Error& error) {
  ++lost_answers_;
  lost_error_ = error;
  for (const auto& [id, pending] : pending_) {
    suspects_.insert(id);
  }
  ResolveLostAnswers();
}

void Client::ResolveLostAnswers() {
  if (lost_answers_ == 0 || suspects_.size() > lost_answers_) {
    return;
  }
  for (const std::uint64_t id : suspects_) {
    const auto it = pending_.find(id);
    if (it->second.callback) {
      ended_.push_back({std::move(it->second.callback), {lost_error_, {}}});
    }
    pending_.erase(it);
  }
  suspects_.clear();
  lost_answers_ = 0;
  window_.notify_all();
}

}  // namespace vond::agent
