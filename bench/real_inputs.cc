#include "bench/real_inputs.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

namespace vond::bench {

std::vector<std::filesystem::path> FilesUnder(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> paths;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(
           folder, std::filesystem::directory_options::skip_permission_denied)) {
    if (entry.is_regular_file() && !entry.is_symlink()) {
      paths.push_back(entry.path());
    }
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

std::string ReadWhole(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string Adopt(const std::string& source, std::size_t& rules) {
  std::istringstream lines(source);
  std::string adopted;
  for (std::string line; std::getline(lines, line);) {
    adopted += line + "\n";
    if (line.substr(std::min(line.find_first_not_of(" \t"), line.size())).starts_with("meta:")) {
      adopted += fmt::format("id = \"adopted {}\" action = \"inform\"\n", ++rules);
    }
  }
  return adopted;
}

bool IsRuleFile(const std::filesystem::path& path) { return path.extension() == ".yar" || path.extension() == ".yara"; }

}  // namespace vond::bench
