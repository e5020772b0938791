#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "vondctl/problem.h"
#include "vondctl/verb.h"

namespace vond::vondctl {

/// --deny, --warn and --allow: which codes count as errors, as warnings, or not at all.
struct ProblemLevels {
  std::vector<std::string> deny;
  std::vector<std::string> warn;
  std::vector<std::string> allow;

  void AddOptions(CLI::App& app);
  /// What is wrong with what was given (an unknown code, one given twice, or one whose problems the daemon refuses made
  /// less than an error); empty if nothing.
  [[nodiscard]] std::string Complaint() const;
  /// Gives each problem its severity and drops those allowed.
  void Apply(std::vector<Problem>& problems) const;
};

/// Writes problems to standard output, notes only unless --quiet, and returns the exit status: 3 with an error, 1 with
/// a warning, else 0.
[[nodiscard]] int ReportProblems(const std::vector<Problem>& problems, const CommonOptions& common);

/// "2 errors, 1 warning, 3 notes", or "no problems".
[[nodiscard]] std::string CountProblems(const std::vector<Problem>& problems);

/// {"type":"check","files":...,"rules":...,"errors":...,"warnings":...,"notes":...,"accepted":...,"exit":...}: the last
/// line of check and policy. `accepted`: the daemon takes it.
[[nodiscard]] nlohmann::ordered_json CheckSummaryJson(const std::vector<Problem>& problems, std::size_t files,
                                                      std::size_t rules, bool accepted, int status);

/// "1 rule", "2 rules".
[[nodiscard]] std::string Plural(std::size_t count, const char* word);

/// How many of them have this severity.
[[nodiscard]] std::size_t Count(const std::vector<Problem>& problems, Severity severity);

}  // namespace vond::vondctl
