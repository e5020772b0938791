#include "vondctl/pack_command.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "utils/assertion.h"
#include "utils/log.h"
#include "vondctl/announcer.h"
#include "vondctl/exit_status.h"
#include "vondctl/json_lines.h"
#include "vondctl/output_file.h"
#include "vondctl/policy_explainer.h"
#include "vondctl/problem.h"
#include "vondctl/problem_codes.h"
#include "vondctl/rule_file.h"
#include "vondctl/rule_merge.h"
#include "vondctl/rule_sections.h"
#include "vondctl/rule_set_judgement.h"
#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

constexpr const char* kFooter =
    "Folders stand for their *.yar and *.yara files. Includes are put in the place of their\n"
    "directive, each file once. Nothing is written unless the daemon would take the whole set.\n"
    "\n"
    "Examples:\n"
    "  vondctl pack rules/ -o rules.pack\n"
    "  vondctl pack rules/ -o rules.yar --plain --skip-bad --on-duplicate rename\n"
    "  vondctl pack public.yar -o - --default-action inform > public.pack\n"
    "\n"
    "Exit status: 0 the file was written, 2 it could not be, 3 the rules were refused,\n"
    "64 wrong usage.\n";

using nlohmann::ordered_json;
using yara_source::ParseSource;
using yara_source::RuleText;

enum class DuplicatePolicy { kFail, kDrop, kRename };

struct PackArguments {
  std::vector<std::string> rules;
  std::string output;
  bool plain = false;
  bool skip_bad = false;
  DuplicatePolicy on_duplicate = DuplicatePolicy::kFail;
  std::string default_action;
};

bool AnyError(const std::vector<Problem>& problems) {
  return std::any_of(problems.begin(), problems.end(),
                     [](const Problem& problem) { return problem.severity == Severity::kError; });
}

// Gives every rule without an action this one.
MergedSource WithDefaultAction(const MergedSource& source, const std::string& action, std::size_t& added) {
  yara_source::Edits edits;
  const std::string& text = source.Text();
  for (const RuleText& rule : ParseSource(text).rules) {
    if (FindMeta(rule, "action") != nullptr) {
      continue;
    }
    AddMetaItems(edits, text, rule, {"action = " + yara_source::QuoteText(action)});
    ++added;
  }
  return source.Edited(edits);
}

// Leaves out all that the daemon would refuse the set for.
MergedSource WithoutBad(const MergedSource& source, std::vector<RuleDecision>& decisions) {
  MergedSource rest = LeaveOutBroken(source, decisions);
  for (;;) {
    std::map<std::string, std::string> reasons;
    for (const Problem& problem : JudgeMerged(rest)) {
      if (problem.severity == Severity::kError) {
        reasons.try_emplace(problem.rule, problem.message);
      }
    }
    std::map<std::size_t, std::string> refused;
    const yara_source::SourceIndex index = ParseSource(rest.Text());
    for (std::size_t i = 0; i < index.rules.size(); ++i) {
      const auto reason = reasons.find(index.rules[i].name);
      if (reason != reasons.end()) {
        refused[i] = reason->second;
      }
    }
    if (refused.empty()) {
      return rest;
    }
    rest = LeaveOut(rest, refused, decisions);
  }
}

int RunPack(const PackArguments& arguments, const CommonOptions& common) {
  if (arguments.output == "-" && common.format == Format::kJsonLines) {
    Complain("--format jsonl writes to standard output, so -o must name a file");
    return kUsage;
  }
  const Announcer announcer(common);
  std::vector<Problem> problems;
  MergedSource source = MergeRuleFiles(arguments.rules, problems);
  if (arguments.output != "-" && IsInput(source, arguments.output)) {
    Complain(fmt::format("{} is one of the rule files and would be lost", arguments.output));
    return kUsage;
  }
  for (Problem& problem : problems) {
    if (problem.code == "include" || problem.code == "open-end") {  // without them a file may still have good rules
      problem.severity = arguments.skip_bad ? Severity::kWarning : Severity::kError;
    }
  }

  std::vector<RuleDecision> decisions;
  if (arguments.on_duplicate != DuplicatePolicy::kFail) {
    source = ResolveDuplicates(
        source, arguments.on_duplicate == DuplicatePolicy::kDrop ? OnDuplicate::kDrop : OnDuplicate::kRename,
        decisions);
  }
  std::size_t actions_added = 0;
  if (!arguments.default_action.empty()) {
    source = WithDefaultAction(source, arguments.default_action, actions_added);
  }
  if (arguments.skip_bad) {
    source = WithoutBad(source, decisions);
  }

  std::vector<Problem> all = JudgeMerged(source);
  const auto behind_slow =
      std::find_if(all.begin(), all.end(), [](const Problem& p) { return p.code != "slow-string"; });
  all.insert(behind_slow, problems.begin(), problems.end());
  std::string content;
  if (!AnyError(all)) {
    content = PackVerified(source.Text(), arguments.plain);
    std::vector<Problem> refusals = LoadMerged(source, content);
    std::move(refusals.begin(), refusals.end(), std::back_inserter(all));
  }
  const std::size_t rules = ParseSource(source.Text()).rules.size();
  if (rules == 0 && !AnyError(all)) {  // the daemon would take it, but nobody packs nothing on purpose
    Problem problem = MakeProblem("empty-set", "", 0, "there is no rule to pack");
    problem.severity = Severity::kError;
    all.push_back(std::move(problem));
  }
  for (const RuleDecision& decision : decisions) {
    announcer.Say(decision);
  }
  if (AnyError(all)) {
    const std::set<std::string> files(source.Files().begin(), source.Files().end());
    Complain(fmt::format("rules refused: {}", CountErrors(all, files.size())));
  }
  for (const Problem& problem : all) {
    announcer.Say(problem);
  }
  if (AnyError(all)) {
    return kPolicyRefused;
  }
  try {
    WriteOutputFile(arguments.output, content);
  } catch (const std::runtime_error& e) {
    Complain(fmt::format("nothing was written: {}", e.what()));
    return kNotScanned;
  }
  if (common.format == Format::kJsonLines) {
    ordered_json json{{"type", "pack"}};
    AddPath(json, "file", arguments.output);
    json["form"] = arguments.plain ? "plain" : "packed";
    json["rules"] = rules;
    json["actions_added"] = actions_added;
    json["bytes"] = content.size();
    json["text_bytes"] = source.Text().size();
    json["sha256"] = Sha256(content);
    WriteJsonLine(json);
  } else if (!common.quiet) {
    std::cerr << fmt::format("{}: {} rule{}, {} bytes of text, {} bytes {}\n",
                             arguments.output == "-" ? "standard output" : EscapeForTerminal(arguments.output), rules,
                             rules == 1 ? "" : "s", source.Text().size(), content.size(),
                             arguments.plain ? "plain" : "packed");
  }
  return kClean;
}

}  // namespace

VerbRun AddPackCommand(CLI::App& app, const CommonOptions& common) {
  const auto arguments = std::make_shared<PackArguments>();
  app.add_option("-o,--output", arguments->output, "The file to write; - is standard output")
      ->required()
      ->type_name("FILE");
  app.add_flag("--plain", arguments->plain, "Write YARA source instead of the packed form");
  app.add_flag("--skip-bad", arguments->skip_bad,
               "Leave out rules that the daemon would refuse, and those that depend on them");
  app.add_option("--on-duplicate", arguments->on_duplicate,
                 "For rules of one name: fail (default); drop keeps the first; rename gives those that differ "
                 "another name, in references too")
      ->transform(CLI::CheckedTransformer(std::map<std::string, DuplicatePolicy>{{"fail", DuplicatePolicy::kFail},
                                                                                 {"drop", DuplicatePolicy::kDrop},
                                                                                 {"rename", DuplicatePolicy::kRename}})
                      .description(""))
      ->type_name("drop|rename|fail");
  app.add_option("--default-action", arguments->default_action, "The action of rules that have none")
      ->check(CLI::IsMember({"disable", "internal", "silent", "inform", "block", "allow"}).description(""))
      ->type_name("disable|internal|silent|inform|block|allow");
  app.add_option("RULES", arguments->rules, "Rule files and folders")->required()->type_name("");
  app.footer(kFooter);
  return [arguments, &common] {
    // The rules are judged in this process, by the daemon's code; results go where that would log.
    korvo::utils::SetLogLevel(0);
    korvo::utils::EnableAssertionLines(false);
    return RunPack(*arguments, common);
  };
}

}  // namespace vond::vondctl
