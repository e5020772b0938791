#include "vondctl/diff_command.h"

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vondctl/announcer.h"
#include "vondctl/exit_status.h"
#include "vondctl/json_lines.h"
#include "vondctl/problem.h"
#include "vondctl/rule_merge.h"
#include "vondctl/rule_sections.h"
#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

constexpr const char* kFooter =
    "OLD and NEW are rule files, packed or plain, or folders of them. Comments, layout and the\n"
    "order of rules don't count. Of several rules of one name the first is compared with the\n"
    "first, and so on.\n"
    "\n"
    "Examples:\n"
    "  vondctl diff rules.pack rules/\n"
    "  vondctl diff --exit-code -q yesterday.pack today.pack || echo changed\n"
    "\n"
    "Exit status: 0 done, 1 there are differences (with --exit-code), 3 a file is unreadable or\n"
    "damaged, 64 wrong usage.\n";

using nlohmann::ordered_json;
using yara_source::MetaItem;
using yara_source::MetaValue;
using yara_source::RuleText;
using yara_source::SourceIndex;

struct DiffArguments {
  std::string old_rules;
  std::string new_rules;
  bool exit_code = false;
};

// One side.
class RuleSide {
 public:
  RuleSide(const std::string& path, std::vector<Problem>& problems)
      : source_(MergeRuleFiles({path}, problems)), index_(yara_source::ParseSource(source_.Text())) {
    std::map<std::string, std::size_t> seen;
    for (const RuleText& rule : index_.rules) {
      rules_.emplace(std::pair(rule.name, seen[rule.name]++), &rule);
    }
  }

  // A rule's name and how many of that name come before it.
  using Key = std::pair<std::string, std::size_t>;

  [[nodiscard]] const std::map<Key, const RuleText*>& Rules() const { return rules_; }
  [[nodiscard]] RuleSections Sections(const RuleText& rule) const { return SectionsOf(source_.Text(), rule); }
  [[nodiscard]] SourcePlace Place(const RuleText& rule) const { return source_.PlaceOfLine(rule.line); }

 private:
  const MergedSource source_;
  const SourceIndex index_;
  std::map<Key, const RuleText*> rules_;
};

// A metadata item on either side; none where it does not exist.
struct MetaChange {
  std::string key;
  std::optional<MetaValue> before;
  std::optional<MetaValue> after;
};

// What has changed about one rule.
struct RuleChange {
  const RuleText* before = nullptr;
  const RuleText* after = nullptr;
  std::vector<const char*> parts;
  std::vector<MetaChange> meta;
};

// Items that only one side has. Items with the same key are matched in their order.
std::vector<MetaChange> CompareMeta(const RuleText& before, const RuleText& after) {
  std::vector<MetaChange> changes;
  std::map<std::string, std::vector<const MetaItem*>> left;
  for (const MetaItem& item : after.meta) {
    left[item.key].push_back(&item);
  }
  for (const MetaItem& item : before.meta) {
    std::vector<const MetaItem*>& matches = left[item.key];
    if (matches.empty()) {
      changes.push_back({item.key, item.value, std::nullopt});
      continue;
    }
    if (matches.front()->value != item.value) {
      changes.push_back({item.key, item.value, matches.front()->value});
    }
    matches.erase(matches.begin());
  }
  for (const MetaItem& item : after.meta) {
    std::vector<const MetaItem*>& matches = left[item.key];
    if (!matches.empty() && matches.front() == &item) {
      changes.push_back({item.key, std::nullopt, item.value});
      matches.erase(matches.begin());
    }
  }
  return changes;
}

RuleChange Compare(const RuleSide& old_side, const RuleText& before, const RuleSide& new_side, const RuleText& after) {
  const RuleSections old_sections = old_side.Sections(before);
  const RuleSections new_sections = new_side.Sections(after);
  RuleChange change{&before, &after, {}, {}};
  if (before.is_private != after.is_private || before.is_global != after.is_global) {
    change.parts.push_back("modifiers");
  }
  if (before.tags != after.tags) {
    change.parts.push_back("tags");
  }
  if (old_sections.meta != new_sections.meta) {
    change.parts.push_back("metadata");
    change.meta = CompareMeta(before, after);
  }
  if (old_sections.strings != new_sections.strings) {
    change.parts.push_back("strings");
  }
  if (old_sections.condition != new_sections.condition) {
    change.parts.push_back("condition");
  }
  return change;
}

struct Totals {
  std::size_t added = 0;
  std::size_t removed = 0;
  std::size_t changed = 0;
  std::size_t same = 0;
};

class DiffWriter {
 public:
  DiffWriter(const RuleSide& old_side, const RuleSide& new_side, const CommonOptions& common)
      : old_side_(old_side),
        new_side_(new_side),
        json_(common.format == Format::kJsonLines),
        color_(UseColor(common.color, STDOUT_FILENO)) {}

  void Write(const RuleChange& change) const { json_ ? WriteJson(change) : WriteText(change); }

 private:
  void WriteText(const RuleChange& change) const {
    const bool is_new = change.before == nullptr;
    const bool is_gone = change.after == nullptr;
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): one of the two is there
    const RuleText& rule = *(is_gone ? change.before : change.after);
    const SourcePlace place = (is_gone ? old_side_ : new_side_).Place(rule);
    std::string line = fmt::format("{} {} ({}:{})",
                                   is_new    ? '+'
                                   : is_gone ? '-'
                                             : '~',
                                   rule.name, EscapeForTerminal(place.file), place.line);
    if (!change.parts.empty()) {
      line += fmt::format(": {}", fmt::join(change.parts, ", "));
    }
    std::cout << Paint(line, is_new ? Color::kGreen : is_gone ? Color::kRed : Color::kYellow, color_) << '\n';
    for (const MetaChange& item : change.meta) {
      std::cout << EscapeForTerminal(fmt::format("    {}: {} -> {}", item.key, Shown(item.before), Shown(item.after)))
                << '\n';
    }
  }

  static std::string Shown(const std::optional<MetaValue>& value) {
    if (!value) {
      return "none";
    }
    const std::string text = MetaText(*value);
    return std::holds_alternative<std::string>(*value) ? '"' + text + '"' : text;
  }

  void WriteJson(const RuleChange& change) const {
    const bool is_new = change.before == nullptr;
    const bool is_gone = change.after == nullptr;
    ordered_json json{{"type", "difference"}, {"change", is_new ? "added" : is_gone ? "removed" : "changed"}};
    json["rule"] = (is_gone ? *change.before : *change.after).name;
    if (!is_new) {
      AddPlace(json, "old", old_side_.Place(*change.before));
    }
    if (!is_gone) {
      AddPlace(json, "new", new_side_.Place(*change.after));
    }
    if (!change.parts.empty()) {
      json["parts"] = change.parts;
    }
    for (const MetaChange& item : change.meta) {
      ordered_json meta{{"key", item.key}};
      for (const auto& [name, value] : {std::pair("old", item.before), std::pair("new", item.after)}) {
        if (value) {
          std::visit([&meta, key = name](const auto& content) { meta[key] = content; }, *value);
        }
      }
      json["meta"].push_back(std::move(meta));
    }
    WriteJsonLine(json);
  }

  static void AddPlace(ordered_json& json, const std::string& side, const SourcePlace& place) {
    AddPath(json, side + "_file", place.file);
    json[side + "_line"] = place.line;
  }

  const RuleSide& old_side_;
  const RuleSide& new_side_;
  const bool json_;
  const bool color_;
};

int RunDiff(const DiffArguments& arguments, const CommonOptions& common) {
  std::vector<Problem> problems;
  const RuleSide old_side(arguments.old_rules, problems);
  const RuleSide new_side(arguments.new_rules, problems);
  const Announcer announcer(common);
  bool failed = false;
  for (const Problem& problem : problems) {
    announcer.Say(problem);
    failed = failed || problem.severity == Severity::kError;
  }
  if (failed) {
    return kPolicyRefused;
  }

  const DiffWriter writer(old_side, new_side, common);
  Totals totals;
  for (const auto& [key, rule] : old_side.Rules()) {
    const auto match = new_side.Rules().find(key);
    if (match == new_side.Rules().end()) {
      ++totals.removed;
      writer.Write({rule, nullptr, {}, {}});
    } else if (const RuleChange change = Compare(old_side, *rule, new_side, *match->second); !change.parts.empty()) {
      ++totals.changed;
      writer.Write(change);
    } else {
      ++totals.same;
    }
  }
  for (const auto& [key, rule] : new_side.Rules()) {
    if (!old_side.Rules().contains(key)) {
      ++totals.added;
      writer.Write({nullptr, rule, {}, {}});
    }
  }
  if (common.format == Format::kJsonLines) {
    WriteJsonLine({{"type", "diff"},
                   {"added", totals.added},
                   {"removed", totals.removed},
                   {"changed", totals.changed},
                   {"same", totals.same}});
  } else if (!common.quiet) {
    std::cout.flush();
    std::cerr << fmt::format("{} added, {} removed, {} changed, {} the same\n", totals.added, totals.removed,
                             totals.changed, totals.same);
  }
  return arguments.exit_code && totals.added + totals.removed + totals.changed > 0 ? kMatched : kClean;
}

}  // namespace

VerbRun AddDiffCommand(CLI::App& app, const CommonOptions& common) {
  const auto arguments = std::make_shared<DiffArguments>();
  app.add_flag("--exit-code", arguments->exit_code, "Exit with 1 if there are differences");
  app.add_option("OLD", arguments->old_rules, "Rule file or folder")->required()->type_name("");
  app.add_option("NEW", arguments->new_rules, "Rule file or folder")->required()->type_name("");
  app.footer(kFooter);
  return [arguments, &common] { return RunDiff(*arguments, common); };
}

}  // namespace vond::vondctl
