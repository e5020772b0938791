#pragma once

#include <string>

namespace vond::bench {

// Raw libyara as it is in a new process, like a new daemon. Each prints what is resident at its end, and what
// was at most, in KiB, and the seconds that compiling took; and returns an exit status.

/// Compiles the rules in the file `source`, and saves them as `source` + ".out".
int RunRawCompile(const std::string& source);
/// Loads compiled rules; none for an empty name.
int RunRawLoad(const std::string& image);

}  // namespace vond::bench
