#pragma once

#include <sys/types.h>

#include <cstddef>

namespace vond::bench {

/// What the kernel says of a process at this moment. All 0 for one that is gone.
struct ProcessFigures {
  std::size_t resident_kib = 0;
  std::size_t peak_resident_kib = 0;  ///< since its start, or since ResetPeak
  std::size_t threads = 0;
  std::size_t descriptors = 0;
};

[[nodiscard]] ProcessFigures ReadFigures(pid_t pid);

/// Makes the peak start again from what is resident now.
void ResetPeak(pid_t pid);

}  // namespace vond::bench
