#include "vondctl/path_list.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace vond::vondctl {

PathList::PathList(const std::string& name, char separator) : name_(name), separator_(separator) {
  if (name != "-") {
    owned_.Reset(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
    if (!owned_.IsValid()) {
      throw std::system_error(errno, std::generic_category(), name);
    }
    fd_ = owned_.Get();
  }
}

PathList::State PathList::Next(std::string& path) {
  while (true) {
    const std::size_t end = buffer_.find(separator_, taken_);
    if (end != std::string::npos || (at_end_ && taken_ < buffer_.size())) {
      path = buffer_.substr(taken_, end == std::string::npos ? end : end - taken_);
      taken_ = end == std::string::npos ? buffer_.size() : end + 1;
      if (path.empty()) {
        continue;
      }
      return State::kPath;
    }
    if (at_end_) {
      return State::kEnd;
    }
    pollfd readable{fd_, POLLIN, 0};
    if (::poll(&readable, 1, 0) == 0) {
      return State::kNotYet;
    }
    std::array<char, 65536> piece{};
    const ssize_t count = ::read(fd_, piece.data(), piece.size());
    if (count < 0 && errno != EINTR && errno != EAGAIN) {
      throw std::system_error(errno, std::generic_category(), name_);
    }
    at_end_ = count == 0;
    buffer_.erase(0, taken_);
    taken_ = 0;
    buffer_.append(piece.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
  }
}

}  // namespace vond::vondctl
