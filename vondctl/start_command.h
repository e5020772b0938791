#pragma once

#include "vondctl/verb.h"

namespace vond::vondctl {

/// `vondctl start`: keeps a daemon alive and relays the scans of others to it, until a signal ends it.
[[nodiscard]] VerbRun AddStartCommand(CLI::App& app, const CommonOptions& common);

}  // namespace vond::vondctl
