#pragma once

#include <filesystem>
#include <string>

namespace vond::bench {

/// What a process of its own tells of raw libyara.
struct RawFigures {
  double resident_mib = 0;  ///< at its end
  double peak_mib = 0;
  double compile_seconds = 0;  ///< 0 if it compiled nothing
};

/// Runs this program's subcommand `mode` (raw_memory.h) on `path` in a new process. Throws std::runtime_error.
[[nodiscard]] RawFigures RunRaw(const std::string& mode, const std::filesystem::path& path);

/// A folder of its own, removed at the end. The constructor throws std::runtime_error.
class ScratchFolder {
 public:
  ScratchFolder();
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  [[nodiscard]] const std::filesystem::path& Path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace vond::bench
