#pragma once

#include "vondctl/verb.h"

namespace vond::vondctl {

/// `vondctl bench --rules RULES PATH...`: how fast vond is with the user's own rules and files, beside raw libyara.
[[nodiscard]] VerbRun AddBenchCommand(CLI::App& app, const CommonOptions& common);

}  // namespace vond::vondctl
