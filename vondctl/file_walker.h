#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "utils/managed_fd.h"
#include "vondctl/path_list.h"

namespace vond::vondctl {

/// One thing to report on: a file opened for scanning, or a path that could not be.
struct WalkedFile {
  enum class State {
    kOpen,     ///< `fd` is a readable regular file
    kSkipped,  ///< named by the user, but nothing that can be scanned
    kFailed,   ///< a file or folder that could not be opened or read
    kWait,     ///< nothing for now: ask again once a descriptor has been closed, or a little later
  };

  std::string path;
  State state = State::kOpen;
  auto_resources::ManagedFD fd;
  struct stat status {};  ///< of a file, from before its scan
  std::string reason;     ///< why it is not open
};

/// Where the files to be scanned come from. One thread.
class FileSource {
 public:
  FileSource() = default;
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;
  FileSource(FileSource&&) = default;
  FileSource& operator=(FileSource&&) = default;
  virtual ~FileSource() = default;

  /// The policy is in force, and a signal from now on ends nothing before the source has come to its end. Once, first.
  virtual void OnReady() {}
  /// The next file, or nothing at the end. While no file is with the daemon (`idle`) it may wait for one, a second or
  /// so.
  [[nodiscard]] virtual std::optional<WalkedFile> NextFile(bool idle) = 0;
  /// How many things were passed over because they are no files.
  [[nodiscard]] virtual std::uint64_t LeftOut() const noexcept = 0;
  /// Called again and again while files are scanned.
  virtual void Tick() {}
};

struct WalkOptions {
  std::size_t max_depth = std::numeric_limits<std::size_t>::max();  ///< of folders below a named one
  std::vector<std::string> include;                                 ///< globs that a file must match one of, if any
  std::vector<std::string> exclude;  ///< globs of files and folders that are passed over in silence
  bool one_file_system = false;
  bool follow = false;         ///< symbolic links inside trees too
  std::uint64_t max_size = 0;  ///< bytes; larger files come out as kSkipped; 0 is no limit
  std::string max_size_name;   ///< what sets that limit, for people
  bool only_look = false;      ///< files are not opened; they come out as kOpen all the same
};

/// Whether one of the globs is that of `path`. A glob without a slash is for the last part of the path, one with a
/// slash for all of it or its end.
[[nodiscard]] bool MatchesAny(const std::vector<std::string>& globs, const std::string& path);

/// What has just been opened as `path`: kOpen, or kSkipped for what is no regular file or too large, or kFailed.
[[nodiscard]] WalkedFile LookAtOpened(const std::string& path, auto_resources::ManagedFD fd,
                                      const WalkOptions& options);

/// kFailed for `path`, with the reason in words.
[[nodiscard]] WalkedFile FailedToOpen(const std::string& path, int error);

/// kWait.
[[nodiscard]] WalkedFile NoFileYet();

/// Whether what `fd` stands for is on one of the kernel's own file systems.
[[nodiscard]] bool IsOfKernel(int fd);

/// Goes through files and trees one file at a time, names within a folder in byte order. Paths named by the user are
/// followed if they are symbolic links; inside trees only regular files count, links are followed only if asked, and
/// each folder is then entered once, so a loop ends. A file system of the kernel's own (/proc and such) is entered only
/// if named. Files are opened without blocking, so no device or FIFO can stall it; "-", standard input, is read whole
/// into a memfd unless it is a file. What can't be read comes out as kFailed, never in silence; running out of
/// descriptors is no failure, but kWait. One thread.
class FileWalker : public FileSource {
 public:
  /// Goes through `paths`, then through what `list` has, if there is one.
  FileWalker(const std::vector<std::string>& paths, std::optional<PathList> list, WalkOptions options);

  /// The next file, or nothing at the end.
  [[nodiscard]] std::optional<WalkedFile> Next();
  [[nodiscard]] std::optional<WalkedFile> NextFile(bool /*idle*/) override { return Next(); }

  /// How many things inside trees were passed over because they are no files: links, pipes, sockets, devices, folders
  /// of the kernel or of another file system.
  [[nodiscard]] std::uint64_t LeftOut() const noexcept override { return left_out_; }

 private:
  struct Entry {
    std::string path;
    std::size_t depth = 0;  // 0: named by the user
    dev_t parent_device = 0;
    dev_t root_device = 0;
  };

  // Takes a path from the list. What to report when there is none for now, or the list can't be read.
  [[nodiscard]] std::optional<WalkedFile> TakeFromList();
  // What `entry` comes to; nothing for a folder, whose entries have been queued, and for what does not count.
  [[nodiscard]] std::optional<WalkedFile> Visit(const Entry& entry);
  [[nodiscard]] std::optional<WalkedFile> VisitFolder(const Entry& entry, const struct stat& status);
  [[nodiscard]] WalkedFile OpenFile(const Entry& entry, const struct stat& status);
  // For a failed open: a failure of the entry, or kWait with the entry still to be visited.
  [[nodiscard]] WalkedFile NotOpened(const Entry& entry, int error);
  // Queues the entries of a folder; 0 or the errno that ended its reading.
  [[nodiscard]] int QueueFolder(const Entry& entry, const struct stat& status, auto_resources::ManagedFD fd);
  [[nodiscard]] int OpenFlags(const Entry& entry) const;

  WalkOptions options_;
  std::vector<Entry> entries_;  // to be visited, the next one last
  std::optional<PathList> list_;
  std::set<std::pair<dev_t, ino_t>> entered_;  // folders, when links are followed
  std::uint64_t left_out_ = 0;
  int waits_ = 0;  // in a row, for descriptors
};

}  // namespace vond::vondctl
