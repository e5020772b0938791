#pragma once

#include <string>

namespace korvo::static_pattern_matching_daemon {

/// What the agent is to do when a rule matches; the value of the metadata item "action". The daemon itself acts on
/// kDisable alone.
enum class RuleAction : int {
  kInvalid = 0,
  kDisable = 1,
  kInternal = 2,
  kSilent = 3,
  kInform = 4,
  kBlock = 5,
  kAllow = 6,
};

/// How grave a match is. 0 is "none of the known words".
enum class RuleSeverity : int {
  kUnknown = 0,
  kInform = 1,
  kLow = 2,
  kMedium = 3,
  kHigh = 4,
};

// Words are compared byte by byte, case included. Any thread.

/// kInvalid for an unknown word.
[[nodiscard]] RuleAction ActionFromWord(const std::string& word);
/// Throws std::out_of_range "array::at: ..." for anything but the seven actions.
[[nodiscard]] const std::string& WordFromAction(RuleAction action);
/// kUnknown for an unknown word.
[[nodiscard]] RuleSeverity SeverityFromWord(const std::string& word);

}  // namespace korvo::static_pattern_matching_daemon
