#include "vondctl/text.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>

#include "utils/utf8.h"

namespace vond::vondctl {

namespace {

// The codes by which a terminal is told to do something, and those that turn the direction of what follows, with which
// a name can look like another one.
bool IsObeyed(std::string_view character) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(character[i]); };
  if (character.size() == 1) {
    return byte(0) < 0x20 || byte(0) == 0x7f;
  }
  if (character.size() == 2) {
    return byte(0) == 0xc2 && byte(1) <= 0x9f;  // C1
  }
  return character.size() == 3 && byte(0) == 0xe2 &&
         ((byte(1) == 0x80 && (byte(2) == 0x8e || byte(2) == 0x8f || (byte(2) >= 0xaa && byte(2) <= 0xae))) ||
          (byte(1) == 0x81 && byte(2) >= 0xa6 && byte(2) <= 0xa9));
}

}  // namespace

std::string EscapeForTerminal(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const korvo::utils::Utf8Sequence sequence = korvo::utils::NextUtf8Sequence(text, at);
    const std::string_view character = text.substr(at, sequence.length);
    if (sequence.valid && !IsObeyed(character)) {
      result += character;
    } else {
      for (const char c : character) {
        result += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
      }
    }
    at += sequence.length;
  }
  return result;
}

bool UseColor(ColorMode mode, int fd) {
  if (mode != ColorMode::kAuto) {
    return mode == ColorMode::kAlways;
  }
  // NOLINTBEGIN(concurrency-mt-unsafe): nobody sets them
  const char* const no_color = std::getenv("NO_COLOR");
  const char* const terminal = std::getenv("TERM");
  // NOLINTEND(concurrency-mt-unsafe)
  const bool can = terminal != nullptr && std::string_view(terminal) != "dumb";
  return can && (no_color == nullptr || *no_color == '\0') && ::isatty(fd) == 1;
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
