#pragma once

#include <string>
#include <string_view>

namespace vond::vondctl {

/// Puts `content` in the place of the file at `path`, or makes it: writes a temporary file in the same folder, syncs
/// it, renames it. Whoever opens `path` sees the old file or the new one, never half of one, and after a failure the
/// old one stands and nothing is left behind. A symbolic link stays one: the file it names is replaced. An existing
/// file keeps its mode, and its owner where that is allowed; a new one has 0666 less the umask. Throws
/// std::runtime_error with path and reason.
void ReplaceFile(const std::string& path, std::string_view content);

}  // namespace vond::vondctl
