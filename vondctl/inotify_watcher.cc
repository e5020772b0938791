#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <string_view>
#include <system_error>
#include <unordered_set>
#include <utility>

#include "vondctl/file_watcher.h"

namespace vond::vondctl {
namespace {

using auto_resources::ManagedFD;

// Paths that wait here; beyond that events wait in the kernel.
constexpr std::size_t kMaxQueued = 16384;
constexpr std::uint32_t kMask =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW | IN_EXCL_UNLINK;

std::string WatchError(int error) {
  return error == ENOSPC ? "the limit of watches is reached (sysctl fs.inotify.max_user_watches)"
                         : std::generic_category().message(error);
}

bool IsGone(int error) { return error == ENOENT || error == ENOTDIR || error == ELOOP; }

class InotifyWatcher : public FileWatcher {
 public:
  InotifyWatcher(WatchedFolders folders, Say say)
      : fd_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)), folders_(std::move(folders)), say_(std::move(say)) {
    if (!fd_.IsValid()) {
      throw std::system_error(errno, std::generic_category(), "inotify_init");
    }
    WatchRoots();
    while (!to_list_.empty()) {  // what lies there already has not been written to
      List(false);
    }
    if (!failures_.empty()) {
      throw std::system_error(
          failures_.front().second, std::generic_category(),
          fmt::format("{} can't be watched: {}", failures_.front().first, WatchError(failures_.front().second)));
    }
  }

  [[nodiscard]] const char* Name() const override { return "inotify"; }
  [[nodiscard]] int Fd() const override { return fd_.Get(); }

  [[nodiscard]] WalkedFile Next() override {
    while (true) {
      if (queue_.size() < kMaxQueued) {
        ReadEvents();
      }
      if (!failures_.empty()) {
        const auto [path, error] = failures_.front();
        failures_.pop_front();
        WalkedFile file = FailedToOpen(path, error);
        file.reason = "the folder can't be watched: " + WatchError(error);
        return file;
      }
      if (queue_.empty() && !to_list_.empty()) {
        List(true);
        continue;
      }
      if (queue_.empty()) {
        return NoFileYet();
      }
      if (auto file = Open(queue_.front())) {
        if (file->state != WalkedFile::State::kWait) {
          Unqueue();
        }
        return std::move(*file);
      }
      Unqueue();
    }
  }

 private:
  struct Folder {
    std::string real;
    bool is_new;  // the files in it may have been closed before it was watched
  };

  void WatchRoots() {
    for (const WatchedFolders::Root& root : folders_.Roots()) {
      Watch(root.real);
    }
  }

  // Watches a folder, and has it listed for what is in it. It is watched first, so that nothing falls in between.
  void Watch(const std::string& real) {
    if (!folders_.NameOf(real)) {
      return;  // excluded
    }
    const int watch = ::inotify_add_watch(fd_.Get(), real.c_str(), kMask);
    if (watch < 0) {
      if (!IsGone(errno)) {
        failures_.emplace_back(real, errno);
      }
      return;
    }
    // A folder that has been moved keeps its watch.
    const bool is_new = !watched_.contains(watch);
    watched_[watch] = real;
    to_list_.push_back({real, is_new});
  }

  void List(bool with_files) {
    const Folder folder = std::move(to_list_.front());
    to_list_.pop_front();
    ManagedFD fd(::open(folder.real.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!fd.IsValid()) {
      if (!IsGone(errno)) {
        failures_.emplace_back(folder.real, errno);
      }
      return;
    }
    struct stat status {};
    if (::fstat(fd.Get(), &status) != 0) {
      return;
    }
    const int folder_fd = fd.Get();
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::fdopendir(fd.Release()), &::closedir);
    while (const dirent* entry = entries ? ::readdir(entries.get()) : nullptr) {
      const std::string_view name = entry->d_name;
      struct stat child {};
      if (name == "." || name == ".." || ::fstatat(folder_fd, entry->d_name, &child, AT_SYMLINK_NOFOLLOW) != 0) {
        continue;
      }
      const std::string path = Join(folder.real, name);
      if (S_ISDIR(child.st_mode)) {
        if (child.st_dev == status.st_dev || !IsKernelFolder(path)) {
          Watch(path);
        }
      } else if (with_files && folder.is_new) {
        Queue(path);
      }
    }
  }

  static std::string Join(const std::string& folder, std::string_view name) {
    return (folder == "/" ? folder : folder + '/') + std::string(name);
  }

  static bool IsKernelFolder(const std::string& path) {
    const ManagedFD fd(::open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return fd.IsValid() && IsOfKernel(fd.Get());
  }

  void Queue(const std::string& real) {
    if (queued_.insert(real).second) {
      queue_.push_back(real);
    }
  }
  void Unqueue() {
    queued_.erase(queue_.front());
    queue_.pop_front();
  }

  void ReadEvents() {
    alignas(inotify_event) std::array<char, 16384> buffer{};
    const ssize_t size = ::read(fd_.Get(), buffer.data(), buffer.size());
    inotify_event event{};
    for (std::size_t at = 0; size > 0 && at + sizeof event <= static_cast<std::size_t>(size);
         at += sizeof event + event.len) {
      std::memcpy(&event, buffer.data() + at, sizeof event);
      const char* const name = buffer.data() + at + sizeof event;
      TakeUp(event, event.len > 0 ? std::string(name, ::strnlen(name, event.len)) : "");
    }
  }

  void TakeUp(const inotify_event& event, const std::string& name) {
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
      ++lost_;
      say_("events were lost, the kernel's queue was full: files may not have been scanned");
      WatchRoots();  // a new folder may have been among them
      return;
    }
    const auto folder = watched_.find(event.wd);
    if (folder == watched_.end()) {
      return;
    }
    const std::string real = folder->second;
    if ((event.mask & IN_IGNORED) != 0) {
      watched_.erase(folder);
      SayIfRootIsGone(real);
    } else if ((event.mask & IN_MOVE_SELF) != 0) {
      // Moved within the folders, it was found under its new name before this event came.
      if (::inotify_add_watch(fd_.Get(), real.c_str(), kMask) != event.wd) {
        ForgetBelow(real);
        SayIfRootIsGone(real);
      }
    } else if (name.empty()) {
      return;
    } else if ((event.mask & IN_ISDIR) != 0) {
      if ((event.mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
        Watch(Join(real, name));
      }
    } else if ((event.mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) != 0) {
      Queue(Join(real, name));
    }
  }

  void ForgetBelow(const std::string& real) {
    for (auto it = watched_.begin(); it != watched_.end();) {
      const bool below = it->second == real || it->second.starts_with(real + '/');
      if (below) {
        ::inotify_rm_watch(fd_.Get(), it->first);
      }
      it = below ? watched_.erase(it) : std::next(it);
    }
  }

  void SayIfRootIsGone(const std::string& real) const {
    for (const WatchedFolders::Root& root : folders_.Roots()) {
      if (root.real == real) {
        say_(root.named + " is gone; nothing more will be seen of it");
      }
    }
  }

  // Opens what the queue has. Nothing if it is no file to be scanned. It is looked at first under a handle that opens
  // nothing: neither a pipe nor a device that stands there now is touched, and no link leads out of the folders.
  std::optional<WalkedFile> Open(const std::string& real) {
    const auto called = folders_.NameOf(real);
    if (!called || !folders_.Includes(*called)) {
      return std::nullopt;
    }
    const ManagedFD handle(::open(real.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!handle.IsValid()) {
      return NotOpened(*called, errno);
    }
    struct stat status {};
    const auto name = folders_.NameOf(PathBehind(handle.Get()));
    if (::fstat(handle.Get(), &status) != 0 || !S_ISREG(status.st_mode) || !name) {
      return std::nullopt;
    }
    ManagedFD fd(
        ::open(fmt::format("/proc/self/fd/{}", handle.Get()).c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    return fd.IsValid() ? LookAtOpened(*called, std::move(fd), folders_.Options()) : NotOpened(*called, errno);
  }

  std::optional<WalkedFile> NotOpened(const std::string& name, int error) {
    if (IsGone(error)) {
      ++gone_;
      return std::nullopt;
    }
    return error == EMFILE || error == ENFILE ? NoFileYet() : FailedToOpen(name, error);
  }

  ManagedFD fd_;
  WatchedFolders folders_;
  Say say_;
  std::map<int, std::string> watched_;  // real paths of folders by watch descriptor
  std::deque<Folder> to_list_;
  std::deque<std::string> queue_;           // real paths of files, each once
  std::unordered_set<std::string> queued_;  // the same
  std::deque<std::pair<std::string, int>> failures_;
};

}  // namespace

std::unique_ptr<FileWatcher> WatchWithInotify(WatchedFolders folders, FileWatcher::Say say) {
  return std::make_unique<InotifyWatcher>(std::move(folders), std::move(say));
}

}  // namespace vond::vondctl
