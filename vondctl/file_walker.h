#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "utils/managed_fd.h"

namespace vond::vondctl {

/// One thing to report on: a file opened for scanning, or a path that could not be.
struct WalkedFile {
  enum class State {
    kOpen,     ///< `fd` is a readable regular file
    kSkipped,  ///< named by the user, but not a regular file
    kFailed,   ///< a file or folder that could not be opened or read
  };

  std::string path;
  State state = State::kOpen;
  auto_resources::ManagedFD fd;
  struct stat status {};  ///< of an open file, from before its scan
  std::string reason;     ///< why it is not open
};

/// Goes through files and trees one file at a time, names within a folder in byte order. Paths named by the user are
/// followed if they are symbolic links; inside trees only regular files count, and links are not followed. Files are
/// opened without blocking, so no device or FIFO can stall it. What can't be read comes out as kFailed, never in
/// silence. One thread.
class FileWalker {
 public:
  explicit FileWalker(const std::vector<std::string>& paths);

  /// The next file, or nothing at the end.
  [[nodiscard]] std::optional<WalkedFile> Next();

 private:
  struct Entry {
    std::string path;
    bool named_by_user = false;
  };

  // What `entry` comes to; nothing for a folder, whose entries have been queued, and for what does not count.
  [[nodiscard]] std::optional<WalkedFile> Visit(const Entry& entry);
  // Queues the entries of a folder; 0 or the errno that ended its reading.
  [[nodiscard]] int QueueFolder(const std::string& path, auto_resources::ManagedFD fd);

  std::vector<Entry> entries_;  // to be visited, the next one last
};

}  // namespace vond::vondctl
