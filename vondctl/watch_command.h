#pragma once

#include "vondctl/verb.h"

namespace vond::vondctl {

/// vondctl watch: scans files as they are closed after writing, until a signal ends it.
[[nodiscard]] VerbRun AddWatchCommand(CLI::App& app, const CommonOptions& common);

}  // namespace vond::vondctl
