#include "vondctl/problem.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <ostream>

#include "vondctl/json_lines.h"
#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

Color SeverityColor(Severity severity) {
  switch (severity) {
    case Severity::kError:
      return Color::kRed;
    case Severity::kWarning:
      return Color::kYellow;
    case Severity::kNote:
      return Color::kCyan;
  }
  return Color::kRed;
}

}  // namespace

const char* SeverityName(Severity severity) {
  switch (severity) {
    case Severity::kError:
      return "error";
    case Severity::kWarning:
      return "warning";
    case Severity::kNote:
      return "note";
  }
  return "error";
}

nlohmann::ordered_json ProblemJson(const Problem& problem) {
  nlohmann::ordered_json json{
      {"type", "problem"}, {"code", problem.code}, {"severity", SeverityName(problem.severity)}};
  if (!problem.file.empty()) {
    AddPath(json, "file", problem.file);
  }
  if (problem.line > 0) {
    json["line"] = problem.line;
  }
  if (!problem.rule.empty()) {
    json["rule"] = problem.rule;
  }
  json["message"] = problem.message;
  if (!problem.fix.empty()) {
    json["fix"] = problem.fix;
  }
  return json;
}

void WriteProblem(std::ostream& out, const Problem& problem, bool color) {
  if (!problem.file.empty()) {
    out << EscapeForTerminal(problem.file) << ':';
    if (problem.line > 0) {
      out << problem.line << ':';
    }
    out << ' ';
  }
  out << Paint(fmt::format("{}[{}]", SeverityName(problem.severity), problem.code), SeverityColor(problem.severity),
               color)
      << ": " << EscapeForTerminal(problem.message) << '\n';
  if (!problem.excerpt.empty()) {
    out << fmt::format("{:>5} | {}\n", problem.line, EscapeForTerminal(problem.excerpt));
  }
  for (const std::string& note : problem.notes) {
    out << "  " << EscapeForTerminal(note) << '\n';
  }
  if (!problem.fix.empty()) {
    out << "  " << Paint("fix:", Color::kGreen, color) << ' ' << EscapeForTerminal(problem.fix) << '\n';
  }
}

}  // namespace vond::vondctl
