#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vondctl/policy_source.h"

namespace CLI {
class App;
}

namespace vond::vondctl {

/// The policy that a daemon is to have: a file, or made of rules.
struct PolicyOptions {
  std::string policy;
  std::vector<std::string> rules;        ///< block rules: files and folders
  std::vector<std::string> allow_rules;  ///< allow rules
  std::uint32_t workers = 0;             ///< 0: one per processor
  std::uint32_t timeout_in_seconds = 30;
  std::uint32_t retries_on_match = 0;
};

/// Adds the options to `app`, which fills `options`.
void AddPolicyOptions(CLI::App& app, PolicyOptions& options);

/// Throws the parse error of a command line that names no policy.
void RequirePolicy(const PolicyOptions& options);

/// Reads what is named. Throws PolicyError.
[[nodiscard]] PolicySource MakePolicy(const PolicyOptions& options);

/// For an option whose number must not be 0: what is wrong with `text`, or nothing.
[[nodiscard]] std::string CheckPositive(const std::string& text);

/// Of this machine, at least 1.
[[nodiscard]] std::uint32_t Processors();

}  // namespace vond::vondctl
