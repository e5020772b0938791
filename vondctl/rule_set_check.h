#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "vondctl/policy_source.h"
#include "vondctl/problem.h"
#include "vondctl/rule_compiler.h"
#include "yara/yara_lib/yara_rule_set.h"

namespace vond::vondctl {

/// A rule of a set, whether it compiles or not, and where it stands.
struct CheckedRule {
  korvo::yara::yara_lib::YaraRuleInfo info;
  bool is_global = false;
  bool compiles = true;
  std::string file;  ///< empty when the sources don't show it
  bool is_packed = false;
  long line = 0;
  std::string excerpt;
};

/// What can be said of a rule set without its policy.
struct RuleSetFindings {
  std::vector<Problem> problems;   ///< by file and line
  std::vector<CheckedRule> rules;  ///< those that compile first, in the compiler's order
  CompiledSource compiled;         ///< of the rules that compile; without rules when nothing does
};

/// Looks at a rule set as the daemon will compile it, all files as one source. Where that does not compile, what is
/// wrong is reported and left out, and the rest compiled, until it does: so every rule's problem shows, with its own
/// file and line. Packed files must be whole. Takes one compilation of a good set; a few of a bad one.
[[nodiscard]] RuleSetFindings CheckRuleSet(const RuleSetSource& rule_set);

/// A problem of this rule, at its place and with its line.
[[nodiscard]] Problem RuleProblem(const char* code, const CheckedRule& rule, std::string message);

}  // namespace vond::vondctl
