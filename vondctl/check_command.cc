#include "vondctl/check_command.h"

#include <Poco/Exception.h>
#include <Poco/RegularExpression.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "static_pattern_matching/rule_metadata.h"
#include "utils/assertion.h"
#include "utils/log.h"
#include "utils/rule_set_file.h"
#include "utils/utf8.h"
#include "vondctl/exit_status.h"
#include "vondctl/file_replacement.h"
#include "vondctl/json_lines.h"
#include "vondctl/policy_check.h"
#include "vondctl/policy_explainer.h"
#include "vondctl/policy_source.h"
#include "vondctl/problem_codes.h"
#include "vondctl/problem_levels.h"
#include "vondctl/rule_fixer.h"
#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

using korvo::static_pattern_matching_daemon::ActionFromWord;
using korvo::static_pattern_matching_daemon::RuleAction;
using korvo::yara::yara_lib::MetadataValueToText;
using korvo::yara::yara_lib::YaraMetadataItem;

constexpr const char* kCheckFooter =
    "All RULES together are judged as one rule set, as vondctl scan --rules would send them: every\n"
    "problem of every file in one run. Errors are what the daemon refuses, warnings and notes what it\n"
    "takes without a word. vondctl explain CODE tells what a problem means and the way out.\n"
    "\n"
    "Examples:\n"
    "  vondctl check rules/\n"
    "  vondctl check --fix --default-action inform rules/loader.yar\n"
    "  vondctl check --deny slow-string --allow private-rule --require author rules/\n"
    "  vondctl check --require 'severity=low|high' --format jsonl rules/ > out.jsonl\n"
    "  vondctl check explain slow-string\n"
    "\n"
    "Exit status: 0 no problems (notes don't count), 1 warnings, 3 errors, 64 wrong usage.\n";

constexpr const char* kExplainFooter =
    "Without CODE all codes are listed.\n"
    "\n"
    "Examples:\n"
    "  vondctl explain missing-action\n"
    "  vondctl explain --format jsonl\n"
    "\n"
    "Exit status: 0, or 64 for a code that does not exist.\n";

// --require KEY[=REGEX]
struct Requirement {
  std::string key;
  std::string pattern;  // as given; empty for any value
  std::shared_ptr<Poco::RegularExpression> regex;
};

struct CheckArguments {
  std::vector<std::string> rules;
  ProblemLevels levels;
  std::vector<std::string> require;
  bool fix = false;
  std::string default_action;
};

void Complain(const std::string& text) { std::cerr << "vondctl: " << EscapeForTerminal(text) << '\n'; }

// Throws Poco::Exception for a bad expression.
std::vector<Requirement> ParseRequirements(const std::vector<std::string>& texts) {
  std::vector<Requirement> requirements;
  for (const std::string& text : texts) {
    const std::size_t equals = text.find('=');
    Requirement requirement;
    requirement.key = text.substr(0, equals);
    if (equals != std::string::npos) {
      requirement.pattern = text.substr(equals + 1);
      requirement.regex = std::make_shared<Poco::RegularExpression>(
          "(?:" + requirement.pattern + ")\\z",
          Poco::RegularExpression::RE_ANCHORED | Poco::RegularExpression::RE_UTF8);
    }
    requirements.push_back(std::move(requirement));
  }
  return requirements;
}

bool Matches(const Requirement& requirement, const std::string& value) {
  if (requirement.regex == nullptr) {
    return !value.empty();
  }
  Poco::RegularExpression::Match match;
  try {
    return requirement.regex->match(korvo::utils::ReplaceInvalidUtf8(value), 0, match) > 0;
  } catch (const Poco::Exception&) {  // too much work for the expression
    return false;
  }
}

void CheckRequirement(const Requirement& requirement, const CheckedRule& rule, std::vector<Problem>& problems) {
  bool present = false;
  for (const YaraMetadataItem& item : rule.info.metadata) {
    if (item.key == requirement.key) {
      present = true;
      if (Matches(requirement, MetadataValueToText(item.value))) {
        return;
      }
    }
  }
  std::string message = fmt::format("rule \"{}\" has no metadata item \"{}\"", rule.info.name, requirement.key);
  if (present && requirement.pattern.empty()) {
    message = fmt::format("the \"{}\" of rule \"{}\" is empty", requirement.key, rule.info.name);
  } else if (present) {
    message = fmt::format("the \"{}\" of rule \"{}\" does not match {}", requirement.key, rule.info.name,
                          requirement.pattern);
  }
  problems.push_back(RuleProblem("missing-metadata", rule, std::move(message)));
}

// Mends what can be mended. What can't is added to `problems`.
void Fix(const PolicySource& policy, const CheckArguments& arguments, const CommonOptions& common,
         std::vector<Problem>& problems) {
  for (const RuleFile& file : policy.rule_sets.front().files) {
    if (file.content.starts_with(korvo::utils::kPackedRuleSetMark)) {
      continue;  // the problems say so
    }
    const FixedSource fixed =
        AddMissingMetadata(file.content, std::filesystem::path(file.path).stem().string(), arguments.default_action);
    if (fixed.text == file.content) {
      continue;
    }
    try {
      ReplaceFile(file.path, fixed.text);
    } catch (const std::exception& e) {
      problems.push_back(MakeProblem("unfixable", file.path, 0, fmt::format("could not be written: {}", e.what())));
      continue;
    }
    if (!common.quiet) {
      std::cerr << fmt::format("vondctl: {}: added {} and {}\n", EscapeForTerminal(file.path), Plural(fixed.ids, "id"),
                               Plural(fixed.actions, "action"));
    }
  }
}

void WriteSummary(const std::vector<Problem>& problems, std::size_t files, std::size_t rules, bool accepted, int status,
                  const CommonOptions& common) {
  if (common.format == Format::kJsonLines) {
    WriteJsonLine(CheckSummaryJson(problems, files, rules, accepted, status));
  }
  if (!common.quiet) {
    std::cerr << fmt::format("vondctl: {} in {}: {}; the daemon {} them\n", Plural(rules, "rule"),
                             Plural(files, "file"), CountProblems(problems), accepted ? "takes" : "refuses");
  }
}

int RunCheck(const CheckArguments& arguments, const CommonOptions& common) {
  // The daemon's code runs here, and would log to standard output.
  korvo::utils::SetLogLevel(0);
  korvo::utils::EnableAssertionLines(false);
  std::string complaint = arguments.levels.Complaint();
  if (complaint.empty() && !arguments.default_action.empty()) {
    if (!arguments.fix) {
      complaint = "--default-action needs --fix";
    } else if (ActionFromWord(arguments.default_action) == RuleAction::kInvalid) {
      complaint = fmt::format(
          "--default-action: \"{}\" is not an action{}", arguments.default_action,
          QuotedSuggestion(arguments.default_action, {"disable", "internal", "silent", "inform", "block", "allow"}));
    }
  }
  std::vector<Requirement> requirements;
  try {
    requirements = ParseRequirements(arguments.require);
  } catch (const Poco::Exception& e) {
    complaint = fmt::format("--require: not a regular expression: {}", e.message());
  }
  if (!complaint.empty()) {
    Complain(complaint);
    return kUsage;
  }

  std::vector<Problem> problems;
  PolicySource policy = ReadRules(arguments.rules, 0, problems);
  if (arguments.fix) {
    Fix(policy, arguments, common, problems);
    std::erase_if(problems, [](const Problem& problem) { return problem.code != std::string_view("unfixable"); });
    policy = ReadRules(arguments.rules, 0, problems);
  }
  PolicyFindings findings = CheckPolicy(policy, std::move(problems));
  const CheckedRuleSet& rule_set = findings.rule_sets.front();
  if (Count(findings.problems, Severity::kError) == 0) {
    // The last word is the daemon's own.
    std::vector<Problem> refusal = LoadPolicy(policy).problems;
    std::move(refusal.begin(), refusal.end(), std::back_inserter(findings.problems));
  }
  // What --require and --deny make errors is none of the daemon's business.
  const bool accepted = Count(findings.problems, Severity::kError) == 0;
  for (const CheckedRule& rule : rule_set.rules) {
    for (const Requirement& requirement : requirements) {
      CheckRequirement(requirement, rule, findings.problems);
    }
  }
  arguments.levels.Apply(findings.problems);
  const int status = ReportProblems(findings.problems, common);
  WriteSummary(findings.problems, CountRuleFiles(policy), rule_set.rules.size(), accepted, status, common);
  return status;
}

int RunExplain(const std::vector<std::string>& words, const CommonOptions& common) {
  std::vector<std::string> known;
  std::vector<const ProblemCode*> codes;
  for (const ProblemCode& code : ProblemCodes()) {
    known.emplace_back(code.code);
    if (words.empty()) {
      codes.push_back(&code);
    }
  }
  for (const std::string& word : words) {
    codes.push_back(FindProblemCode(word));
    if (codes.back() == nullptr) {
      Complain(fmt::format("there is no code \"{}\"{}", word, QuotedSuggestion(word, known)));
      return kUsage;
    }
  }
  for (const ProblemCode* const code : codes) {
    const std::string severity = SeverityName(code->severity);
    if (common.format == Format::kJsonLines) {
      WriteJsonLine({{"type", "code"},
                     {"code", code->code},
                     {"severity", severity},
                     {"refused", code->refuses},
                     {"summary", code->summary},
                     {"explanation", code->explanation}});
    } else if (words.empty()) {
      std::cout << fmt::format("{:<24} {:<8} {}\n", code->code, severity, code->summary);
    } else {
      std::cout << fmt::format("{} ({}): {}\n\n{}\n", code->code, severity, code->summary, code->explanation);
    }
  }
  return kClean;
}

}  // namespace

VerbRun AddCheckCommand(CLI::App& app, const CommonOptions& common) {
  const auto arguments = std::make_shared<CheckArguments>();
  app.add_option("RULES", arguments->rules,
                 "Rule files, sources or packed, and folders of *.yar and *.yara files; or explain CODE")
      ->required()
      ->type_name("RULES");
  arguments->levels.AddOptions(app);
  app.add_option("--require", arguments->require,
                 "Every rule must have this metadata item, with a value that matches; may be repeated")
      ->allow_extra_args(false)
      ->type_name("KEY[=REGEX]");
  app.add_flag("--fix", arguments->fix,
               "Add missing ids, and with --default-action missing actions, to the sources in place");
  app.add_option("--default-action", arguments->default_action, "What --fix gives rules that have no action")
      ->type_name("WORD");
  app.footer(kCheckFooter);
  return [arguments, &common] {
    std::error_code error;
    if (arguments->rules.front() == "explain" && !std::filesystem::exists("explain", error)) {
      return RunExplain({arguments->rules.begin() + 1, arguments->rules.end()}, common);
    }
    return RunCheck(*arguments, common);
  };
}

VerbRun AddExplainCommand(CLI::App& app, const CommonOptions& common) {
  const auto words = std::make_shared<std::vector<std::string>>();
  app.add_option("CODE", *words, "The codes to explain")->type_name("");
  app.footer(kExplainFooter);
  return [words, &common] { return RunExplain(*words, common); };
}

}  // namespace vond::vondctl
