#pragma once

#include "vondctl/verb.h"

namespace vond::vondctl {

/// vondctl check: what the daemon would say of rule files, and what it would not.
[[nodiscard]] VerbRun AddCheckCommand(CLI::App& app, const CommonOptions& common);

/// vondctl explain: the codes of problems in words.
[[nodiscard]] VerbRun AddExplainCommand(CLI::App& app, const CommonOptions& common);

}  // namespace vond::vondctl
