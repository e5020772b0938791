#include <fcntl.h>
#include <fmt/format.h>
#include <mntent.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "vondctl/file_watcher.h"

namespace vond::vondctl {
namespace {

using auto_resources::ManagedFD;

// Each event that is read is an open descriptor; what is not read waits in the kernel.
constexpr std::size_t kEventsAtOnce = 64;
constexpr std::string_view kDeleted = " (deleted)";

// The mount points below the folders that have files in them: a mark on a mount does not go beyond it.
std::vector<std::string> MountsOf(const WatchedFolders& folders) {
  std::vector<std::string> mounts;
  for (const WatchedFolders::Root& root : folders.Roots()) {
    mounts.push_back(root.real);
  }
  const std::unique_ptr<FILE, int (*)(FILE*)> table(::setmntent("/proc/self/mounts", "re"), &::endmntent);
  while (const mntent* entry = table ? ::getmntent(table.get()) : nullptr) {
    ManagedFD fd(::open(entry->mnt_dir, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (fd.IsValid() && folders.NameOf(entry->mnt_dir) && !IsOfKernel(fd.Get())) {
      mounts.emplace_back(entry->mnt_dir);
    }
  }
  return mounts;
}

class FanotifyWatcher : public FileWatcher {
 public:
  FanotifyWatcher(ManagedFD group, WatchedFolders folders, Say say)
      : group_(std::move(group)), folders_(std::move(folders)), say_(std::move(say)) {}

  [[nodiscard]] const char* Name() const override { return "fanotify"; }
  [[nodiscard]] int Fd() const override { return group_.Get(); }

  [[nodiscard]] WalkedFile Next() override {
    if (files_.empty()) {
      ReadEvents();
    }
    if (files_.empty()) {
      return NoFileYet();
    }
    File file = std::move(files_.front());
    files_.pop_front();
    return LookAtOpened(file.name, std::move(file.fd), folders_.Options());
  }

 private:
  struct File {
    std::string name;
    ManagedFD fd;
    dev_t device;
    ino_t inode;
  };

  void ReadEvents() {
    alignas(fanotify_event_metadata) std::array<char, kEventsAtOnce * sizeof(fanotify_event_metadata)> buffer{};
    const ssize_t size = ::read(group_.Get(), buffer.data(), buffer.size());
    if (size < 0) {
      // Whatever else is wrong, such as too few descriptors, the event that the kernel could not hand over is gone.
      if (errno != EAGAIN && errno != EINTR) {
        ++lost_;
        say_(fmt::format("an event was lost ({}): a file may not have been scanned", std::strerror(errno)));
      }
      return;
    }
    fanotify_event_metadata event{};
    for (std::size_t at = 0; at + sizeof event <= static_cast<std::size_t>(size); at += event.event_len) {
      std::memcpy(&event, buffer.data() + at, sizeof event);
      if (event.vers != FANOTIFY_METADATA_VERSION || event.event_len < sizeof event) {
        throw std::runtime_error("the kernel's fanotify events have another form than they had when this was built");
      }
      TakeUp(event);
    }
  }

  void TakeUp(const fanotify_event_metadata& event) {
    ManagedFD fd(event.fd);  // FAN_NOFD is -1
    if ((event.mask & FAN_Q_OVERFLOW) != 0) {
      ++lost_;
      say_("events were lost, the kernel's queue was full: files may not have been scanned");
      return;
    }
    struct stat status {};
    if (!fd.IsValid() || event.pid == ::getpid() || ::fstat(fd.Get(), &status) != 0) {
      return;
    }
    std::string path = PathBehind(fd.Get());
    struct stat at_path {};
    if (path.ends_with(kDeleted) && ::lstat(path.c_str(), &at_path) != 0) {
      path.resize(path.size() - kDeleted.size());
    }
    const auto name = folders_.NameOf(path);
    if (!name || !folders_.Includes(*name)) {
      return;
    }
    // One scan will do for a file that has been closed again before its turn.
    if (std::none_of(files_.begin(), files_.end(),
                     [&](const File& file) { return file.inode == status.st_ino && file.device == status.st_dev; })) {
      files_.push_back({*name, std::move(fd), status.st_dev, status.st_ino});
    }
  }

  ManagedFD group_;
  WatchedFolders folders_;
  Say say_;
  std::deque<File> files_;
};

}  // namespace

std::unique_ptr<FileWatcher> WatchWithFanotify(WatchedFolders folders, FileWatcher::Say say) {
  ManagedFD group(
      ::fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK, O_RDONLY | O_LARGEFILE | O_CLOEXEC | O_NOATIME));
  if (!group.IsValid()) {
    throw std::system_error(errno, std::generic_category(), "fanotify_init");
  }
  for (const std::string& mount : MountsOf(folders)) {
    if (::fanotify_mark(group.Get(), FAN_MARK_ADD | FAN_MARK_MOUNT, FAN_CLOSE_WRITE, AT_FDCWD, mount.c_str()) != 0) {
      throw std::system_error(errno, std::generic_category(), "fanotify_mark " + mount);
    }
  }
  return ReadFanotify(std::move(group), std::move(folders), std::move(say));
}

std::unique_ptr<FileWatcher> ReadFanotify(ManagedFD group, WatchedFolders folders, FileWatcher::Say say) {
  return std::make_unique<FanotifyWatcher>(std::move(group), std::move(folders), std::move(say));
}

}  // namespace vond::vondctl
