#include "agent/service_notifier.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "utils/managed_fd.h"

namespace vond::agent {

bool NotifyServiceManager(const std::string& state) {
  const char* const name = std::getenv("NOTIFY_SOCKET");
  const std::string_view path(name == nullptr ? "" : name);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() < 2 || path.size() >= sizeof address.sun_path || (path[0] != '/' && path[0] != '@')) {
    return false;
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  if (path[0] == '@') {
    address.sun_path[0] = '\0';  // an abstract name
  }
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  const auto_resources::ManagedFD fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return fd.IsValid() && ::sendto(fd.Get(), state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                                  reinterpret_cast<const sockaddr*>(&address), length) >= 0;
}

}  // namespace vond::agent
