#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

#include "agent/daemon_process.h"
#include "bench/measurements.h"
#include "korvo_common/proto/KorvoDaemon.pb.h"

namespace vond::bench {
namespace {

using auto_resources::ManagedFD;

constexpr std::size_t kRequests = 20'000;
constexpr std::size_t kInFlight = 64;
constexpr std::size_t kPacketSize = 131072;

// Sends a packet with a descriptor.
void SendPacket(int socket, const std::string& packet, int fd) {
  iovec part{const_cast<char*>(packet.data()), packet.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))]{};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  *reinterpret_cast<int*>(CMSG_DATA(header)) = fd;
  if (::sendmsg(socket, &message, MSG_NOSIGNAL) != static_cast<ssize_t>(packet.size())) {
    throw std::runtime_error("a request could not be sent");
  }
}

std::string ReceivePacket(int socket, std::string& buffer) {
  buffer.resize(kPacketSize);
  const ssize_t size = ::recv(socket, buffer.data(), buffer.size(), 0);
  if (size <= 0) {
    throw std::runtime_error("the other side is gone");
  }
  return buffer.substr(0, static_cast<std::size_t>(size));
}

// Seconds that `kRequests` requests take, kInFlight at a time.
double Pass(int socket, const std::string& packet, int fd) {
  std::string buffer;
  const auto start = std::chrono::steady_clock::now();
  for (std::size_t sent = 0, received = 0; received < kRequests;) {
    if (sent < kRequests && sent - received < kInFlight) {
      SendPacket(socket, packet, fd);
      ++sent;
    } else {
      static_cast<void>(ReceivePacket(socket, buffer));
      ++received;
    }
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The least that anyone can do who takes such requests: receive, close, answer.
[[noreturn]] void EchoUntilEnd(int socket, const std::string& answer) {
  static char buffer[kPacketSize];
  for (;;) {
    iovec part{buffer, sizeof(buffer)};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    if (::recvmsg(socket, &message, MSG_CMSG_CLOEXEC) <= 0) {
      ::_exit(0);
    }
    const cmsghdr* const header = CMSG_FIRSTHDR(&message);
    if (header != nullptr) {
      ::close(*reinterpret_cast<const int*>(CMSG_DATA(header)));
    }
    if (::send(socket, answer.data(), answer.size(), MSG_NOSIGNAL) < 0) {
      ::_exit(1);
    }
  }
}

// A process that answers every packet with `answer`.
class Echo {
 public:
  explicit Echo(const std::string& answer) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
      throw std::runtime_error("socketpair failed");
    }
    ours_.Reset(ends[0]);
    const ManagedFD theirs(ends[1]);
    pid_ = ::fork();
    if (pid_ == 0) {
      ours_.Reset(-1);
      EchoUntilEnd(theirs.Get(), answer);
    }
    if (pid_ < 0) {
      throw std::runtime_error("fork failed");
    }
  }
  Echo(const Echo&) = delete;
  Echo& operator=(const Echo&) = delete;
  ~Echo() {
    ours_.Reset(-1);  // which ends it
    ::waitpid(pid_, nullptr, 0);
  }
  [[nodiscard]] int Socket() const { return ours_.Get(); }

 private:
  ManagedFD ours_;
  pid_t pid_ = -1;
};

}  // namespace

void MeasureEmptyRequests(const Inputs& /*inputs*/, const Extent& extent, Results& results) {
  korvo_daemon::Request request;
  request.mutable_header()->set_id(1);
  request.mutable_generic_data_request();  // a ScanRequest without rule types is one without bytes
  const std::string packet = request.SerializeAsString();
  const ManagedFD file = MakeMemfd("nothing to scan");
  agent::DaemonOptions options;
  options.executable = VOND_PATH;
  agent::DaemonProcess daemon(std::move(options));

  std::string buffer;
  SendPacket(daemon.ChannelFd(), packet, file.Get());
  const std::string answer = ReceivePacket(daemon.ChannelFd(), buffer);
  korvo_daemon::Response response;
  if (!response.ParseFromString(answer) || !response.has_generic_data_response()) {
    throw std::runtime_error("an empty request has another answer than an empty result");
  }
  const Echo echo(answer);
  static_cast<void>(Pass(daemon.ChannelFd(), packet, file.Get()));
  static_cast<void>(Pass(echo.Socket(), packet, file.Get()));
  std::vector<double> ratios;
  std::vector<double> micros;
  for (std::size_t round = 0; round < extent.rounds; ++round) {
    const double echo_seconds = Pass(echo.Socket(), packet, file.Get());
    const double daemon_seconds = Pass(daemon.ChannelFd(), packet, file.Get());
    ratios.push_back(daemon_seconds / echo_seconds);
    micros.push_back(daemon_seconds / kRequests * 1e6);
  }
  results.Add("empty.ratio", "of the time of a bare echo", std::move(ratios));
  results.Add("empty.request", "us", std::move(micros));
}

}  // namespace vond::bench
