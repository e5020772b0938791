#include "vondctl/text.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>

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

bool UseColor(ColorMode mode, int fd) {
  if (mode != ColorMode::kAuto) {
    return mode == ColorMode::kAlways;
  }
  const char* const no_color = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  return (no_color == nullptr || *no_color == '\0') && ::isatty(fd) == 1;
}

std::string Paint(std::string_view text, Color color, bool enabled) {
  if (!enabled) {
    return std::string(text);
  }
  const char* code = "1";
  switch (color) {
    case Color::kRed:
      code = "1;31";
      break;
    case Color::kGreen:
      code = "32";
      break;
    case Color::kYellow:
      code = "33";
      break;
    case Color::kCyan:
      code = "36";
      break;
    case Color::kBold:
      break;
  }
  return fmt::format("\x1b[{}m{}\x1b[0m", code, text);
}

}  // namespace vond::vondctl
