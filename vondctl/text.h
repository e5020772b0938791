#pragma once

#include <string>
#include <string_view>

namespace vond::vondctl {

/// `text` with everything in it that a terminal might obey (C0 and C1 control characters, DEL) written as \xNN.
[[nodiscard]] std::string EscapeForTerminal(std::string_view text);

}  // namespace vond::vondctl
