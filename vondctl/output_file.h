#pragma once

#include <string>
#include <string_view>

namespace vond::vondctl {

/// Writes what a verb has made to standard output ("-") or to the file `path`. A regular file is replaced as a whole
/// (file_replacement.h); Ctrl-C ends the process before or after that, so that it leaves the old file or the new one
/// and nothing beside it. What is no regular file, such as /dev/null or a pipe, is written to as it stands. Throws
/// std::runtime_error that names path and reason.
void WriteOutputFile(const std::string& path, std::string_view content);

}  // namespace vond::vondctl
