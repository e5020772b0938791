#pragma once

#include "vondctl/verb.h"

namespace vond::vondctl {

/// `vondctl unpack FILE`: the source in a packed rule file.
[[nodiscard]] VerbRun AddUnpackCommand(CLI::App& app, const CommonOptions& common);

}  // namespace vond::vondctl
