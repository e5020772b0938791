#pragma once

#include <iosfwd>
#include <string>

namespace CLI {
class App;
}

namespace vond::vondctl {

/// Writes the help of the program or of one verb, in 80 columns: usage, what it does, arguments, options, footer. In a
/// footer indented lines (examples) stay as they are, the others are filled.
void WriteHelp(std::ostream& out, const CLI::App& app);

/// "vondctl scan [options] PATH..."
[[nodiscard]] std::string UsageLine(const CLI::App& app);

}  // namespace vond::vondctl
