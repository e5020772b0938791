#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/workload.h"
#include "utils/managed_fd.h"

namespace vond::bench {

/// Files by size. "k16" is what most requests of an agent are like: a small program.
inline constexpr std::array<FileClass, 4> kFileClasses{{{"k16", 14 << 10, 18 << 10, 2000},
                                                        {"4k-64k", 4 << 10, 64 << 10, 1000},
                                                        {"64k-512k", 64 << 10, 512 << 10, 150},
                                                        {"over-1m", 1 << 20, 4 << 20, 16}}};

/// Rules and files for every measurement: made from a seed, or taken from folders.
class Inputs {
 public:
  /// Empty: generated. A file of rules that does not compile by itself, or has a rule whose name was there before, is
  /// left out. Throws std::runtime_error if that leaves no rules.
  Inputs(const std::filesystem::path& rules, const std::vector<std::filesystem::path>& file_folders,
         std::uint32_t seed);

  /// Files of rules that were taken and left out.
  [[nodiscard]] std::size_t RuleFilesTaken() const { return rule_files_taken_; }
  [[nodiscard]] std::size_t RuleFilesLeftOut() const { return rule_files_left_out_; }

  /// Which numbers of rules there are to measure: `wanted` itself, or the number of the real ones.
  [[nodiscard]] std::vector<std::size_t> RuleCounts(const std::vector<std::size_t>& wanted) const;
  [[nodiscard]] std::string Rules(std::size_t count) const;
  /// Of real files those of the class's size, again and again if there are too few; for "k16" only ELF files. Empty if
  /// there are none.
  [[nodiscard]] std::vector<auto_resources::ManagedFD> Files(const FileClass& file_class) const;

 private:
  std::uint32_t seed_;
  std::string real_rules_;
  std::size_t real_rule_count_ = 0;
  std::size_t rule_files_taken_ = 0;
  std::size_t rule_files_left_out_ = 0;
  std::vector<std::filesystem::path> real_files_;
};

}  // namespace vond::bench
