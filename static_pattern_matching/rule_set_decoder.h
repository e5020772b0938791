#pragma once

#include <cstddef>
#include <string>

namespace korvo::static_pattern_matching_daemon {

/// The most text, in bytes, that a packed rule-set file may hold: 1 MB of gzip can stand for 1 GB.
inline constexpr std::size_t kMaxRuleSetText = std::size_t{256} << 20;

/// Turns the content of a rule-set file into YARA source. Content that begins with the mark "ENCY" is decrypted and
/// inflated, any other comes back unchanged. A packed file comes out whole or not at all: whatever is cut, flipped,
/// appended, larger than `max_text` or encrypted with another key throws, either the exception of the library that
/// noticed or std::runtime_error. Any thread.
[[nodiscard]] std::string DecodeRuleSet(std::string content, std::size_t max_text = kMaxRuleSetText);

}  // namespace korvo::static_pattern_matching_daemon
