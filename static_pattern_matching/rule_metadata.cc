#include "static_pattern_matching/rule_metadata.h"

#include <array>
#include <cstddef>
#include <unordered_map>

#include "utils/checked_access.h"

namespace korvo::static_pattern_matching_daemon {
namespace {

// The value of `word`, or the value 0.
template <typename Value>
Value ValueOf(const std::unordered_map<std::string, Value>& values, const std::string& word) {
  const auto it = values.find(word);
  return it == values.end() ? Value{} : it->second;
}

}  // namespace

RuleAction ActionFromWord(const std::string& word) {
  static const std::unordered_map<std::string, RuleAction> kActions = {
      {"invalid", RuleAction::kInvalid},   {"disable", RuleAction::kDisable}, {"disabled", RuleAction::kDisable},
      {"internal", RuleAction::kInternal}, {"silent", RuleAction::kSilent},   {"inform", RuleAction::kInform},
      {"block", RuleAction::kBlock},       {"allow", RuleAction::kAllow},
  };
  return ValueOf(kActions, word);
}

const std::string& WordFromAction(RuleAction action) {
  static const std::array<std::string, 7> kWords = {"invalid", "disable", "internal", "silent",
                                                    "inform",  "block",   "allow"};
  return korvo::utils::ArrayAt(kWords, static_cast<std::size_t>(action));
}

RuleSeverity SeverityFromWord(const std::string& word) {
  static const std::unordered_map<std::string, RuleSeverity> kSeverities = {
      {"inform", RuleSeverity::kInform}, {"informational", RuleSeverity::kInform},
      {"low", RuleSeverity::kLow},       {"medium", RuleSeverity::kMedium},
      {"high", RuleSeverity::kHigh},
  };
  return ValueOf(kSeverities, word);
}

}  // namespace korvo::static_pattern_matching_daemon
