#pragma once

#include "vondctl/verb.h"

namespace vond::vondctl {

/// `vondctl inspect FILE...`: what rule files hold.
[[nodiscard]] VerbRun AddInspectCommand(CLI::App& app, const CommonOptions& common);

}  // namespace vond::vondctl
