#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "utils/managed_fd.h"
#include "vondctl/file_walker.h"

namespace vond::vondctl {

/// The folders that are watched, and which of the files below them count. Any thread.
class WatchedFolders {
 public:
  struct Root {
    std::string named;  ///< as the user did
    std::string real;   ///< without symbolic links
  };

  /// Throws std::system_error for a path that is no folder.
  WatchedFolders(const std::vector<std::string>& paths, WalkOptions options);

  [[nodiscard]] const std::vector<Root>& Roots() const noexcept { return roots_; }
  [[nodiscard]] const WalkOptions& Options() const noexcept { return options_; }
  /// The name by which the user knows the file or folder at `real`; nothing if it lies elsewhere or is excluded.
  [[nodiscard]] std::optional<std::string> NameOf(const std::string& real) const;
  /// Whether a file of that name is to be scanned.
  [[nodiscard]] bool Includes(const std::string& name) const;

 private:
  std::vector<Root> roots_;
  WalkOptions options_;
};

/// Where `fd` was found, as the kernel knows it; empty if it does not.
[[nodiscard]] std::string PathBehind(int fd);

/// Tells which files were written to, once they are closed. Nobody's open or close waits for it. One thread.
class FileWatcher {
 public:
  /// Takes a line for people.
  using Say = std::function<void(const std::string& text)>;

  FileWatcher() = default;
  FileWatcher(const FileWatcher&) = delete;
  FileWatcher& operator=(const FileWatcher&) = delete;
  virtual ~FileWatcher() = default;

  /// "fanotify" or "inotify".
  [[nodiscard]] virtual const char* Name() const = 0;
  /// Readable while the kernel has events; still owned here.
  [[nodiscard]] virtual int Fd() const = 0;
  /// The next file, kWait if there is none for now. Never waits.
  [[nodiscard]] virtual WalkedFile Next() = 0;

  /// How often events got lost, each time one or more.
  [[nodiscard]] std::uint64_t Lost() const noexcept { return lost_; }
  /// Files that were gone before they could be opened.
  [[nodiscard]] std::uint64_t Gone() const noexcept { return gone_; }

 protected:
  std::uint64_t lost_ = 0;
  std::uint64_t gone_ = 0;
};

/// Watches the mounts that hold the folders with fanotify, which hands over each file already open; a file that has
/// been removed meanwhile is scanned all the same. Throws std::system_error where that isn't permitted.
[[nodiscard]] std::unique_ptr<FileWatcher> WatchWithFanotify(WatchedFolders folders, FileWatcher::Say say);
/// The same for a group that is marked already, or for what reads like one.
[[nodiscard]] std::unique_ptr<FileWatcher> ReadFanotify(auto_resources::ManagedFD group, WatchedFolders folders,
                                                        FileWatcher::Say say);

/// Watches each folder with inotify, those to come too, and opens the files by name. Files that have been moved in
/// count as written. Throws std::system_error, also where a folder can't be watched at the start.
[[nodiscard]] std::unique_ptr<FileWatcher> WatchWithInotify(WatchedFolders folders, FileWatcher::Say say);

}  // namespace vond::vondctl
