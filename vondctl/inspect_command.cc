#include "vondctl/inspect_command.h"

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "vondctl/announcer.h"
#include "vondctl/exit_status.h"
#include "vondctl/json_lines.h"
#include "vondctl/policy_source.h"
#include "vondctl/rule_file.h"
#include "vondctl/rule_sections.h"
#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

constexpr const char* kFooter =
    "Nothing is compiled: `vondctl check` says whether the daemon would take the rules.\n"
    "\n"
    "Examples:\n"
    "  vondctl inspect rules.pack\n"
    "  vondctl inspect --format jsonl *.pack | jq 'select(.type == \"rule\") | .rule'\n"
    "\n"
    "Exit status: 0 done, 3 a file is unreadable or damaged, 64 wrong usage.\n";

using nlohmann::ordered_json;
using yara_source::Directive;
using yara_source::MetaItem;
using yara_source::RuleReference;
using yara_source::RuleText;
using yara_source::SourceIndex;

struct InspectArguments {
  std::vector<std::string> files;
  bool summary_only = false;
};

// A file, taken apart.
struct Inspection {
  LoadedRuleFile file;
  SourceIndex index;
  std::set<std::string> imports;
  std::set<std::string> names;

  explicit Inspection(const std::string& path)
      : file(LoadRuleFile(path)), index(yara_source::ParseSource(file.source)) {
    for (const Directive& directive : index.imports) {
      imports.insert(directive.text);
    }
    for (const RuleText& rule : index.rules) {
      names.insert(rule.name);
    }
  }

  // What the rule's condition says of other rules of the file: names, and "Name*" for rule sets.
  [[nodiscard]] std::vector<std::string> NeedsOf(const RuleText& rule) const {
    std::vector<std::string> needs;
    for (const RuleReference& reference : rule.references) {
      const auto match = reference.is_prefix ? names.lower_bound(reference.name) : names.find(reference.name);
      if (match != names.end() && match->starts_with(reference.name)) {
        needs.push_back(reference.name + (reference.is_prefix ? "*" : ""));
      }
    }
    std::sort(needs.begin(), needs.end());
    needs.erase(std::unique(needs.begin(), needs.end()), needs.end());
    return needs;
  }

  [[nodiscard]] std::vector<std::string> ModulesOf(const RuleText& rule) const {
    std::vector<std::string> modules = rule.modules;
    std::erase_if(modules, [this](const std::string& name) { return !imports.contains(name); });
    return modules;
  }
};

std::string MetaOr(const RuleText& rule, const char* key, const char* otherwise) {
  const MetaItem* const item = FindMeta(rule, key);
  return item == nullptr ? otherwise : MetaText(item->value);
}

// How often each word occurs.
using Counts = std::map<std::string, std::size_t>;

// "block 3, inform 1", the most frequent first.
std::string CountsText(const Counts& counts) {
  std::vector<std::pair<std::string, std::size_t>> sorted(counts.begin(), counts.end());
  std::stable_sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
  std::string text;
  for (const auto& [word, count] : sorted) {
    text += fmt::format("{}{} {}", text.empty() ? "" : ", ", word, count);
  }
  return text;
}

struct Summary {
  std::size_t private_rules = 0;
  std::size_t global_rules = 0;
  std::size_t without_id = 0;
  std::size_t without_action = 0;
  Counts ids;
  Counts actions;
  Counts tags;

  explicit Summary(const SourceIndex& index) {
    for (const RuleText& rule : index.rules) {
      private_rules += rule.is_private ? 1 : 0;
      global_rules += rule.is_global ? 1 : 0;
      Count(rule, "id", ids, without_id);
      Count(rule, "action", actions, without_action);
      for (const std::string& tag : rule.tags) {
        ++tags[tag];
      }
    }
  }

  // The ids that several rules have.
  [[nodiscard]] Counts RepeatedIds() const {
    Counts repeated = ids;
    std::erase_if(repeated, [](const auto& id) { return id.second < 2; });
    return repeated;
  }

 private:
  static void Count(const RuleText& rule, const char* key, Counts& counts, std::size_t& without) {
    const MetaItem* const item = FindMeta(rule, key);
    if (item == nullptr) {
      ++without;
    } else {
      ++counts[MetaText(item->value)];
    }
  }
};

std::string RuleLine(const Inspection& inspection, const RuleText& rule) {
  std::string line = rule.name;
  for (std::size_t i = 0; i < rule.tags.size(); ++i) {
    line += (i == 0 ? " : " : " ") + rule.tags[i];
  }
  line += fmt::format(" (id {}, action {}", MetaOr(rule, "id", "none"), MetaOr(rule, "action", "none"));
  line += rule.is_private ? ", private" : "";
  line += rule.is_global ? ", global" : "";
  const std::vector<std::string> needs = inspection.NeedsOf(rule);
  for (std::size_t i = 0; i < needs.size(); ++i) {
    line += (i == 0 ? ", needs " : " ") + needs[i];
  }
  return line + ")";
}

void WriteText(const Inspection& inspection, bool summary_only, bool color) {
  const LoadedRuleFile& file = inspection.file;
  const Summary summary(inspection.index);
  std::cout << Paint(EscapeForTerminal(file.path), Color::kBold, color) << ": " << (file.is_packed ? "packed" : "plain")
            << '\n';
  const auto line = [](const char* name, const std::string& text) {
    if (!text.empty()) {
      std::cout << fmt::format("  {:<8} {}\n", name, EscapeForTerminal(text));
    }
  };
  line("file", fmt::format("{} bytes, SHA-256 {}", file.content.size(), Sha256(file.content)));
  if (file.is_packed) {
    line("text", fmt::format("{} bytes, SHA-256 {}", file.source.size(), Sha256(file.source)));
  }
  line("rules", fmt::format("{}, {} of them private, {} global", inspection.index.rules.size(), summary.private_rules,
                            summary.global_rules));
  std::string ids =
      fmt::format("{} on {} rules", summary.ids.size(), inspection.index.rules.size() - summary.without_id);
  const Counts repeated = summary.RepeatedIds();
  line("ids", ids + (repeated.empty() ? "" : "; of several rules: " + CountsText(repeated)));
  Counts actions = summary.actions;
  if (summary.without_action > 0) {
    actions["none"] += summary.without_action;
  }
  line("actions", CountsText(actions));
  line("tags", CountsText(summary.tags));
  line("imports", fmt::format("{}", fmt::join(inspection.imports, ", ")));
  for (const Directive& include : inspection.index.includes) {
    line("include", include.text);
  }
  if (!summary_only) {
    for (const RuleText& rule : inspection.index.rules) {
      std::cout << fmt::format("{:>6} | {}\n", rule.line, EscapeForTerminal(RuleLine(inspection, rule)));
    }
  }
}

ordered_json MetaJson(const RuleText& rule) {
  ordered_json meta = ordered_json::array();
  for (const MetaItem& item : rule.meta) {
    ordered_json entry{{"key", item.key}};
    std::visit([&entry](const auto& value) { entry["value"] = value; }, item.value);
    meta.push_back(std::move(entry));
  }
  return meta;
}

void WriteJson(const Inspection& inspection, bool summary_only) {
  const LoadedRuleFile& file = inspection.file;
  const Summary summary(inspection.index);
  ordered_json json{{"type", "rule_file"}};
  AddPath(json, "file", file.path);
  json["form"] = file.is_packed ? "packed" : "plain";
  json["bytes"] = file.content.size();
  json["sha256"] = Sha256(file.content);
  json["text_bytes"] = file.source.size();
  json["text_sha256"] = Sha256(file.source);
  json["rules"] = inspection.index.rules.size();
  json["private"] = summary.private_rules;
  json["global"] = summary.global_rules;
  json["without_id"] = summary.without_id;
  json["repeated_ids"] = ordered_json(summary.RepeatedIds());
  json["without_action"] = summary.without_action;
  json["actions"] = ordered_json(summary.actions);
  json["tags"] = ordered_json(summary.tags);
  json["imports"] = inspection.imports;
  WriteJsonLine(json);
  if (summary_only) {
    return;
  }
  for (const RuleText& rule : inspection.index.rules) {
    ordered_json line{{"type", "rule"}};
    AddPath(line, "file", file.path);
    line["line"] = rule.line;
    line["rule"] = rule.name;
    for (const char* const key : {"id", "action"}) {
      if (const MetaItem* const item = FindMeta(rule, key)) {
        std::visit([&](const auto& value) { line[key] = value; }, item->value);
      }
    }
    line["private"] = rule.is_private;
    line["global"] = rule.is_global;
    line["tags"] = rule.tags;
    line["meta"] = MetaJson(rule);
    line["needs"] = inspection.NeedsOf(rule);
    line["modules"] = inspection.ModulesOf(rule);
    WriteJsonLine(line);
  }
}

int RunInspect(const InspectArguments& arguments, const CommonOptions& common) {
  int status = kClean;
  for (const std::string& path : arguments.files) {
    try {
      const Inspection inspection(path);
      if (common.format == Format::kJsonLines) {
        WriteJson(inspection, arguments.summary_only);
      } else {
        WriteText(inspection, arguments.summary_only, UseColor(common.color, STDOUT_FILENO));
      }
    } catch (const PolicyError& e) {
      std::cout.flush();
      for (const Problem& problem : e.Problems()) {
        Announcer(common).Say(problem);
      }
      status = kPolicyRefused;
    }
  }
  return status;
}

}  // namespace

VerbRun AddInspectCommand(CLI::App& app, const CommonOptions& common) {
  const auto arguments = std::make_shared<InspectArguments>();
  app.add_flag("-s,--summary", arguments->summary_only, "Leave out the list of rules");
  app.add_option("FILE", arguments->files, "Rule files, packed or plain; - is standard input")
      ->required()
      ->type_name("");
  app.footer(kFooter);
  return [arguments, &common] { return RunInspect(*arguments, common); };
}

}  // namespace vond::vondctl
