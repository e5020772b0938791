#pragma once

#include <string>

#include "agent/daemon_process.h"
#include "vondctl/verb.h"

namespace CLI {
class App;
}

namespace vond::vondctl {

struct PolicySource;

/// What a verb's daemon may do.
struct SandboxChoice {
  bool off = false;       ///< --no-sandbox
  bool required = false;  ///< --require-sandbox
  bool magic = false;     ///< a rule of the policy reads libmagic's database
};

/// Adds --no-sandbox and --require-sandbox to a verb that starts a daemon, in a group of its help if one is named.
void AddSandboxOptions(CLI::App& app, SandboxChoice& choice, const std::string& group = {});

/// Whether a rule set of the policy imports "magic".
[[nodiscard]] bool ImportsMagic(const PolicySource& policy);

/// How a verb starts its daemon: `executable`, or if that is empty the vond beside this program or where installation
/// puts it. With -v its log goes to standard error, each line with the time; without, only what its sandbox lacks, and
/// nothing with -q.
[[nodiscard]] agent::DaemonOptions DaemonOptionsFor(const std::string& executable, const CommonOptions& common,
                                                    const SandboxChoice& sandbox = {});

/// The log level that a policy asks for: errors only, since lost answers show nowhere else, or more with -v.
[[nodiscard]] std::uint32_t DaemonLogLevel(const CommonOptions& common);

}  // namespace vond::vondctl
