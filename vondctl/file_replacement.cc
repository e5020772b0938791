#include "vondctl/file_replacement.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "utils/managed_fd.h"
#include "vondctl/interrupt.h"

namespace vond::vondctl {
namespace {

namespace fs = std::filesystem;
using auto_resources::ManagedFD;

[[noreturn]] void Fail(const std::string& path) {
  throw std::runtime_error(fmt::format("{}: {}", path, std::strerror(errno)));
}

// Removes a file unless told that it is wanted.
class TemporaryFile {
 public:
  explicit TemporaryFile(const fs::path& beside)
      : path_(beside.string() + ".XXXXXX"),
        fd_(::mkostemp(path_.data(), O_CLOEXEC)),
        at_interrupt_([this] { ::unlink(path_.c_str()); }) {}
  ~TemporaryFile() {
    if (fd_.IsValid() && !kept_) {
      const int saved_errno = errno;
      ::unlink(path_.c_str());
      errno = saved_errno;
    }
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  [[nodiscard]] int Fd() const { return fd_.Get(); }
  [[nodiscard]] bool RenameTo(const fs::path& path) {
    kept_ = ::rename(path_.c_str(), path.c_str()) == 0;
    return kept_;
  }

 private:
  std::string path_;
  ManagedFD fd_;
  bool kept_ = false;
  AtInterrupt at_interrupt_;  // once renamed, the name is free and nothing is removed
};

bool WriteAll(int fd, std::string_view content) {
  while (!content.empty()) {
    const ssize_t count = ::write(fd, content.data(), content.size());
    if (count < 0 && errno != EINTR) {
      return false;
    }
    content.remove_prefix(count < 0 ? 0 : static_cast<std::size_t>(count));
  }
  return true;
}

bool TakeOverMode(int fd, const fs::path& path) {
  struct stat old {};
  if (::stat(path.c_str(), &old) == 0) {
    static_cast<void>(::fchown(fd, old.st_uid, old.st_gid) == 0);  // only root can, and before the mode it clears bits
    return ::fchmod(fd, old.st_mode & 07777U) == 0;
  }
  const mode_t mask = ::umask(0);  // the only way to read it
  ::umask(mask);
  return ::fchmod(fd, 0666U & ~mask) == 0;
}

}  // namespace

void ReplaceFile(const std::string& path, std::string_view content) {
  std::error_code error;
  fs::path target = fs::canonical(path, error);
  if (error) {  // a new file
    target = path;
  }
  TemporaryFile file(target);
  if (file.Fd() < 0 || !WriteAll(file.Fd(), content) || !TakeOverMode(file.Fd(), target) || ::fsync(file.Fd()) != 0 ||
      !file.RenameTo(target)) {
    Fail(path);
  }
  // The rename lasts once the folder is on disk. Some file systems can't sync a folder, and the file is in place.
  const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
  const ManagedFD folder_fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder_fd.IsValid()) {
    static_cast<void>(::fsync(folder_fd.Get()));
  }
}

}  // namespace vond::vondctl
