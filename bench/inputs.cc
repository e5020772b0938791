#include "bench/inputs.h"

#include <fcntl.h>

#include <stdexcept>
#include <system_error>

#include "bench/real_inputs.h"

namespace vond::bench {
namespace {

using auto_resources::ManagedFD;

bool IsElf(int fd) {
  std::array<char, 4> start{};
  return ::pread(fd, start.data(), start.size(), 0) == static_cast<ssize_t>(start.size()) &&
         std::string_view(start.data(), start.size()) ==
             "\x7f"
             "ELF";
}

}  // namespace

Inputs::Inputs(const std::filesystem::path& rules, const std::filesystem::path& files, std::uint32_t seed)
    : seed_(seed) {
  if (!rules.empty()) {
    for (const auto& path : FilesUnder(rules)) {
      if (IsRuleFile(path)) {
        real_rules_ += Adopt(ReadWhole(path), real_rule_count_);
      }
    }
    if (real_rule_count_ == 0) {
      throw std::runtime_error("no rules in " + rules.string());
    }
  }
  if (!files.empty()) {
    real_files_ = FilesUnder(files);
  }
}

std::vector<std::size_t> Inputs::RuleCounts(const std::vector<std::size_t>& wanted) const {
  return real_rules_.empty() ? wanted : std::vector<std::size_t>{real_rule_count_};
}

std::string Inputs::Rules(std::size_t count) const {
  return real_rules_.empty() ? MakeRules(count, seed_) : real_rules_;
}

std::vector<ManagedFD> Inputs::Files(const FileClass& file_class) const {
  if (real_files_.empty()) {
    return MakeFiles(file_class, seed_);
  }
  std::vector<ManagedFD> files;
  for (const auto& path : real_files_) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    if (error || size < file_class.min_size || size > file_class.max_size || files.size() >= file_class.count) {
      continue;
    }
    ManagedFD file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.IsValid() && (file_class.name != kFileClasses[0].name || IsElf(file.Get()))) {
      files.push_back(std::move(file));
    }
  }
  return files;
}

}  // namespace vond::bench
