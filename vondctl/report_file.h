#pragma once

#include <string>

#include "utils/managed_fd.h"
#include "vondctl/interrupt.h"

namespace vond::vondctl {

/// A file that is there complete or not at all: it is written under another name in the same folder, brought to disk
/// and renamed into place by Commit. Without that, nothing stays. One thread.
class ReportFile {
 public:
  /// Throws std::system_error, like the other calls.
  explicit ReportFile(const std::string& path);
  ReportFile(const ReportFile&) = delete;
  ReportFile& operator=(const ReportFile&) = delete;
  ~ReportFile();

  void Write(const std::string& text);
  void Commit();

 private:
  void Flush();
  [[noreturn]] void Fail() const;

  std::string path_;
  std::string temporary_;
  auto_resources::ManagedFD fd_;
  std::string buffer_;
  AtInterrupt remove_;
};

}  // namespace vond::vondctl
