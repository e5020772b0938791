#pragma once

#include "vondctl/verb.h"

namespace vond::vondctl {

/// vondctl policy: what a scan with a policy file would send, and what is wrong with it.
[[nodiscard]] VerbRun AddPolicyCommand(CLI::App& app, const CommonOptions& common);

}  // namespace vond::vondctl
