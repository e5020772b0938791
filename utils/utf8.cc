#include "utils/utf8.h"

namespace korvo::utils {

Utf8Sequence NextUtf8Sequence(std::string_view text, std::size_t at) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned lead = byte(at);
  if (lead < 0x80) {
    return {1, true};
  }
  std::size_t continuation = 0;
  // Bounds of the second byte: they rule out overlong forms, surrogates and values above U+10FFFF.
  unsigned low = 0x80;
  unsigned high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    continuation = 1;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    continuation = 2;
    low = lead == 0xE0 ? 0xA0 : low;
    high = lead == 0xED ? 0x9F : high;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    continuation = 3;
    low = lead == 0xF0 ? 0x90 : low;
    high = lead == 0xF4 ? 0x8F : high;
  } else {
    return {1, false};
  }
  std::size_t length = 1;
  while (length <= continuation) {
    if (at + length >= text.size() || byte(at + length) < low || byte(at + length) > high) {
      return {length, false};
    }
    low = 0x80;
    high = 0xBF;
    ++length;
  }
  return {length, true};
}

std::string ReplaceInvalidUtf8(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const Utf8Sequence sequence = NextUtf8Sequence(text, at);
    if (sequence.valid) {
      result.append(text.substr(at, sequence.length));
    } else {
      result.append("\xEF\xBF\xBD");
    }
    at += sequence.length;
  }
  return result;
}

}  // namespace korvo::utils
