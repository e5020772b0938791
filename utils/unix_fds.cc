#include "utils/unix_fds.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace korvo::static_pattern_matching_daemon {
namespace {

// Storage for one control message, aligned for its header.
class ControlBuffer {
 public:
  explicit ControlBuffer(std::size_t descriptors)
      : size_(CMSG_SPACE(descriptors * sizeof(int))), words_(size_ / sizeof(cmsghdr) + 1) {}

  void* Data() { return words_.data(); }
  [[nodiscard]] std::size_t Size() const { return size_; }

 private:
  std::size_t size_;
  std::vector<cmsghdr> words_;  // zeroed
};

// A message of `data`, unless that points nowhere, and `control`, both of which must outlive it.
msghdr MakeMessage(iovec& data, ControlBuffer& control) {
  msghdr message{};
  if (data.iov_base != nullptr) {
    message.msg_iov = &data;
    message.msg_iovlen = 1;
  }
  message.msg_control = control.Data();
  message.msg_controllen = control.Size();
  return message;
}

}  // namespace

int unix_send_fds(int sock, const int* fds, std::size_t count, const void* buf, std::size_t len, int extra_flags) {
  if (fds == nullptr || count == 0 || sock < 0) {
    errno = EINVAL;
    return -1;
  }
  for (std::size_t i = 0; i < count; ++i) {
    if (fds[i] < 0 || ::fcntl(fds[i], F_GETFD) < 0) {
      errno = EINVAL;
      return -1;
    }
  }

  ControlBuffer control(count);
  iovec data{const_cast<void*>(buf), len};
  msghdr message = MakeMessage(data, control);
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_len = CMSG_LEN(count * sizeof(int));
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  std::memcpy(CMSG_DATA(header), fds, count * sizeof(int));

  return ::sendmsg(sock, &message, MSG_DONTWAIT | extra_flags) < 0 ? -1 : 0;
}

int unix_receive_fds(int sock, int* fds, std::size_t max, void* buf, std::size_t* len) {
  if (fds == nullptr || max == 0 || sock < 0) {
    errno = EINVAL;
    return -1;
  }

  ControlBuffer control(max);
  iovec data{buf, *len};
  msghdr message = MakeMessage(data, control);

  const ssize_t received = ::recvmsg(sock, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (received < 0) {
    return -1;
  }
  if (message.msg_controllen > control.Size()) {
    errno = EIO;
    return -1;
  }

  int count = 0;
  const cmsghdr* const header = CMSG_FIRSTHDR(&message);
  if (header != nullptr && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
    const std::size_t arrived = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    if (header->cmsg_len > CMSG_LEN(max * sizeof(int))) {
      // An odd `max` leaves padding in the buffer, in which the kernel installs one descriptor more than was asked for.
      for (std::size_t i = 0; i < arrived; ++i) {
        int fd = -1;
        std::memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof(int));
        ::close(fd);
      }
      errno = EBADMSG;
      return -1;
    }
    std::memcpy(fds, CMSG_DATA(header), arrived * sizeof(int));
    count = static_cast<int>(arrived);
  }
  *len = static_cast<std::size_t>(received);
  return count;
}

}  // namespace korvo::static_pattern_matching_daemon
