#pragma once

#include <string>
#include <string_view>

#include "vondctl/verb.h"

namespace vond::vondctl {

/// `text` with every byte written as \xNN that is not UTF-8 or belongs to what a terminal might obey: C0 and C1 control
/// characters, DEL, and those that change the direction of writing.
[[nodiscard]] std::string EscapeForTerminal(std::string_view text);

/// Whether to colour what goes to descriptor `fd`: with kAuto if it is a terminal other than "dumb" and NO_COLOR
/// is not set or empty.
[[nodiscard]] bool UseColor(ColorMode mode, int fd);

enum class Color { kRed, kGreen, kYellow, kCyan, kBold };

/// `text` in a colour, or as it is when `enabled` is false. Takes text that is already safe for a terminal.
[[nodiscard]] std::string Paint(std::string_view text, Color color, bool enabled);

}  // namespace vond::vondctl
