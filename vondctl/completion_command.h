#pragma once

#include "vondctl/verb.h"

namespace vond::vondctl {

/// vondctl completion bash|zsh|fish: a script for that shell, made from the table of verbs and options.
[[nodiscard]] VerbRun AddCompletionCommand(CLI::App& app, const CommonOptions& common);

}  // namespace vond::vondctl
