#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "utils/managed_fd.h"

struct YR_RULES;

namespace vond::vondctl {

/// An open file that is scanned again and again.
struct SampleFile {
  auto_resources::ManagedFD fd;
  std::uint64_t size = 0;
};

/// What one pass over a sample came to.
struct SamplePass {
  double seconds = 0;
  std::size_t files = 0;  ///< the first ones of the sample, all unless time was up
  std::size_t matches = 0;
  std::size_t failed = 0;         ///< files whose scan had an error
  std::vector<double> latencies;  ///< of each file, in seconds
};

/// libyara by itself, as any program may use it: the rules loaded once, one yr_rules_scan_fd a file. One thread, which
/// may let Pass use several.
class RawEngine {
 public:
  using Deadline = std::chrono::steady_clock::time_point;

  /// Compiles `source`. Throws std::runtime_error if that fails.
  explicit RawEngine(const std::string& source);

  /// Scans the sample once; no further file is begun after `deadline`.
  [[nodiscard]] SamplePass Pass(const std::vector<SampleFile>& sample, std::size_t threads, Deadline deadline) const;

  /// What compiling took.
  [[nodiscard]] double CompileSeconds() const noexcept { return compile_seconds_; }

 private:
  std::shared_ptr<YR_RULES> rules_;
  double compile_seconds_ = 0;
};

}  // namespace vond::vondctl
