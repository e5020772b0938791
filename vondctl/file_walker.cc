#include "vondctl/file_walker.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <fnmatch.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <system_error>

#include "vondctl/interrupt.h"

namespace vond::vondctl {
namespace {

using auto_resources::ManagedFD;

constexpr const char* kStandardInput = "-";
// Attempts to get a descriptor, each after a wait of the caller's, until it is a failure after all.
constexpr int kMaxWaits = 200;
constexpr std::uint64_t kMaxStandardInput = 1ULL << 30;  // bytes, where no limit is set; it is kept in memory
constexpr int kInterruptInterval = 100;  // milliseconds between looks at whether somebody wants us to end

// Not all in linux/magic.h of Debian 12.
constexpr std::array<std::uint64_t, 14> kKernelFileSystems{
    PROC_SUPER_MAGIC,          SYSFS_MAGIC,  DEBUGFS_MAGIC,  TRACEFS_MAGIC, SECURITYFS_MAGIC,   CGROUP_SUPER_MAGIC,
    CGROUP2_SUPER_MAGIC,       BPF_FS_MAGIC, PSTOREFS_MAGIC, SELINUX_MAGIC, DEVPTS_SUPER_MAGIC, BINFMTFS_MAGIC,
    0x62656570 /* configfs */, 0x65735543 /* fusectl */};

WalkedFile Unopened(const std::string& path, WalkedFile::State state, const std::string& reason) {
  WalkedFile file;
  file.path = path;
  file.state = state;
  file.reason = reason;
  return file;
}

WalkedFile Failed(const std::string& path, int error) {
  std::string reason = std::generic_category().message(error);
  if (error == EACCES || error == EPERM) {
    reason += fmt::format("; vondctl opens the files, so its user's rights count (uid {}), not the daemon's",
                          static_cast<unsigned long>(::geteuid()));
  }
  return Unopened(path, WalkedFile::State::kFailed, reason);
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

bool IsOfProc(int fd) {
  struct statfs filesystem {};
  return ::fstatfs(fd, &filesystem) == 0 && filesystem.f_type == PROC_SUPER_MAGIC;
}

WalkedFile TooLarge(const std::string& path, const struct stat& status, const WalkOptions& options) {
  WalkedFile file = Unopened(path, WalkedFile::State::kSkipped,
                             fmt::format("{} bytes, and the limit of {} is {}", static_cast<long long>(status.st_size),
                                         options.max_size_name, options.max_size));
  file.status = status;
  return file;
}

bool IsOutOfDescriptors(int error) { return error == EMFILE || error == ENFILE; }

// Copies standard input into `to`. Nothing when all is there, else what to say about it.
std::optional<WalkedFile> CopyStandardInput(int to, std::uint64_t max_bytes, const std::string& limit_name) {
  std::vector<char> piece(std::size_t{1} << 20);
  std::uint64_t size = 0;
  while (true) {
    pollfd readable{STDIN_FILENO, POLLIN, 0};
    if (::poll(&readable, 1, kInterruptInterval) == 0) {
      if (InterruptSignal() != 0) {
        return Failed(kStandardInput, EINTR);
      }
      continue;
    }
    const ssize_t count = ::read(STDIN_FILENO, piece.data(), piece.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
      continue;
    }
    if (count < 0) {
      return Failed(kStandardInput, errno);
    }
    if (count == 0) {
      return std::nullopt;
    }
    size += static_cast<std::uint64_t>(count);
    if (size > max_bytes) {
      return Unopened(kStandardInput, WalkedFile::State::kSkipped,
                      fmt::format("longer than {} bytes, the limit of {}", max_bytes, limit_name));
    }
    for (ssize_t written = 0; written < count;) {
      const ssize_t more = ::write(to, piece.data() + written, static_cast<std::size_t>(count - written));
      if (more < 0) {
        return Failed(kStandardInput, errno);
      }
      written += more;
    }
  }
}

WalkedFile OpenStandardInput(const WalkOptions& options) {
  const bool limited = options.max_size != 0;
  WalkedFile file;
  file.path = kStandardInput;
  // A file needs no copy, unless somebody has read a part of it, which then is not ours to scan.
  if (::fstat(STDIN_FILENO, &file.status) == 0 && S_ISREG(file.status.st_mode) && file.status.st_size > 0 &&
      ::lseek(STDIN_FILENO, 0, SEEK_CUR) == 0) {
    if (limited && static_cast<std::uint64_t>(file.status.st_size) > options.max_size) {
      return TooLarge(kStandardInput, file.status, options);
    }
    file.fd.Reset(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
    return file.fd.IsValid() ? std::move(file) : Failed(kStandardInput, errno);
  }
  file.fd.Reset(::memfd_create("vondctl-stdin", MFD_CLOEXEC));
  if (!file.fd.IsValid()) {
    return Failed(kStandardInput, errno);
  }
  if (auto failure = CopyStandardInput(file.fd.Get(), limited ? options.max_size : kMaxStandardInput,
                                       limited ? options.max_size_name : "standard input; --max-size sets another")) {
    return std::move(*failure);
  }
  return ::fstat(file.fd.Get(), &file.status) == 0 ? std::move(file) : Failed(kStandardInput, errno);
}

}  // namespace

bool MatchesAny(const std::vector<std::string>& globs, const std::string& path) {
  std::string_view trimmed = path;
  while (trimmed.size() > 1 && trimmed.ends_with('/')) {
    trimmed.remove_suffix(1);
  }
  const std::string whole(trimmed);
  const std::string name(trimmed.substr(trimmed.rfind('/') + 1));  // npos + 1 is 0
  return std::any_of(globs.begin(), globs.end(), [&](std::string glob) {
    while (glob.size() > 1 && glob.ends_with('/')) {
      glob.pop_back();
    }
    if (glob.find('/') == std::string::npos) {
      return ::fnmatch(glob.c_str(), name.c_str(), 0) == 0;
    }
    return ::fnmatch(glob.c_str(), whole.c_str(), 0) == 0 || ::fnmatch(("*/" + glob).c_str(), whole.c_str(), 0) == 0;
  });
}

bool IsOfKernel(int fd) {
  struct statfs filesystem {};
  return ::fstatfs(fd, &filesystem) == 0 &&
         std::find(kKernelFileSystems.begin(), kKernelFileSystems.end(),
                   static_cast<std::uint64_t>(filesystem.f_type)) != kKernelFileSystems.end();
}

WalkedFile LookAtOpened(const std::string& path, ManagedFD fd, const WalkOptions& options) {
  WalkedFile file;
  file.path = path;
  file.fd = std::move(fd);
  if (::fstat(file.fd.Get(), &file.status) != 0) {
    return Failed(path, errno);
  }
  if (!S_ISREG(file.status.st_mode)) {
    return Unopened(path, WalkedFile::State::kSkipped, KindOf(file.status.st_mode));
  }
  if (options.max_size != 0 && static_cast<std::uint64_t>(file.status.st_size) > options.max_size) {
    return TooLarge(path, file.status, options);
  }
  return file;
}

WalkedFile FailedToOpen(const std::string& path, int error) { return Failed(path, error); }

WalkedFile NoFileYet() { return Unopened("", WalkedFile::State::kWait, ""); }

FileWalker::FileWalker(const std::vector<std::string>& paths, std::optional<PathList> list, WalkOptions options)
    : options_(std::move(options)), list_(std::move(list)) {
  for (auto path = paths.rbegin(); path != paths.rend(); ++path) {
    entries_.push_back({*path});
  }
}

std::optional<WalkedFile> FileWalker::Next() {
  while (true) {
    if (entries_.empty()) {
      if (!list_) {
        return std::nullopt;
      }
      if (auto file = TakeFromList()) {
        return file;
      }
      continue;
    }
    const Entry entry = std::move(entries_.back());
    entries_.pop_back();
    if (auto file = Visit(entry)) {
      return file;
    }
  }
}

std::optional<WalkedFile> FileWalker::TakeFromList() {
  try {
    std::string path;
    switch (list_->Next(path)) {
      case PathList::State::kPath:
        entries_.push_back({path == kStandardInput ? "./" + path : path});  // in a list it is a name like any other
        return std::nullopt;
      case PathList::State::kNotYet:
        return Unopened("", WalkedFile::State::kWait, "");
      case PathList::State::kEnd:
        list_.reset();
        return std::nullopt;
    }
  } catch (const std::system_error& e) {
    list_.reset();
    return Unopened("--files-from", WalkedFile::State::kFailed, e.what());
  }
  return std::nullopt;
}

std::optional<WalkedFile> FileWalker::Visit(const Entry& entry) {
  const bool named = entry.depth == 0;
  if (named && entry.path == kStandardInput) {
    return options_.only_look ? std::nullopt : std::optional(OpenStandardInput(options_));
  }
  if (MatchesAny(options_.exclude, entry.path)) {
    return std::nullopt;
  }
  // Looked at before it is opened: opening a device may already do something.
  struct stat status {};
  if (::fstatat(AT_FDCWD, entry.path.c_str(), &status, named || options_.follow ? 0 : AT_SYMLINK_NOFOLLOW) != 0) {
    const int error = errno;
    if (!named && options_.follow && (error == ENOENT || error == ELOOP) &&
        ::lstat(entry.path.c_str(), &status) == 0) {  // a link to nowhere
      ++left_out_;
      return std::nullopt;
    }
    return Failed(entry.path, error);
  }
  if (S_ISDIR(status.st_mode)) {
    return VisitFolder(entry, status);
  }
  if (!options_.include.empty() && !MatchesAny(options_.include, entry.path)) {
    return std::nullopt;
  }
  if (S_ISREG(status.st_mode)) {
    return OpenFile(entry, status);
  }
  if (!named) {
    ++left_out_;
    return std::nullopt;
  }
  return Unopened(entry.path, WalkedFile::State::kSkipped, KindOf(status.st_mode));
}

int FileWalker::OpenFlags(const Entry& entry) const {
  return O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (entry.depth == 0 || options_.follow ? 0 : O_NOFOLLOW);
}

WalkedFile FileWalker::NotOpened(const Entry& entry, int error) {
  if (!IsOutOfDescriptors(error) || waits_ == kMaxWaits) {
    return Failed(entry.path, error);
  }
  ++waits_;
  entries_.push_back(entry);
  return Unopened(entry.path, WalkedFile::State::kWait, "");
}

std::optional<WalkedFile> FileWalker::VisitFolder(const Entry& entry, const struct stat& status) {
  const bool named = entry.depth == 0;
  if (entry.depth > options_.max_depth) {
    return std::nullopt;
  }
  if (!named && options_.one_file_system && status.st_dev != entry.root_device) {
    ++left_out_;
    return std::nullopt;
  }
  if (options_.follow && !entered_.emplace(status.st_dev, status.st_ino).second) {
    return std::nullopt;  // its files have come or will come under another name
  }
  ManagedFD fd(::open(entry.path.c_str(), OpenFlags(entry) | O_DIRECTORY));
  if (!fd.IsValid()) {
    const int error = errno;
    entered_.erase({status.st_dev, status.st_ino});
    return NotOpened(entry, error);
  }
  if (!named && status.st_dev != entry.parent_device && IsOfKernel(fd.Get())) {
    ++left_out_;
    return std::nullopt;
  }
  const int error = QueueFolder(entry, status, std::move(fd));
  return error == 0 ? std::nullopt : std::optional(Failed(entry.path, error));
}

WalkedFile FileWalker::OpenFile(const Entry& entry, const struct stat& status) {
  WalkedFile file;
  if (options_.max_size != 0 && static_cast<std::uint64_t>(status.st_size) > options_.max_size) {
    return TooLarge(entry.path, status, options_);
  }
  file.path = entry.path;
  file.status = status;
  if (options_.only_look) {
    return file;
  }
  file.fd.Reset(::open(entry.path.c_str(), OpenFlags(entry)));
  if (!file.fd.IsValid()) {
    return NotOpened(entry, errno);
  }
  waits_ = 0;
  if (::fstat(file.fd.Get(), &file.status) != 0) {
    return Failed(entry.path, errno);
  }
  if (!S_ISREG(file.status.st_mode)) {  // exchanged in the meantime
    return Unopened(entry.path, WalkedFile::State::kSkipped, KindOf(file.status.st_mode));
  }
  if (file.status.st_size == 0 && IsOfProc(file.fd.Get())) {
    return Unopened(entry.path, WalkedFile::State::kSkipped,
                    "a file of /proc, whose content only comes to be by reading");
  }
  return file;
}

int FileWalker::QueueFolder(const Entry& entry, const struct stat& status, ManagedFD fd) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::fdopendir(fd.Get()), &::closedir);
  if (folder == nullptr) {
    return errno;
  }
  [[maybe_unused]] const int owned_by_folder = fd.Release();
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* child = ::readdir(folder.get())) {
    const std::string_view name = child->d_name;
    if (name != "." && name != "..") {
      names.emplace_back(name);
    }
    errno = 0;
  }
  const int error = errno;
  std::sort(names.begin(), names.end(), std::greater<>());
  const std::string prefix = entry.path.ends_with('/') ? entry.path : entry.path + '/';
  for (const std::string& name : names) {
    entries_.push_back(
        {prefix + name, entry.depth + 1, status.st_dev, entry.depth == 0 ? status.st_dev : entry.root_device});
  }
  return error;
}

}  // namespace vond::vondctl
