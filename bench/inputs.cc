#include "bench/inputs.h"

#include <fcntl.h>

#include <algorithm>
#include <regex>
#include <set>
#include <stdexcept>
#include <system_error>

#include "bench/real_inputs.h"
#include "bench/run.h"

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

std::set<std::string> RuleNames(const std::string& source) {
  static const std::regex rule(R"((?:^|\n)[ \t]*(?:(?:private|global)[ \t]+)*rule[ \t]+(\w+))");
  std::set<std::string> names;
  for (std::sregex_iterator match(source.begin(), source.end(), rule), end; match != end; ++match) {
    names.insert((*match)[1]);
  }
  return names;
}

bool Compiles(const std::string& source) {
  try {
    const RawYara raw(source);
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

}  // namespace

Inputs::Inputs(const std::filesystem::path& rules, const std::vector<std::filesystem::path>& file_folders,
               std::uint32_t seed)
    : seed_(seed) {
  std::set<std::string> names;
  for (const auto& path : rules.empty() ? std::vector<std::filesystem::path>() : FilesUnder(rules)) {
    if (!IsRuleFile(path)) {
      continue;
    }
    const std::string source = Adopt(ReadWhole(path), real_rule_count_);
    const std::set<std::string> own = RuleNames(source);
    if (Compiles(source) &&
        std::none_of(own.begin(), own.end(), [&](const std::string& name) { return names.contains(name); })) {
      names.insert(own.begin(), own.end());
      real_rules_ += source;
      ++rule_files_taken_;
    } else {
      ++rule_files_left_out_;
    }
  }
  real_rule_count_ = names.size();
  if (!rules.empty() && names.empty()) {
    throw std::runtime_error("no rules in " + rules.string());
  }
  for (const auto& folder : file_folders) {
    const auto found = FilesUnder(folder);
    real_files_.insert(real_files_.end(), found.begin(), found.end());
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
  std::vector<std::filesystem::path> paths;
  for (const auto& path : real_files_) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    if (error || size < file_class.min_size || size > file_class.max_size || paths.size() >= file_class.count) {
      continue;
    }
    const ManagedFD file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.IsValid() && (file_class.name != kFileClasses[0].name || IsElf(file.Get()))) {
      paths.push_back(path);
    }
  }
  std::vector<ManagedFD> files;
  for (std::size_t i = 0; !paths.empty() && i < file_class.count; ++i) {
    files.emplace_back(::open(paths[i % paths.size()].c_str(), O_RDONLY | O_CLOEXEC));
  }
  return files;
}

}  // namespace vond::bench
