#pragma once

namespace vond::vondctl {

/// How vondctl ends, the same for every verb.
enum ExitStatus : int {
  kClean = 0,          ///< everything was scanned, nothing matched
  kMatched = 1,        ///< something matched, everything was scanned
  kNotScanned = 2,     ///< something was not scanned, whatever else matched
  kPolicyRefused = 3,  ///< the policy or its rules were refused
  kDaemonFailed = 4,   ///< the daemon did not start, died or did not answer
  kUsage = 64,         ///< wrong command line
};

}  // namespace vond::vondctl
