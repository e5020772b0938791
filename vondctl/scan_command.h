#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vondctl/report.h"

namespace vond::vondctl {

/// What `vondctl scan` was asked for.
struct ScanArguments {
  std::vector<std::string> rules;  ///< rule files and folders; or else
  std::string policy;              ///< a policy file
  std::vector<std::string> paths;  ///< what to scan
  std::int32_t file_type = 0;
  std::uint32_t timeout_in_seconds = 30;  ///< for `rules`; a policy file has its own
  std::string executable;                 ///< of vond; empty: the one that belongs to this vondctl
  int verbosity = 0;                      ///< 1 relays the daemon's log from INFO on, 2 from DEBUG on
  Reporter::Options report;
};

/// Starts a private daemon, sends it the policy, scans, reports. Returns the exit status.
[[nodiscard]] int RunScan(const ScanArguments& arguments);

}  // namespace vond::vondctl
