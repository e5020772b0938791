#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vondctl/daemon_options.h"
#include "vondctl/policy_options.h"

namespace CLI {
class App;
}

namespace vond::vondctl {

/// What `vondctl scan` was asked for.
struct ScanOptions : PolicyOptions {
  // What of the policy.
  std::int32_t file_type = 0;
  std::vector<std::string> rule_types;  ///< "block", "allow"; empty: all that the policy has

  // The files.
  std::vector<std::string> paths;                                   ///< "-" is standard input
  std::string files_from;                                           ///< "-" is standard input; empty: none
  bool zero_terminated = false;                                     ///< the names in `files_from`
  std::size_t max_depth = std::numeric_limits<std::size_t>::max();  ///< of folders below a named one
  std::vector<std::string> include;
  std::vector<std::string> exclude;
  std::uint64_t max_size = 0;  ///< bytes; 0: no bound
  bool one_file_system = false;
  bool follow = false;

  // The run.
  std::uint64_t max_errors = 0;           ///< 0: no bound
  std::uint32_t deadline_in_seconds = 0;  ///< for the answer to a scan that runs; 0: follows from the time-outs
  std::string connect;                    ///< the socket of a relay; empty: a daemon of our own
  std::string executable;                 ///< of vond; empty: the one that belongs to this vondctl
  SandboxChoice sandbox;

  // The results.
  bool all = false;            ///< clean files too
  bool count = false;          ///< nothing but the counts
  bool meta = false;           ///< as text: the matched rules' metadata
  bool tags = false;           ///< as text: their tags
  bool private_rules = false;  ///< private rules count and are shown
  std::string report;          ///< the JSON Lines go here as well
};

/// Adds the options to `app`, which fills what is returned. Combinations that make no sense are parse errors.
[[nodiscard]] std::shared_ptr<const ScanOptions> AddScanOptions(CLI::App& app);

/// Adds those of them that mean something to `vondctl watch`, whose paths are folders, and has `complete` called once
/// they are parsed.
[[nodiscard]] std::shared_ptr<const ScanOptions> AddScanOptionsForWatch(CLI::App& app, std::function<void()> complete);

/// "10", "10K", "10M", "10G" in bytes (K is 1024); nothing for anything else.
[[nodiscard]] std::optional<std::uint64_t> ParseSize(const std::string& text);

}  // namespace vond::vondctl
