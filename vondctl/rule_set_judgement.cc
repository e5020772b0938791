#include "vondctl/rule_set_judgement.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "vondctl/policy_check.h"
#include "vondctl/policy_explainer.h"
#include "vondctl/policy_source.h"

namespace vond::vondctl {
namespace {

// What stands for the merged source's place until it is exchanged for a true one.
constexpr const char* kMerged = "%merged%";

// Exchanges "%merged%", or "%merged%:LINE", in `text` for the place that it stands for.
void LocalizeText(std::string& text, const SourcePlace& here, const MergedSource& source) {
  const std::size_t at = text.find(kMerged);
  if (at == std::string::npos) {
    return;
  }
  const std::size_t end = at + std::string_view(kMerged).size();
  long line = 0;
  const char* const digits = text.data() + std::min(end + 1, text.size());
  const auto [behind, error] = std::from_chars(digits, text.data() + text.size(), line);
  if (end < text.size() && text[end] == ':' && error == std::errc()) {
    const SourcePlace place = source.PlaceOfLine(line);
    text.replace(at, static_cast<std::size_t>(behind - text.data()) - at, fmt::format("{}:{}", place.file, place.line));
  } else {
    text.replace(at, end - at, here.file);
  }
}

// Replaces the place in the merged source by the one in its file.
void Localize(Problem& problem, const MergedSource& source) {
  if (problem.file != kMerged || source.Files().empty()) {
    return;
  }
  const SourcePlace place = source.PlaceOfLine(problem.line);
  const bool is_placed = problem.line > 0 || !problem.rule.empty();
  problem.file = is_placed ? place.file : std::string();
  problem.line = is_placed ? place.line : 0;
  LocalizeText(problem.message, place, source);
  LocalizeText(problem.fix, place, source);
}

// The white space with which a section's items begin: that before its first one if that is on a line of its own.
std::string ItemBreak(std::string_view text, std::size_t section, std::string_view fallback) {
  const std::size_t item = text.find_first_not_of(" \t\r\n", section);
  const std::string_view blank = text.substr(section, std::min(item, text.size()) - section);
  const std::size_t newline = blank.rfind('\n');
  return newline == std::string_view::npos ? std::string(fallback) : std::string(blank.substr(newline));
}

}  // namespace

std::vector<Problem> JudgeMerged(const MergedSource& source) {
  std::vector<Problem> problems = CheckPolicy(PolicyFromRuleFile({kMerged, source.Text()})).problems;
  std::erase_if(problems, [](const Problem& problem) {
    return problem.severity != Severity::kError && problem.code != "slow-string";
  });
  std::stable_partition(problems.begin(), problems.end(),
                        [](const Problem& problem) { return problem.code == "slow-string"; });
  for (Problem& problem : problems) {
    Localize(problem, source);
  }
  return problems;
}

std::vector<Problem> LoadMerged(const MergedSource& source, const std::string& content) {
  std::vector<Problem> problems = LoadPolicy(PolicyFromRuleFile({kMerged, content})).problems;
  for (Problem& problem : problems) {
    Localize(problem, source);
  }
  return problems;
}

bool IsInput(const MergedSource& source, const std::string& output) {
  const std::vector<std::string>& files = source.Files();
  return std::any_of(files.begin(), files.end(), [&](const std::string& file) {
    std::error_code error;
    return std::filesystem::equivalent(file, output, error);
  });
}

void AddMetaItems(yara_source::Edits& edits, std::string_view text, const yara_source::RuleText& rule,
                  const std::vector<std::string>& items) {
  const std::size_t at = rule.meta_begin != 0 ? rule.meta_begin : rule.body_begin;
  std::string item_break = ItemBreak(text, at, " ");
  std::string added;
  if (rule.meta_begin == 0) {
    added = item_break + "meta:";
    item_break += item_break == " " ? "" : "  ";
  }
  for (const std::string& item : items) {
    added += item_break + item;
  }
  if (at < text.size() && std::string_view(" \t\r\n").find(text[at]) == std::string_view::npos) {
    added += ' ';
  }
  edits.Insert(at, std::move(added));
}

}  // namespace vond::vondctl
