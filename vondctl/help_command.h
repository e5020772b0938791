#pragma once

#include "vondctl/verb.h"

namespace vond::vondctl {

/// vondctl help [VERB...]: the same text as VERB --help.
[[nodiscard]] VerbRun AddHelpCommand(CLI::App& app, const CommonOptions& common);

}  // namespace vond::vondctl
