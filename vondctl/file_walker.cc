#include "vondctl/file_walker.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

namespace vond::vondctl {
namespace {

using auto_resources::ManagedFD;

WalkedFile Failed(const std::string& path, int error) {
  WalkedFile file;
  file.path = path;
  file.state = WalkedFile::State::kFailed;
  file.reason = std::strerror(error);
  return file;
}

const char* KindOf(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFIFO:
      return "a pipe, not a file";
    case S_IFSOCK:
      return "a socket, not a file";
    case S_IFCHR:
    case S_IFBLK:
      return "a device, not a file";
    default:
      return "not a regular file";
  }
}

}  // namespace

FileWalker::FileWalker(const std::vector<std::string>& paths) {
  for (auto path = paths.rbegin(); path != paths.rend(); ++path) {
    entries_.push_back({*path, true});
  }
}

std::optional<WalkedFile> FileWalker::Next() {
  while (!entries_.empty()) {
    const Entry entry = std::move(entries_.back());
    entries_.pop_back();
    if (auto file = Visit(entry)) {
      return file;
    }
  }
  return std::nullopt;
}

std::optional<WalkedFile> FileWalker::Visit(const Entry& entry) {
  // Looked at before it is opened: opening a device may already do something.
  struct stat status {};
  if (::fstatat(AT_FDCWD, entry.path.c_str(), &status, entry.named_by_user ? 0 : AT_SYMLINK_NOFOLLOW) != 0) {
    return Failed(entry.path, errno);
  }
  const bool is_folder = S_ISDIR(status.st_mode);
  if (!is_folder && !S_ISREG(status.st_mode)) {
    if (!entry.named_by_user) {
      return std::nullopt;
    }
    WalkedFile file;
    file.path = entry.path;
    file.state = WalkedFile::State::kSkipped;
    file.reason = KindOf(status.st_mode);
    return file;
  }
  const int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (is_folder ? O_DIRECTORY : 0) |
                    (entry.named_by_user ? 0 : O_NOFOLLOW);
  ManagedFD fd(::open(entry.path.c_str(), flags));
  if (!fd.IsValid()) {
    return Failed(entry.path, errno);
  }
  if (is_folder) {
    const int error = QueueFolder(entry.path, std::move(fd));
    return error == 0 ? std::nullopt : std::optional(Failed(entry.path, error));
  }
  WalkedFile file;
  file.path = entry.path;
  if (::fstat(fd.Get(), &file.status) != 0) {
    return Failed(entry.path, errno);
  }
  file.fd = std::move(fd);
  return file;
}

int FileWalker::QueueFolder(const std::string& path, ManagedFD fd) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::fdopendir(fd.Get()), &::closedir);
  if (folder == nullptr) {
    return errno;
  }
  [[maybe_unused]] const int owned_by_folder = fd.Release();
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = ::readdir(folder.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
  }
  const int error = errno;
  std::sort(names.begin(), names.end(), std::greater<>());
  const std::string prefix = path.ends_with('/') ? path : path + '/';
  for (const std::string& name : names) {
    entries_.push_back({prefix + name, false});
  }
  return error;
}

}  // namespace vond::vondctl
