#pragma once

#include <string>
#include <string_view>

namespace korvo::utils {

/// `text` with every invalid UTF-8 sequence replaced by U+FFFD, one per maximal well-formed prefix (the practice of the
/// Unicode Standard, section 3.9, table 3-7). Valid text comes back unchanged. Pure; any thread.
[[nodiscard]] std::string ReplaceInvalidUtf8(std::string_view text);

}  // namespace korvo::utils
