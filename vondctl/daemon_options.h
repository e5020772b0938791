#pragma once

#include <string>

#include "agent/daemon_process.h"
#include "vondctl/verb.h"

namespace vond::vondctl {

/// How a verb starts its daemon: `executable`, or if that is empty the vond beside this program or where installation
/// puts it. With -v its log goes to standard error, each line with the time.
[[nodiscard]] agent::DaemonOptions DaemonOptionsFor(const std::string& executable, const CommonOptions& common);

/// The log level that a policy asks for: errors only, since lost answers show nowhere else, or more with -v.
[[nodiscard]] std::uint32_t DaemonLogLevel(const CommonOptions& common);

}  // namespace vond::vondctl
