#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace vond::bench {

/// The regular files below `folder`, symbolic links left out, by name.
[[nodiscard]] std::vector<std::filesystem::path> FilesUnder(const std::filesystem::path& folder);

[[nodiscard]] std::string ReadWhole(const std::filesystem::path& path);

/// Rules of other people with an "id" and "action" behind each line "meta:", which they lack. Adds their number to
/// `rules`.
[[nodiscard]] std::string Adopt(const std::string& source, std::size_t& rules);

/// Whether the name is that of a file of rules.
[[nodiscard]] bool IsRuleFile(const std::filesystem::path& path);

}  // namespace vond::bench
