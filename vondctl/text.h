#pragma once

#include <string>
#include <string_view>

#include "vondctl/verb.h"

namespace vond::vondctl {

/// `text` with everything in it that a terminal might obey (C0 and C1 control characters, DEL) written as \xNN.
[[nodiscard]] std::string EscapeForTerminal(std::string_view text);

/// Whether to colour what goes to descriptor `fd`: with kAuto if it is a terminal and NO_COLOR is not set or empty.
[[nodiscard]] bool UseColor(ColorMode mode, int fd);

enum class Color { kRed, kGreen, kYellow, kCyan, kBold };

/// `text` in a colour, or as it is when `enabled` is false. Takes text that is already safe for a terminal.
[[nodiscard]] std::string Paint(std::string_view text, Color color, bool enabled);

}  // namespace vond::vondctl
