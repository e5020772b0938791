#include "vondctl/problem_levels.h"

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>

#include "vondctl/exit_status.h"
#include "vondctl/json_lines.h"
#include "vondctl/policy_explainer.h"
#include "vondctl/problem_codes.h"
#include "vondctl/text.h"

namespace vond::vondctl {
std::string Plural(std::size_t count, const char* word) {
  return fmt::format("{} {}{}", count, word, count == 1 ? "" : "s");
}

void ProblemLevels::AddOptions(CLI::App& app) {
  const auto add = [&](const char* name, std::vector<std::string>& codes, const char* help) {
    app.add_option(name, codes, help)->allow_extra_args(false)->delimiter(',')->type_name("CODE");
  };
  add("--deny", deny, "Make problems of this code errors; may be repeated, or a list with commas");
  add("--warn", warn, "Make problems of this code warnings");
  add("--allow", allow, "Leave problems of this code out; not for what the daemon refuses");
}

std::string ProblemLevels::Complaint() const {
  std::vector<std::string> known;
  for (const ProblemCode& code : ProblemCodes()) {
    known.emplace_back(code.code);
  }
  std::map<std::string, const char*> seen;
  const std::vector<std::pair<const char*, const std::vector<std::string>*>> options = {
      {"--deny", &deny}, {"--warn", &warn}, {"--allow", &allow}};
  for (const auto& [option, codes] : options) {
    for (const std::string& word : *codes) {
      const ProblemCode* const code = FindProblemCode(word);
      if (code == nullptr) {
        return fmt::format("{}: there is no code \"{}\"{}", option, word, QuotedSuggestion(word, known));
      }
      if (code->refuses && codes != &deny) {
        return fmt::format("{}: {} stays an error: the daemon refuses the policy for it", option, word);
      }
      const auto [before, is_new] = seen.try_emplace(word, option);
      if (!is_new && before->second != option) {
        return fmt::format("{} is given to both {} and {}", word, before->second, option);
      }
    }
  }
  return {};
}

void ProblemLevels::Apply(std::vector<Problem>& problems) const {
  const auto contains = [](const std::vector<std::string>& codes, const std::string& code) {
    return std::find(codes.begin(), codes.end(), code) != codes.end();
  };
  std::erase_if(problems, [&](const Problem& problem) { return contains(allow, problem.code); });
  for (Problem& problem : problems) {
    if (contains(deny, problem.code)) {
      problem.severity = Severity::kError;
    } else if (contains(warn, problem.code)) {
      problem.severity = Severity::kWarning;
    }
  }
}

std::size_t Count(const std::vector<Problem>& problems, Severity severity) {
  return static_cast<std::size_t>(std::count_if(problems.begin(), problems.end(),
                                                [&](const Problem& problem) { return problem.severity == severity; }));
}

std::string CountProblems(const std::vector<Problem>& problems) {
  if (problems.empty()) {
    return "no problems";
  }
  std::string text;
  const std::vector<std::pair<Severity, const char*>> words = {
      {Severity::kError, "error"}, {Severity::kWarning, "warning"}, {Severity::kNote, "note"}};
  for (const auto& [severity, word] : words) {
    if (const std::size_t count = Count(problems, severity)) {
      text += (text.empty() ? "" : ", ") + Plural(count, word);
    }
  }
  return text;
}

nlohmann::ordered_json CheckSummaryJson(const std::vector<Problem>& problems, std::size_t files, std::size_t rules,
                                        bool accepted, int status) {
  return {{"type", "check"},
          {"files", files},
          {"rules", rules},
          {"errors", Count(problems, Severity::kError)},
          {"warnings", Count(problems, Severity::kWarning)},
          {"notes", Count(problems, Severity::kNote)},
          {"accepted", accepted},
          {"exit", status}};
}

int ReportProblems(const std::vector<Problem>& problems, const CommonOptions& common) {
  if (common.format == Format::kJsonLines) {
    for (const Problem& problem : problems) {
      WriteJsonLine(ProblemJson(problem));
    }
  } else {
    std::vector<Problem> shown = problems;
    if (common.quiet) {
      std::erase_if(shown, [](const Problem& problem) { return problem.severity == Severity::kNote; });
    }
    WriteProblems(std::cout, shown, UseColor(common.color, STDOUT_FILENO), std::numeric_limits<std::size_t>::max());
  }
  if (Count(problems, Severity::kError) > 0) {
    return kPolicyRefused;
  }
  return Count(problems, Severity::kWarning) > 0 ? kMatched : kClean;
}

}  // namespace vond::vondctl
