#include "agent/unix_listener.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace vond::agent {
namespace {

using auto_resources::ManagedFD;

constexpr int kBacklog = 128;
constexpr int kFirstPassedFd = 3;

[[noreturn]] void Fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    Fail(path.empty() ? ENOENT : ENAMETOOLONG, "socket " + path);
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

ManagedFD MakeSocket() {
  ManagedFD fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.IsValid()) {
    Fail(errno, "socket");
  }
  return fd;
}

bool Bind(int fd, const sockaddr_un& address) {
  return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// Removes a socket on which nobody answers; throws for anything else.
void RemoveStale(const std::string& path, const sockaddr_un& address) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    return;  // gone meanwhile
  }
  if (!S_ISSOCK(status.st_mode)) {
    Fail(EEXIST, path + " is no socket and is left alone");
  }
  const ManagedFD probe = MakeSocket();
  if (::connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
      errno != ECONNREFUSED) {
    Fail(EADDRINUSE, "somebody answers at " + path);
  }
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    Fail(errno, "removing the socket that was left at " + path);
  }
}

// The number in an environment variable, -1 if there is none.
long NumberIn(const char* name) {
  const char* const text = std::getenv(name);
  long number = -1;
  if (text != nullptr) {
    const std::string_view view(text);
    const auto [end, error] = std::from_chars(view.begin(), view.end(), number);
    number = error == std::errc() && end == view.end() ? number : -1;
  }
  return number;
}

int SocketOption(int fd, int option) {
  int value = 0;
  socklen_t length = sizeof value;
  return ::getsockopt(fd, SOL_SOCKET, option, &value, &length) == 0 ? value : -1;
}

}  // namespace

UnixListener::UnixListener(const std::string& path, mode_t mode) : socket_(MakeSocket()) {
  const sockaddr_un address = AddressOf(path);
  if (!Bind(socket_.Get(), address)) {
    if (errno != EADDRINUSE) {
      Fail(errno, "socket " + path);
    }
    RemoveStale(path, address);
    if (!Bind(socket_.Get(), address)) {
      Fail(errno, "socket " + path);
    }
  }
  struct stat status {};
  // Nobody can connect before listen(), so the mode is in time.
  if (::chmod(path.c_str(), mode) != 0 || ::lstat(path.c_str(), &status) != 0 ||
      ::listen(socket_.Get(), kBacklog) != 0) {
    const int error = errno;
    ::unlink(path.c_str());
    Fail(error, "socket " + path);
  }
  path_ = path;
  device_ = status.st_dev;
  inode_ = status.st_ino;
}

UnixListener UnixListener::FromServiceManager() {
  if (NumberIn("LISTEN_PID") != ::getpid() || NumberIn("LISTEN_FDS") != 1) {
    Fail(EINVAL, "the service manager has not passed one socket (LISTEN_PID, LISTEN_FDS)");
  }
  if (SocketOption(kFirstPassedFd, SO_DOMAIN) != AF_UNIX || SocketOption(kFirstPassedFd, SO_TYPE) != SOCK_SEQPACKET ||
      SocketOption(kFirstPassedFd, SO_ACCEPTCONN) != 1) {
    Fail(EINVAL,
         "what the service manager has passed is no listening Unix socket of packets (ListenSequentialPacket=)");
  }
  ManagedFD socket(::fcntl(kFirstPassedFd, F_DUPFD_CLOEXEC, kFirstPassedFd + 1));
  if (!socket.IsValid() || ::fcntl(socket.Get(), F_SETFL, O_NONBLOCK) != 0) {
    Fail(errno, "the service manager's socket");
  }
  ::close(kFirstPassedFd);
  ::unsetenv("LISTEN_PID");  // they are not the daemon's
  ::unsetenv("LISTEN_FDS");
  return UnixListener(std::move(socket));
}

UnixListener::UnixListener(UnixListener&& other) noexcept
    : socket_(std::move(other.socket_)),
      path_(std::exchange(other.path_, "")),
      device_(other.device_),
      inode_(other.inode_) {}

UnixListener::~UnixListener() { Close(); }

void UnixListener::Close() noexcept {
  struct stat status {};
  if (!path_.empty() && ::lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_) {
    ::unlink(path_.c_str());
  }
  path_.clear();
  socket_.Reset();
}

PeerIdentity IdentifyPeer(int socket) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
    Fail(errno, "SO_PEERCRED");
  }
  PeerIdentity peer;
  peer.pid = credentials.pid;
  peer.uid = credentials.uid;
  peer.gid = credentials.gid;
  peer.groups.insert(credentials.gid);
  std::vector<gid_t> groups(64);
  length = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
  while (::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length) != 0) {
    if (errno != ERANGE) {
      return peer;  // its own group is known at least
    }
    groups.resize(length / sizeof(gid_t));
  }
  peer.groups.insert(groups.begin(), groups.begin() + static_cast<std::ptrdiff_t>(length / sizeof(gid_t)));
  return peer;
}

bool AccessRule::Admits(const PeerIdentity& peer, uid_t own_uid) const {
  if (peer.uid == own_uid || peer.uid == 0 || (uids.empty() && gids.empty()) || uids.contains(peer.uid)) {
    return true;
  }
  return std::any_of(peer.groups.begin(), peer.groups.end(), [this](gid_t gid) { return gids.contains(gid); });
}

}  // namespace vond::agent
