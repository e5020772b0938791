#include "vondctl/policy_command.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "agent/client.h"
#include "static_pattern_matching/rule_metadata.h"
#include "utils/assertion.h"
#include "utils/log.h"
#include "vondctl/exit_status.h"
#include "vondctl/json_lines.h"
#include "vondctl/policy_check.h"
#include "vondctl/policy_explainer.h"
#include "vondctl/policy_source.h"
#include "vondctl/problem_codes.h"
#include "vondctl/problem_levels.h"
#include "vondctl/text.h"
#include "yara/yara_lib/yara_rule_set.h"

namespace vond::vondctl {
namespace {

using korvo::static_pattern_matching_daemon::ActionFromWord;
using korvo::static_pattern_matching_daemon::RuleAction;
using korvo::yara::yara_lib::MetadataValueToText;
using nlohmann::ordered_json;
using static_pattern_matching_proto::RuleOverride;

constexpr const char* kPolicyFooter =
    "check lists everything that the daemon would refuse or silently skip; show also prints what a scan\n"
    "with the policy would send: settings, rule sets with their counts, which override reaches which\n"
    "rules, and the JSON document itself. No daemon is started.\n"
    "\n"
    "Examples:\n"
    "  vondctl policy check policy.json\n"
    "  vondctl policy check --deny unknown-key --deny override-unmatched policy.json\n"
    "  vondctl policy show policy.json\n"
    "\n"
    "Exit status: 0 no problems (notes don't count), 1 warnings, 3 errors, 64 wrong usage.\n";

struct PolicyArguments {
  std::string action;
  std::string file;
  ProblemLevels levels;
};

// Counts of the rules of one set.
struct Counts {
  std::size_t rules = 0;
  std::size_t private_rules = 0;
  std::size_t global_rules = 0;
  std::size_t disabled = 0;
};

Counts CountRules(const CheckedRuleSet& rule_set) {
  Counts counts;
  for (const CheckedRule& rule : rule_set.rules) {
    const auto* const action = rule.info.FindMetadata("action");
    ++counts.rules;
    counts.private_rules += rule.info.is_private_rule ? 1 : 0;
    counts.global_rules += rule.is_global ? 1 : 0;
    counts.disabled +=
        action != nullptr && ActionFromWord(MetadataValueToText(action->value)) == RuleAction::kDisable ? 1 : 0;
  }
  return counts;
}

std::string LimitText(std::uint64_t value, const char* unit, const char* if_zero) {
  return value == 0 ? std::string(if_zero) : fmt::format("{}{}", value, unit);
}

void ShowSettings(const PolicySource& policy) {
  const auto& document = policy.document;
  const std::vector<std::pair<const char*, std::string>> settings = {
      {"max_sample_size", LimitText(document.max_sample_size(), " bytes", "no limit")},
      {"max_number_of_threads", LimitText(document.max_number_of_threads(), "", "4, at most one per processor")},
      {"yara_timeout_in_seconds", LimitText(document.yara_timeout_in_seconds(), " s per scan", "no time-out")},
      {"yara_retries_on_match", LimitText(document.yara_retries_on_match(), "", "none")},
  };
  std::cout << "Settings\n";
  for (const auto& [name, value] : settings) {
    std::cout << fmt::format("  {:<24} {}\n", name, value);
  }
}

void ShowRuleSets(const PolicySource& policy, const PolicyFindings& findings) {
  std::cout << "Rule sets\n";
  for (std::size_t i = 0; i < findings.rule_sets.size(); ++i) {
    const CheckedRuleSet& rule_set = findings.rule_sets[i];
    const Counts counts = CountRules(rule_set);
    std::string details;
    for (const auto& [count, word] :
         {std::pair(counts.private_rules, "private"), std::pair(counts.global_rules, "global"),
          std::pair(counts.disabled, "disabled")}) {
      if (count > 0) {
        details += fmt::format(", {} {}", count, word);
      }
    }
    const std::string kind = RuleTypeName(rule_set.rule_type) + " rule";
    std::cout << fmt::format("  [{}] {} for file type {} in {}{}{}\n", i, Plural(counts.rules, kind.c_str()),
                             rule_set.file_type, Plural(policy.rule_sets[i].files.size(), "file"), details,
                             rule_set.in_force ? "" : "; of no effect, a later set takes its place");
    for (const RuleFile& file : policy.rule_sets[i].files) {
      std::cout << "        " << EscapeForTerminal(file.path) << '\n';
    }
  }
}

void ShowOverrides(const PolicySource& policy, const PolicyFindings& findings) {
  std::cout << "Overrides\n";
  for (std::size_t i = 0; i < findings.overrides.size(); ++i) {
    const CheckedOverride& checked = findings.overrides[i];
    const RuleOverride& rule_override = policy.document.rule_overrides(static_cast<int>(i));
    std::string reach = "reaches no rule";
    if (checked.rule_set) {
      reach = fmt::format("rule_sets[{}]", *checked.rule_set);
      for (const std::string& rule : checked.rules) {
        reach += ' ' + rule;
      }
    }
    std::cout << EscapeForTerminal(fmt::format("  [{}] {}: {} = {} -> {}", i, rule_override.rule_id(),
                                               rule_override.item().key(), OverrideValueText(rule_override), reach))
              << '\n';
  }
}

ordered_json PolicyJson(const PolicySource& policy, const PolicyFindings& findings, std::size_t bytes) {
  const auto& document = policy.document;
  ordered_json json{{"type", "policy_document"},
                    {"max_sample_size", document.max_sample_size()},
                    {"max_number_of_threads", document.max_number_of_threads()},
                    {"yara_timeout_in_seconds", document.yara_timeout_in_seconds()},
                    {"yara_retries_on_match", document.yara_retries_on_match()}};
  json["rule_sets"] = ordered_json::array();
  for (std::size_t i = 0; i < findings.rule_sets.size(); ++i) {
    const CheckedRuleSet& rule_set = findings.rule_sets[i];
    const Counts counts = CountRules(rule_set);
    ordered_json files = ordered_json::array();
    for (const RuleFile& file : policy.rule_sets[i].files) {
      ordered_json entry;
      AddPath(entry, "path", file.path);
      files.push_back(std::move(entry));
    }
    json["rule_sets"].push_back({{"file_type", rule_set.file_type},
                                 {"rule_type", RuleTypeJson(rule_set.rule_type)},
                                 {"in_force", rule_set.in_force},
                                 {"rules", counts.rules},
                                 {"private", counts.private_rules},
                                 {"global", counts.global_rules},
                                 {"disabled", counts.disabled},
                                 {"files", std::move(files)}});
  }
  json["overrides"] = ordered_json::array();
  for (std::size_t i = 0; i < findings.overrides.size(); ++i) {
    const CheckedOverride& checked = findings.overrides[i];
    const RuleOverride& rule_override = document.rule_overrides(static_cast<int>(i));
    ordered_json entry{{"rule_id", rule_override.rule_id()},
                       {"key", rule_override.item().key()},
                       {"value", MetadataJson(rule_override.item().value())}};
    if (checked.rule_set) {
      entry["rule_set"] = *checked.rule_set;
    }
    entry["rules"] = checked.rules;
    json["overrides"].push_back(std::move(entry));
  }
  json["bytes"] = bytes;
  json["sent"] = ordered_json::parse(policy.json);
  return json;
}

void Show(const PolicySource& policy, const PolicyFindings& findings, const CommonOptions& common) {
  const std::size_t bytes = SentBytes(policy);
  if (common.format == Format::kJsonLines) {
    WriteJsonLine(PolicyJson(policy, findings, bytes));
    return;
  }
  ShowSettings(policy);
  ShowRuleSets(policy, findings);
  ShowOverrides(policy, findings);
  std::cout << fmt::format("As sent, {} of {} bytes, with {}\n", bytes, agent::kMaxPacketSize,
                           Plural(policy.rule_set_fds.size(), "descriptor"));
  std::cout << EscapeForTerminal(policy.json) << '\n';
}

int RunPolicy(const PolicyArguments& arguments, const CommonOptions& common) {
  // The daemon's code runs here, and would log to standard output.
  korvo::utils::SetLogLevel(0);
  korvo::utils::EnableAssertionLines(false);
  if (const std::string complaint = arguments.levels.Complaint(); !complaint.empty()) {
    std::cerr << "vondctl: " << EscapeForTerminal(complaint) << '\n';
    return kUsage;
  }
  std::vector<Problem> problems;
  const PolicySource policy = ReadPolicy(arguments.file, problems);
  PolicyFindings findings;
  if (policy.json.empty()) {  // nothing that could be looked at
    findings.problems = std::move(problems);
  } else {
    findings = CheckPolicy(policy, std::move(problems));
    if (Count(findings.problems, Severity::kError) == 0) {
      // The last word is the daemon's own.
      std::vector<Problem> refusal = LoadPolicy(policy).problems;
      std::move(refusal.begin(), refusal.end(), std::back_inserter(findings.problems));
    }
    if (arguments.action == "show") {
      Show(policy, findings, common);
    }
  }
  const bool accepted = Count(findings.problems, Severity::kError) == 0;
  arguments.levels.Apply(findings.problems);
  const int status = ReportProblems(findings.problems, common);
  std::size_t rules = 0;
  for (const CheckedRuleSet& rule_set : findings.rule_sets) {
    rules += rule_set.rules.size();
  }
  if (common.format == Format::kJsonLines) {
    WriteJsonLine(CheckSummaryJson(findings.problems, CountRuleFiles(policy), rules, accepted, status));
  }
  if (!common.quiet) {
    std::cerr << fmt::format("vondctl: {}: {}, {} in {}, {}: {}; the daemon {} it\n", EscapeForTerminal(arguments.file),
                             Plural(findings.rule_sets.size(), "rule set"), Plural(rules, "rule"),
                             Plural(CountRuleFiles(policy), "file"), Plural(findings.overrides.size(), "override"),
                             CountProblems(findings.problems), accepted ? "takes" : "refuses");
  }
  return status;
}

}  // namespace

VerbRun AddPolicyCommand(CLI::App& app, const CommonOptions& common) {
  const auto arguments = std::make_shared<PolicyArguments>();
  app.add_option("ACTION", arguments->action, "check or show")
      ->required()
      ->check(CLI::IsMember({"check", "show"}).description(""))
      ->type_name("check|show");
  app.add_option("FILE", arguments->file, "Policy file: the daemon's JSON with a \"path\" per rule set")
      ->required()
      ->type_name("FILE");
  arguments->levels.AddOptions(app);
  app.footer(kPolicyFooter);
  return [arguments, &common] { return RunPolicy(*arguments, common); };
}

}  // namespace vond::vondctl
