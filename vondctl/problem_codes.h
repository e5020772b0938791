#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "vondctl/problem.h"

namespace vond::vondctl {

/// What there is to know of one code. The codes are an interface: scripts and --deny, --allow, --warn go by them.
struct ProblemCode {
  const char* code;
  Severity severity;    ///< unless the user asked for another one
  bool refuses;         ///< the daemon, or vondctl on its behalf, refuses the policy: stays an error whatever one asks
  bool of_rules;        ///< about what stands in rule files, not about a policy or a file as such
  const char* summary;  ///< one line
  const char* explanation;  ///< what happens, an example, the way out; several lines
};

/// All codes, those of rules first, then those of policies.
[[nodiscard]] const std::vector<ProblemCode>& ProblemCodes();

/// Null for a code that does not exist.
[[nodiscard]] const ProblemCode* FindProblemCode(std::string_view code);

/// A problem of this code with its default severity, which must exist.
[[nodiscard]] Problem MakeProblem(const char* code, std::string file, long line, std::string message);

/// "; did you mean "x"?" of the word that was probably meant (suggestion.h), or nothing.
[[nodiscard]] std::string QuotedSuggestion(const std::string& word, const std::vector<std::string>& words);

}  // namespace vond::vondctl
