#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <set>
#include <string>

#include "utils/managed_fd.h"

namespace vond::agent {

/// A Unix SOCK_SEQPACKET socket that listens, and its name in the file system, which goes with the object if it still
/// is this socket's. One thread.
class UnixListener {
 public:
  /// Listens at `path`, with `mode` for the socket's file. One that is there already is replaced if it is a socket on
  /// which nobody answers. Throws std::system_error with a text for people.
  UnixListener(const std::string& path, mode_t mode);
  /// Takes over the socket of the service manager (LISTEN_FDS). Throws std::system_error if there is none.
  [[nodiscard]] static UnixListener FromServiceManager();

  UnixListener(UnixListener&& other) noexcept;
  UnixListener& operator=(UnixListener&&) = delete;
  UnixListener(const UnixListener&) = delete;
  UnixListener& operator=(const UnixListener&) = delete;
  ~UnixListener();

  [[nodiscard]] int Fd() const noexcept { return socket_.Get(); }
  /// Removes the name and stops listening.
  void Close() noexcept;

 private:
  explicit UnixListener(auto_resources::ManagedFD socket) : socket_(std::move(socket)) {}

  auto_resources::ManagedFD socket_;
  std::string path_;  // empty: not ours to remove
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

/// Who is at the other end of a connected Unix socket, as the kernel saw it when the connection was made.
struct PeerIdentity {
  pid_t pid = -1;
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
  std::set<gid_t> groups;
};

/// Throws std::system_error.
[[nodiscard]] PeerIdentity IdentifyPeer(int socket);

/// Who may connect, once the socket's mode has let them: this process's user and root always; others if neither set has
/// anything in it, else if they or one of their groups are named.
struct AccessRule {
  std::set<uid_t> uids;
  std::set<gid_t> gids;
  [[nodiscard]] bool Admits(const PeerIdentity& peer, uid_t own_uid) const;
};

}  // namespace vond::agent
