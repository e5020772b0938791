#pragma once

#include "vondctl/verb.h"

namespace vond::vondctl {

/// `vondctl diff OLD NEW`: which rules two rule sets do not have in common.
[[nodiscard]] VerbRun AddDiffCommand(CLI::App& app, const CommonOptions& common);

}  // namespace vond::vondctl
