#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace korvo::utils {

/// Bytes of a text that belong together: a whole character, or the longest well-formed prefix of one.
struct Utf8Sequence {
  std::size_t length;  ///< in bytes, at least 1
  bool valid;
};

/// The sequence that starts at text[at], which must exist.
[[nodiscard]] Utf8Sequence NextUtf8Sequence(std::string_view text, std::size_t at);

/// `text` with every invalid UTF-8 sequence replaced by U+FFFD, one per maximal well-formed prefix (the practice of the
/// Unicode Standard, section 3.9, table 3-7). Valid text comes back unchanged. Pure; any thread.
[[nodiscard]] std::string ReplaceInvalidUtf8(std::string_view text);

}  // namespace korvo::utils
