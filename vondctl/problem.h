#pragma once

#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace vond::vondctl {

enum class Severity { kError, kWarning, kNote };

/// "error", "warning" or "note".
[[nodiscard]] const char* SeverityName(Severity severity);

/// Something wrong with a rule, a rule file or a policy.
struct Problem {
  std::string code;  ///< stable, such as "missing-action"; see problem_codes.h
  Severity severity = Severity::kError;
  std::string file;  ///< path as the user gave it; empty when it is about none
  long line = 0;     ///< from 1; 0 when it has no place
  std::string rule;  ///< its name, if it is about one
  std::string message;
  std::string excerpt;             ///< the source line, without its newline
  std::vector<std::string> notes;  ///< further lines for people: why it matters
  std::string fix;                 ///< the next step, a command or a hint ("fix: " goes before it)
};

/// {"type":"problem","code":...,"severity":...,"file":...,"line":...,"rule":...,"message":...}; members without a value
/// are left out.
[[nodiscard]] nlohmann::ordered_json ProblemJson(const Problem& problem);

/// Writes a problem for people, control characters escaped:
///
///     rules/loader.yar:7: error[missing-action]: rule "Loader_A" has no metadata item "action"
///         7 | rule Loader_A : trojan {
///       one rule without "id" or "action" makes the daemon refuse the whole policy
///       fix: vondctl check --fix --default-action inform rules/loader.yar
void WriteProblem(std::ostream& out, const Problem& problem, bool color);

}  // namespace vond::vondctl
