#pragma once

#include "vondctl/verb.h"

namespace vond::vondctl {

/// `vondctl adopt DIR... -o FILE`: makes a public rule set loadable.
[[nodiscard]] VerbRun AddAdoptCommand(CLI::App& app, const CommonOptions& common);

}  // namespace vond::vondctl
