#pragma once

#include <string>
#include <string_view>

namespace vond::vondctl {

/// A rule file as it stands on disk and the source that it holds.
struct LoadedRuleFile {
  std::string path;
  bool is_packed = false;
  std::string content;
  std::string source;
};

/// Reads a rule file, a packed one strictly: it comes out whole or not at all. "-" is standard input. Throws
/// PolicyError with path and reason.
[[nodiscard]] LoadedRuleFile LoadRuleFile(const std::string& path);

/// Packs `source` (or, with `plain`, leaves it as it is), then decodes the result as the daemon would and compares.
/// Throws std::runtime_error when the daemon would not take it back whole.
[[nodiscard]] std::string PackVerified(const std::string& source, bool plain);

/// SHA-256 in hexadecimal.
[[nodiscard]] std::string Sha256(std::string_view content);

}  // namespace vond::vondctl
