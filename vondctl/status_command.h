#pragma once

#include "vondctl/verb.h"

namespace vond::vondctl {

/// `vondctl status`: what a running `vondctl start` says of itself.
[[nodiscard]] VerbRun AddStatusCommand(CLI::App& app, const CommonOptions& common);

}  // namespace vond::vondctl
