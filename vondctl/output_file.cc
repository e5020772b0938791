#include "vondctl/output_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include "utils/managed_fd.h"
#include "vondctl/file_replacement.h"
#include "vondctl/interrupt.h"

namespace vond::vondctl {
namespace {

using auto_resources::ManagedFD;

void WriteInPlace(const std::string& path, std::string_view content) {
  const ManagedFD fd(::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));
  while (fd.IsValid() && !content.empty()) {
    const ssize_t count = ::write(fd.Get(), content.data(), content.size());
    if (count < 0 && errno != EINTR) {
      break;
    }
    content.remove_prefix(count < 0 ? 0 : static_cast<std::size_t>(count));
  }
  if (!fd.IsValid() || !content.empty()) {
    throw std::runtime_error(fmt::format("{}: {}", path, std::strerror(errno)));
  }
}

}  // namespace

void WriteOutputFile(const std::string& path, std::string_view content) {
  struct stat status {};
  if (path == "-") {
    std::cout.write(content.data(), static_cast<std::streamsize>(content.size())).flush();
    if (!std::cout) {
      throw std::runtime_error("standard output can't be written to");
    }
  } else if (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    WriteInPlace(path, content);
  } else {
    const InterruptScope scope;  // nothing is left beside it when a signal comes
    ReplaceFile(path, content);
  }
}

}  // namespace vond::vondctl
