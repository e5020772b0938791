#include "fuzz/daemon_harness.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <set>

#include "fuzz/fuzz_support.h"
#include "korvo_common/proto/KorvoDaemon.pb.h"
#include "static_pattern_matching/json_conversion.h"
#include "utils/log.h"
#include "utils/unix_fds.h"

// The daemon's way out when its reader has stopped. Without this the process would end in peace, with status 0.
[[noreturn]] void EndProcess(int status) __asm__("_exit");
[[noreturn]] void EndProcess(int /*status*/) {
  vond::fuzz::Require(false, "the daemon goes on reading");
  std::abort();
}

namespace vond::fuzz {
namespace {

using korvo_daemon::Request;
using korvo_daemon::Response;

std::size_t CountOpenDescriptors() {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

bool MayScanForLong(const Request& request) {
  static_pattern_matching_proto::UserConfigData document;
  return request.has_config() &&
         korvo::static_pattern_matching_daemon::JsonToMessage(request.config().user_config().data(), document) == 0 &&
         document.rule_sets_size() > 0 &&
         (document.yara_timeout_in_seconds() != 1 || document.yara_retries_on_match() > 3);
}

std::string ExpectedAnswer(const Request& request) {
  int kind = Response::DATA_NOT_SET;
  switch (request.data_case()) {
    case Request::kConfig:
      kind = Response::kConfigResult;
      break;
    case Request::kStats:
      kind = Response::kStats;
      break;
    case Request::kGenericDataRequest:
      kind = Response::kGenericDataResponse;
      break;
    default:
      break;
  }
  return std::to_string(kind) + " " + request.header().SerializeAsString();
}

}  // namespace

DaemonHarness& DaemonHarness::ForNextInput() {
  static auto* const harness = new DaemonHarness;
  harness->open_descriptors_ = CountOpenDescriptors();
  return *harness;
}

DaemonHarness::DaemonHarness() : buffer_(1U << 18) {
  SetUp();
  std::array<int, 2> ends{};
  constexpr timeval kTimeout{20, 0};
  Require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) == 0 &&
              ::setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &kTimeout, sizeof(kTimeout)) == 0,
          "a socket pair can be made");
  peer_.Reset(ends[0]);
  channel_ = new korvo::static_pattern_matching_daemon::IpcChannel(ends[1]);
  // libFuzzer's timer is for this thread; the daemon's, like its pool's, would take an interrupted call for a failure.
  sigset_t alarm;
  ::sigemptyset(&alarm);
  ::sigaddset(&alarm, SIGALRM);
  ::pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
  daemon_ = new korvo::static_pattern_matching_daemon::StaticPatternMatchingDaemon(*channel_);
  ::pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
}

void DaemonHarness::Serve(std::vector<Packet> packets) {
  korvo::utils::SetLogLevel(0);
  std::multiset<std::string> expected;
  for (const Packet& packet : packets) {
    Request request;
    if (!request.ParseFromString(packet.bytes) || (packet.bytes.empty() && packet.fds.empty()) ||
        MayScanForLong(request)) {
      continue;
    }
    expected.insert(ExpectedAnswer(request));
    Send(packet.bytes, packet.fds);
  }
  packets.clear();

  while (!expected.empty()) {
    const auto found = expected.find(ReceiveAnswer());
    Require(found != expected.end(), "an answer is one that was asked for");
    expected.erase(found);
  }

  Request stats;
  stats.mutable_header()->set_id(++last_id_);
  stats.mutable_stats();
  Send(stats.SerializeAsString(), {});
  Require(ReceiveAnswer() == ExpectedAnswer(stats), "stats are answered, and nothing is answered twice");

  // A request's descriptors are closed after its answer.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (CountOpenDescriptors() != open_descriptors_) {
    Require(std::chrono::steady_clock::now() < deadline, "every descriptor is closed");
    ::sched_yield();
  }
}

void DaemonHarness::Send(const std::string& bytes, const std::vector<auto_resources::ManagedFD>& fds) {
  std::vector<int> numbers;
  for (const auto_resources::ManagedFD& fd : fds) {
    numbers.push_back(fd.Get());
  }
  using korvo::static_pattern_matching_daemon::unix_send_fds;
  while ((numbers.empty()
              ? ::send(peer_.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT)
              : unix_send_fds(peer_.Get(), numbers.data(), numbers.size(), bytes.data(), bytes.size())) < 0) {
    Require(errno == EAGAIN, "a packet can be sent");
    ::sched_yield();
  }
}

std::string DaemonHarness::ReceiveAnswer() {
  ssize_t size = -1;
  do {
    size = ::recv(peer_.Get(), buffer_.data(), buffer_.size(), 0);
  } while (size < 0 && errno == EINTR);
  Require(size >= 0, "an answer comes within 20 seconds");
  Response response;
  Require(response.ParseFromArray(buffer_.data(), static_cast<int>(size)), "an answer parses");
  if (response.has_generic_data_response()) {
    static_pattern_matching_proto::ScanResponse scan_response;
    Require(scan_response.ParseFromString(response.generic_data_response().data()), "a scan's answer parses");
  }
  return std::to_string(static_cast<int>(response.data_case())) + " " + response.header().SerializeAsString();
}

}  // namespace vond::fuzz
