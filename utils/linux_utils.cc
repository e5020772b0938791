#include "utils/linux_utils.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace korvo::static_pattern_matching_daemon::utils {
namespace {

// The most that one read() moves on Linux (MAX_RW_COUNT).
constexpr std::int64_t kMaxReadSize = 0x7ffff000;

}  // namespace

LinuxUtils::Exception::Exception(const std::string& what_failed, int error)
    : std::runtime_error(what_failed + std::strerror(error)), errno_(error) {}

std::int64_t LinuxUtils::GetFileSize(int fd) {
  const off_t current = ::lseek(fd, 0, SEEK_CUR);
  if (current == -1) {
    throw Exception("lseek() failed, errno: ", errno);
  }
  const off_t size = ::lseek(fd, 0, SEEK_END);
  if (size == -1) {
    throw Exception("lseek() failed, errno: ", errno);
  }
  if (::lseek(fd, current, SEEK_SET) == -1) {
    throw Exception("lseek() failed. Couldn't seek to original offset, errno: ", errno);
  }
  return size;
}

std::string LinuxUtils::ReadFile(int fd) {
  const std::int64_t size = GetFileSize(fd);
  if (size > kMaxReadSize) {
    throw Exception("Failed to read from fd, errno: ", EFBIG);
  }
  std::string content(static_cast<std::size_t>(size), '\0');
  if (::lseek(fd, 0, SEEK_SET) == -1) {
    throw Exception("lseek() failed. errno: ", errno);
  }
  // What is no file may make even a read of nothing wait (inotify), and the next policy with it. Files are always
  // ready.
  pollfd ready{fd, POLLIN, 0};
  if (::poll(&ready, 1, 0) == 0) {
    throw Exception("Failed to read from fd, errno: ", EAGAIN);
  }
  errno = 0;  // a short read sets none; whatever an earlier call left would mislead
  if (::read(fd, content.data(), content.size()) != size) {
    throw Exception("Failed to read from fd, errno: ", errno);
  }
  return content;
}

}  // namespace korvo::static_pattern_matching_daemon::utils
