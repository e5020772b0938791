#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace auto_resources {

/// Owns one file descriptor; -1 means none. Movable, not copyable. One thread at a time.
/// The destructor closes the descriptor and keeps `errno`, so that unwinding never disturbs an error being reported;
/// a failed close is ignored.
class ManagedFD {
 public:
  ManagedFD() = default;
  /// Takes ownership of `fd`.
  explicit ManagedFD(int fd) noexcept : fd_(fd) {}

  ManagedFD(const ManagedFD&) = delete;
  ManagedFD& operator=(const ManagedFD&) = delete;
  ManagedFD(ManagedFD&& other) noexcept : fd_(other.Release()) {}
  ManagedFD& operator=(ManagedFD&& other) noexcept {
    if (this != &other) {
      Reset(other.Release());
    }
    return *this;
  }

  virtual ~ManagedFD() { Reset(); }

  /// The descriptor, still owned by this object.
  [[nodiscard]] int Get() const noexcept { return fd_; }
  [[nodiscard]] bool IsValid() const noexcept { return fd_ >= 0; }

  /// Gives the descriptor up to the caller.
  [[nodiscard]] int Release() noexcept { return std::exchange(fd_, -1); }

  /// Closes what is held and takes ownership of `fd`.
  void Reset(int fd = -1) noexcept {
    const int old = std::exchange(fd_, fd);
    if (old >= 0) {
      const int saved_errno = errno;
      ::close(old);
      errno = saved_errno;
    }
  }

 private:
  int fd_ = -1;
};

}  // namespace auto_resources
