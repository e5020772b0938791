#include "vondctl/announcer.h"

#include <fmt/format.h>
#include <unistd.h>

#include <iostream>
#include <nlohmann/json.hpp>

#include "vondctl/json_lines.h"
#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

const char* KindWord(RuleDecision::Kind kind) {
  switch (kind) {
    case RuleDecision::Kind::kTwin:
      return "twin";
    case RuleDecision::Kind::kShadowed:
      return "shadowed";
    case RuleDecision::Kind::kRenamed:
      return "renamed";
    case RuleDecision::Kind::kBroken:
      return "broken";
    case RuleDecision::Kind::kDependent:
      return "dependent";
    case RuleDecision::Kind::kNoRule:
      return "no-rule";
    case RuleDecision::Kind::kDefined:
      return "defined";
    case RuleDecision::Kind::kSpelledOut:
      return "rule-set-spelled-out";
    case RuleDecision::Kind::kIdAdded:
      return "id-added";
    case RuleDecision::Kind::kIdReplaced:
      return "id-replaced";
    case RuleDecision::Kind::kActionSet:
      return "action-set";
    case RuleDecision::Kind::kActionReplaced:
      return "action-replaced";
    case RuleDecision::Kind::kActionKept:
      return "action-kept";
    case RuleDecision::Kind::kRecoded:
      return "metadata-recoded";
  }
  return "broken";
}

std::string DecisionText(const RuleDecision& decision) {
  const std::string rule = fmt::format("rule \"{}\"", decision.rule);
  switch (decision.kind) {
    case RuleDecision::Kind::kTwin:
      return fmt::format("{} left out: the same as at {}", rule, decision.detail);
    case RuleDecision::Kind::kShadowed:
      return fmt::format("{} left out: another rule of that name stands at {}", rule, decision.detail);
    case RuleDecision::Kind::kRenamed:
      return fmt::format("{} is now \"{}\"", rule, decision.detail);
    case RuleDecision::Kind::kBroken:
      return decision.detail.starts_with(rule) ? fmt::format("left out: {}", decision.detail)
                                               : fmt::format("{} left out: {}", rule, decision.detail);
    case RuleDecision::Kind::kDependent:
      return fmt::format("{} left out: it needs rule \"{}\"", rule, decision.detail);
    case RuleDecision::Kind::kNoRule:
      return fmt::format("left out: {}", decision.detail);
    case RuleDecision::Kind::kDefined:
    case RuleDecision::Kind::kSpelledOut:
      return fmt::format("{}: {}", rule, decision.detail);
    case RuleDecision::Kind::kIdAdded:
    case RuleDecision::Kind::kIdReplaced:
      return fmt::format("{} has the id {}", rule, decision.detail);
    case RuleDecision::Kind::kActionSet:
    case RuleDecision::Kind::kActionReplaced:
      return fmt::format("{} has the action {}", rule, decision.detail);
    case RuleDecision::Kind::kActionKept:
      return fmt::format("{} keeps the action {}", rule, decision.detail);
    case RuleDecision::Kind::kRecoded:
      return fmt::format("{}: the value of \"{}\" is not UTF-8 and was read as Latin-1", rule, decision.detail);
  }
  return decision.detail;
}

}  // namespace

nlohmann::ordered_json DecisionJson(const RuleDecision& decision) {
  nlohmann::ordered_json json{{"type", "decision"}, {"decision", KindWord(decision.kind)}};
  AddPath(json, "file", decision.place.file);
  json["line"] = decision.place.line;
  if (!decision.rule.empty()) {
    json["rule"] = decision.rule;
  }
  json["detail"] = decision.detail;
  return json;
}

void Complain(const std::string& text) {
  std::cerr << "vondctl: " + EscapeForTerminal(text) + '\n';  // in one piece, since other threads write there too
}

Announcer::Announcer(const CommonOptions& common)
    : json_(common.format == Format::kJsonLines), color_(UseColor(common.color, STDERR_FILENO)) {}

void Announcer::Say(const Problem& problem) const {
  if (json_) {
    WriteJsonLine(ProblemJson(problem));
  } else {
    WriteProblem(std::cerr, problem, color_);
  }
}

void Announcer::Say(const RuleDecision& decision) const {
  if (!json_) {
    std::cerr << fmt::format("{}:{}: {}: {}\n", EscapeForTerminal(decision.place.file), decision.place.line,
                             Paint("warning", Color::kYellow, color_), EscapeForTerminal(DecisionText(decision)));
    return;
  }
  WriteJsonLine(DecisionJson(decision));
}

}  // namespace vond::vondctl
