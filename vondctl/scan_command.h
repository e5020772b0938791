#pragma once

#include "vondctl/verb.h"

namespace vond::vondctl {

/// vondctl scan: starts a private daemon, sends it the policy, scans, reports.
[[nodiscard]] VerbRun AddScanCommand(CLI::App& app, const CommonOptions& common);

}  // namespace vond::vondctl
