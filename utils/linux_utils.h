#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace korvo::static_pattern_matching_daemon::utils {

/// Reading of whole files through descriptors that stay the caller's. Stateless; one thread per descriptor, since the
/// file position is the descriptor's.
class LinuxUtils {
 public:
  /// A failed system call: a message that ends in the error's text, and the `errno` of the moment.
  class Exception : public std::runtime_error {
   public:
    Exception(const std::string& what_failed, int error);
    [[nodiscard]] int GetErrno() const noexcept { return errno_; }

   private:
    int errno_;
  };

  /// Size in bytes; the file position stays where it was. Throws Exception.
  [[nodiscard]] static std::int64_t GetFileSize(int fd);

  /// The whole content, read by one read() from the start; the file position ends at the end. Throws Exception, also
  /// for a short read and, before anything is allocated, for a file larger than one read can move.
  [[nodiscard]] static std::string ReadFile(int fd);
};

}  // namespace korvo::static_pattern_matching_daemon::utils
