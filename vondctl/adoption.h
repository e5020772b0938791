#pragma once

#include <map>
#include <string>
#include <vector>

#include "vondctl/action_choice.h"
#include "vondctl/rule_merge.h"

namespace vond::vondctl {

struct AdoptionOptions {
  std::string set_name;  ///< goes into the ids, so the same name must be given each time
  ActionChoice actions;
  std::map<std::string, std::string> definitions;  ///< external variables, and the YARA literals to put in their place
};

/// Makes a public rule set one that the daemon takes. Leaves out what can't be compiled and what depends on it, gives
/// rules of one name names of their own, and each rule an id of its own and an action. What a rule has of these it
/// keeps where it can; what it can't keep stays under "orig_id" and "orig_action". Nothing else of a string, condition
/// or comment changes, but for two things: names that now mean something else, and external variables that are
/// defined. Everything done is added to `decisions`.
[[nodiscard]] MergedSource Adopt(const MergedSource& source, const AdoptionOptions& options,
                                 std::vector<RuleDecision>& decisions);

/// VALUE of --define as a YARA literal: an integer, true, false, else text.
[[nodiscard]] std::string LiteralFor(const std::string& value);

}  // namespace vond::vondctl
