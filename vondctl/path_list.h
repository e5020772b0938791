#pragma once

#include <unistd.h>

#include <cstddef>
#include <string>

#include "utils/managed_fd.h"

namespace vond::vondctl {

/// Reads paths from a file or a pipe, one after the other, holding no more than one piece of it. One thread.
class PathList {
 public:
  enum class State {
    kPath,    ///< `path` is the next one
    kNotYet,  ///< the pipe has nothing at the moment
    kEnd,
  };

  /// Reads from `name`, "-" for standard input; paths end in `separator`, a newline or a zero byte. Throws
  /// std::system_error.
  PathList(const std::string& name, char separator);

  /// Takes the next path; empty ones are passed over. Never waits for a pipe. Throws std::system_error.
  [[nodiscard]] State Next(std::string& path);

 private:
  std::string name_;
  auto_resources::ManagedFD owned_;
  int fd_ = STDIN_FILENO;
  char separator_;
  std::string buffer_;
  std::size_t taken_ = 0;  // of buffer_
  bool at_end_ = false;
};

}  // namespace vond::vondctl
