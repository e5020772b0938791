#include "vondctl/report_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

namespace vond::vondctl {
namespace {

constexpr std::size_t kBufferBytes = 65536;
constexpr mode_t kMode = 0666;  // less the umask

}  // namespace

ReportFile::ReportFile(const std::string& path)
    : path_(path),
      temporary_(fmt::format("{}.{}.tmp", path, ::getpid())),
      fd_(::open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode)),
      remove_([this] { ::unlink(temporary_.c_str()); }) {
  if (!fd_.IsValid()) {
    Fail();
  }
  // A rename would replace a device or a folder, or fail only after all the work.
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    ::unlink(temporary_.c_str());
    throw std::system_error(S_ISDIR(status.st_mode) ? EISDIR : EINVAL, std::generic_category(), path);
  }
}

ReportFile::~ReportFile() {
  if (fd_.IsValid()) {
    ::unlink(temporary_.c_str());
  }
}

void ReportFile::Write(const std::string& text) {
  buffer_ += text;
  if (buffer_.size() >= kBufferBytes) {
    Flush();
  }
}

void ReportFile::Commit() {
  Flush();
  if (::fsync(fd_.Get()) != 0 || ::rename(temporary_.c_str(), path_.c_str()) != 0) {
    Fail();
  }
  fd_.Reset();
}

void ReportFile::Flush() {
  for (std::size_t written = 0; written < buffer_.size();) {
    const ssize_t count = ::write(fd_.Get(), buffer_.data() + written, buffer_.size() - written);
    if (count < 0 && errno != EINTR) {
      Fail();
    }
    written += count > 0 ? static_cast<std::size_t>(count) : 0;
  }
  buffer_.clear();
}

void ReportFile::Fail() const { throw std::system_error(errno, std::generic_category(), path_); }

}  // namespace vond::vondctl
