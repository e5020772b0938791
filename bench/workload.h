#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "utils/managed_fd.h"

namespace vond::bench {

/// A class of files to scan.
struct FileClass {
  const char* name;
  std::size_t min_size;  ///< bytes
  std::size_t max_size;
  std::size_t count;
};

/// `count` rules with "id" and "action", two strings and a condition each, the same for the same seed. About one file
/// in a hundred matches one.
[[nodiscard]] std::string MakeRules(std::size_t count, std::uint32_t seed);

/// Memfds that begin like ELF files and go on like machine code, the same for the same seed.
[[nodiscard]] std::vector<auto_resources::ManagedFD> MakeFiles(const FileClass& file_class, std::uint32_t seed);

}  // namespace vond::bench
