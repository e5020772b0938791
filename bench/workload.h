#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "utils/managed_fd.h"

namespace vond::bench {

/// A class of files to scan.
struct FileClass {
  std::string_view name;
  std::size_t min_size;  ///< bytes
  std::size_t max_size;
  std::size_t count;
};

/// `count` rules with "id" and "action", two strings and a condition each, the same for the same seed. About one file
/// in a hundred matches one.
[[nodiscard]] std::string MakeRules(std::size_t count, std::uint32_t seed);

/// `count` rules of eight metadata items each. A file that begins with byte 0 matches none of them, one that begins
/// with 1 the first `few`, one that begins with 2 all.
[[nodiscard]] std::string MakeMatchingRules(std::size_t count, std::size_t few);

/// Memfds that begin like ELF files and go on like machine code, the same for the same seed.
[[nodiscard]] std::vector<auto_resources::ManagedFD> MakeFiles(const FileClass& file_class, std::uint32_t seed);

/// A memfd that holds `content`. Throws std::runtime_error.
[[nodiscard]] auto_resources::ManagedFD MakeMemfd(std::string_view content);

}  // namespace vond::bench
