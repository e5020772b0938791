#include "vondctl/policy_explainer.h"

#include <Poco/Exception.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "static_pattern_matching/json_conversion.h"
#include "static_pattern_matching/yara_config.h"
#include "vondctl/json_lines.h"
#include "vondctl/policy_check.h"
#include "vondctl/problem_codes.h"
#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

using auto_resources::ManagedFD;
using korvo::static_pattern_matching_daemon::JsonToMessage;
using korvo::static_pattern_matching_daemon::YaraConfig;
using korvo::static_pattern_matching_daemon::YaraConfigLoadFailure;

// More than these help nobody who only wanted to scan.
constexpr std::size_t kMaxProblemsInRefusal = 20;

// A descriptor of the same file with a position of its own: the daemon reads through the one it was sent.
ManagedFD Reopen(const ManagedFD& fd) {
  return ManagedFD(::open(fmt::format("/proc/self/fd/{}", fd.Get()).c_str(), O_RDONLY | O_CLOEXEC));
}

std::vector<RuleSetCount> CountRules(const PolicySource& policy, const YaraConfig& config) {
  std::vector<RuleSetCount> counts;
  for (std::size_t i = 0; i < policy.rule_sets.size(); ++i) {
    const RuleSetSource& rule_set = policy.rule_sets[i];
    const bool replaced =
        std::any_of(policy.rule_sets.begin() + static_cast<std::ptrdiff_t>(i) + 1, policy.rule_sets.end(),
                    [&](const RuleSetSource& later) {
                      return later.file_type == rule_set.file_type && later.rule_type == rule_set.rule_type;
                    });
    if (!replaced) {
      counts.push_back({rule_set.file_type, rule_set.rule_type,
                        config.GetRuleSets().at(rule_set.file_type).at(rule_set.rule_type)->size()});
    }
  }
  return counts;
}

// Throws what the daemon's code throws.
std::vector<RuleSetCount> Load(const PolicySource& policy, YaraConfigLoadFailure& failure) {
  static_pattern_matching_proto::UserConfigData document = policy.document;
  if (!policy.json.empty()) {
    document.Clear();
    if (JsonToMessage(policy.json, document) != 0) {
      throw YaraConfig::Exception("the document is not a policy");
    }
  }
  std::vector<ManagedFD> owned;
  std::vector<int> fds;
  for (const ManagedFD& fd : policy.rule_set_fds) {
    owned.push_back(Reopen(fd));
    fds.push_back(owned.back().Get());
  }
  return CountRules(policy, YaraConfig(document, fds, &failure));
}

// The file that a failure is about, if the daemon's code tells.
std::string FileOf(const PolicySource& policy, const YaraConfigLoadFailure& failure) {
  const auto index = static_cast<std::size_t>(failure.rule_set);
  if (failure.rule_set < 0 || index >= policy.rule_sets.size() || policy.rule_sets[index].files.empty()) {
    return policy.path;
  }
  return policy.rule_sets[index].files.front().path;
}

}  // namespace

PolicyJudgement LoadPolicy(const PolicySource& policy) {
  PolicyJudgement judgement;
  YaraConfigLoadFailure failure;
  std::string what;
  try {
    judgement.rule_sets = Load(policy, failure);
    return judgement;
  } catch (const Poco::Exception& e) {
    what = e.displayText();
  } catch (const std::exception& e) {
    what = e.what();
  }
  if (!failure.compiler_messages.empty()) {
    what = fmt::format("line {}: {}", failure.compiler_messages.front().line_number,
                       failure.compiler_messages.front().message);
  }
  Problem problem = MakeProblem("refused", FileOf(policy, failure), 0, what);
  problem.rule = failure.rule_name;
  judgement.problems.push_back(std::move(problem));
  return judgement;
}

PolicyJudgement JudgePolicy(const PolicySource& policy) {
  PolicyJudgement judgement = LoadPolicy(policy);
  if (!judgement.problems.empty()) {
    std::vector<Problem> errors = CheckPolicy(policy).problems;
    std::erase_if(errors, [](const Problem& problem) { return problem.severity != Severity::kError; });
    if (!errors.empty()) {
      judgement.problems = std::move(errors);
    }
  }
  return judgement;
}

std::string CountErrors(const std::vector<Problem>& problems, std::size_t rule_files) {
  std::size_t errors = 0;
  bool all_in_rules = true;
  std::set<std::string> files;
  for (const Problem& problem : problems) {
    if (problem.severity == Severity::kError) {
      ++errors;
      files.insert(problem.file);
      const ProblemCode* const code = FindProblemCode(problem.code);
      all_in_rules = all_in_rules && code != nullptr && code->of_rules && !problem.file.empty();
    }
  }
  const std::string count = fmt::format("{} error{}", errors, errors == 1 ? "" : "s");
  return all_in_rules && files.size() <= rule_files
             ? fmt::format("{} in {} of {} rule file{}", count, files.size(), rule_files, rule_files == 1 ? "" : "s")
             : count;
}

std::size_t CountRuleFiles(const PolicySource& policy) {
  std::size_t count = 0;
  for (const RuleSetSource& rule_set : policy.rule_sets) {
    count += rule_set.files.size();
  }
  return count;
}

void WriteProblems(std::ostream& out, const std::vector<Problem>& problems, bool color, std::size_t limit) {
  std::set<std::string> shown;
  for (std::size_t i = 0; i < problems.size() && i < limit; ++i) {
    Problem problem = problems[i];
    std::erase_if(problem.notes, [&](const std::string& note) { return !shown.insert(note).second; });
    if (!problem.fix.empty() && !shown.insert(problem.fix).second) {
      problem.fix.clear();
    }
    WriteProblem(out, problem, color);
  }
  if (problems.size() > limit) {
    out << fmt::format("... and {} more\n", problems.size() - limit);
  }
}

void WriteRefusal(const std::vector<Problem>& problems, std::size_t rule_files, const CommonOptions& common) {
  std::cerr << fmt::format("vondctl: policy refused: {}\n", CountErrors(problems, rule_files));
  if (common.format == Format::kJsonLines) {
    for (const Problem& problem : problems) {
      WriteJsonLine(ProblemJson(problem));
    }
    std::cout.flush();
  } else {
    WriteProblems(std::cerr, problems, UseColor(common.color, STDERR_FILENO), kMaxProblemsInRefusal);
  }
}

}  // namespace vond::vondctl
