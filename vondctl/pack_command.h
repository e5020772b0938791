#pragma once

#include "vondctl/verb.h"

namespace vond::vondctl {

/// `vondctl pack RULES... -o FILE`: many rule files into one that the daemon takes.
[[nodiscard]] VerbRun AddPackCommand(CLI::App& app, const CommonOptions& common);

}  // namespace vond::vondctl
