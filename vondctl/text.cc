#include "vondctl/text.h"

#include <fmt/format.h>

#include <cstddef>

namespace vond::vondctl {

std::string EscapeForTerminal(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0U;
    if (byte < 0x20 || byte == 0x7f) {
      result += fmt::format("\\x{:02x}", byte);
    } else if (byte == 0xc2 && next >= 0x80 && next <= 0x9f) {  // a C1 control character in UTF-8
      result += fmt::format("\\x{:02x}", next);
      ++i;
    } else {
      result += text[i];
    }
  }
  return result;
}

}  // namespace vond::vondctl
