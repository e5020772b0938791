#include "vondctl/adoption.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "static_pattern_matching/rule_metadata.h"
#include "utils/utf8.h"
#include "vondctl/rule_file.h"
#include "vondctl/rule_ids.h"
#include "vondctl/rule_sections.h"
#include "vondctl/rule_set_judgement.h"
#include "yara/yara_lib/yara_lib.h"

namespace vond::vondctl {
namespace {

using korvo::static_pattern_matching_daemon::ActionFromWord;
using korvo::static_pattern_matching_daemon::RuleAction;
using korvo::yara::yara_lib::YaraLib;
using yara_source::Edits;
using yara_source::MetaItem;
using yara_source::ParseSource;
using yara_source::QuoteText;
using yara_source::RuleReference;
using yara_source::RuleText;
using yara_source::SourceIndex;

RuleDecision Decision(RuleDecision::Kind kind, const MergedSource& source, const RuleText& rule, std::string detail) {
  return {kind, rule.name, source.PlaceOfLine(rule.line), std::move(detail)};
}

// Puts literals in the place of external variables, which the daemon has none of.
MergedSource WithDefinitions(const MergedSource& source, const std::map<std::string, std::string>& definitions,
                             std::vector<RuleDecision>& decisions) {
  if (definitions.empty()) {
    return source;
  }
  const SourceIndex index = ParseSource(source.Text());
  std::unordered_set<std::string> rules;
  for (const RuleText& rule : index.rules) {
    rules.insert(rule.name);
  }
  Edits edits;
  for (const RuleText& rule : index.rules) {
    std::set<std::string> used;
    for (const RuleReference& reference : rule.references) {
      const auto definition = definitions.find(reference.name);
      if (definition != definitions.end() && !reference.is_prefix && !rules.contains(reference.name)) {
        edits.Replace(reference.range, definition->second);
        used.insert(reference.name + " = " + definition->second);
      }
    }
    for (const std::string& definition : used) {
      decisions.push_back(Decision(RuleDecision::Kind::kDefined, source, rule, definition));
    }
  }
  return source.Edited(edits);
}

// The units of which a file includes others: what their rule sets mean can't be told by the unit alone.
std::set<std::size_t> UnitsWithIncludes(const MergedSource& source, const SourceIndex& index) {
  std::set<std::string> including;
  for (const std::string& file : source.Files()) {
    if (!ParseSource(LoadRuleFile(file).source).includes.empty()) {
      including.insert(file);
    }
  }
  std::set<std::size_t> units;
  for (const RuleText& rule : index.rules) {
    if (including.contains(source.PlaceOfLine(rule.line).file)) {
      units.insert(source.UnitOfLine(rule.line));
    }
  }
  return units;
}

// "any of (Name*)" means the rules of its own file. Where the files before it bring others of that name, the names
// themselves take its place.
MergedSource WithRuleSetsSpelledOut(const MergedSource& source, std::vector<RuleDecision>& decisions) {
  const SourceIndex index = ParseSource(source.Text());
  std::multimap<std::string_view, std::size_t> declared;  // so far, in their order under one name
  std::optional<std::set<std::size_t>> with_includes;
  Edits edits;
  for (std::size_t i = 0; i < index.rules.size(); ++i) {
    const RuleText& rule = index.rules[i];
    const std::size_t unit = source.UnitOfLine(rule.line);
    for (const RuleReference& reference : rule.references) {
      if (!reference.is_prefix) {
        continue;
      }
      std::set<std::size_t> own;
      bool others = false;
      for (auto it = declared.lower_bound(reference.name);
           it != declared.end() && it->first.starts_with(reference.name); ++it) {
        if (source.UnitOfLine(index.rules[it->second].line) == unit) {
          own.insert(it->second);
        } else {
          others = true;
        }
      }
      if (!others || own.empty()) {
        continue;
      }
      if (!with_includes) {
        with_includes = UnitsWithIncludes(source, index);
      }
      if (with_includes->contains(unit)) {
        continue;
      }
      std::string names;
      for (const std::size_t member : own) {
        names += (names.empty() ? "" : ", ") + index.rules[member].name;
      }
      edits.Replace({reference.range.begin, source.Text().find('*', reference.range.end) + 1}, names);
      decisions.push_back(
          Decision(RuleDecision::Kind::kSpelledOut, source, rule, fmt::format("{}* means {}", reference.name, names)));
    }
    declared.emplace(rule.name, i);
  }
  return source.Edited(edits);
}

// Where the rule for whose sake another was renamed has been left out, the other gets its name back.
MergedSource WithNamesGivenBack(const MergedSource& source, std::vector<RuleDecision>& decisions) {
  const SourceIndex index = ParseSource(source.Text());
  std::unordered_set<std::string> names;
  for (const RuleText& rule : index.rules) {
    names.insert(rule.name);
  }
  std::unordered_map<std::string, std::string> back;
  std::erase_if(decisions, [&](const RuleDecision& decision) {
    if (decision.kind != RuleDecision::Kind::kRenamed || !names.contains(decision.detail) ||
        !names.insert(decision.rule).second) {
      return false;
    }
    back[decision.detail] = decision.rule;
    return true;
  });
  Edits edits;
  for (const RuleText& rule : index.rules) {
    if (const auto found = back.find(rule.name); found != back.end()) {
      edits.Replace(rule.name_range, found->second);
    }
    for (const RuleReference& reference : rule.references) {
      const auto found = back.find(reference.name);
      if (found != back.end() && !reference.is_prefix) {
        edits.Replace(reference.range, found->second);
      }
    }
  }
  return source.Edited(edits);
}

bool IsUtf8(const std::string& text) { return korvo::utils::ReplaceInvalidUtf8(text) == text; }

// Each byte read as Latin-1, which is what old rules with accents in them mostly are.
std::string Utf8FromLatin1(std::string_view text) {
  std::string result;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      result += c;
    } else {
      result += {static_cast<char>(0xC0U | (byte >> 6U)), static_cast<char>(0x80U | (byte & 0x3FU))};
    }
  }
  return result;
}

// Gives each rule an id of its own and an action, and makes its metadata UTF-8.
class MetadataMender {
 public:
  MetadataMender(const MergedSource& source, const AdoptionOptions& options, std::vector<RuleDecision>& decisions)
      : source_(source), options_(options), decisions_(decisions), index_(ParseSource(source.Text())) {}

  MergedSource Run() {
    for (const RuleText& rule : index_.rules) {  // ids that stay, before others are made
      const MetaItem* const id = FindMeta(rule, "id");
      if (id != nullptr && IdFault(rule, *id).empty()) {
        owners_.emplace(MetaText(id->value), &rule);
      }
    }
    for (const RuleText& rule : index_.rules) {
      std::vector<std::string> items;
      MendId(rule, items);
      MendAction(rule, items);
      if (!items.empty()) {
        AddMetaItems(edits_, source_.Text(), rule, items);
      }
      for (const MetaItem& item : rule.meta) {
        Recode(rule, item);
      }
    }
    return source_.Edited(edits_);
  }

 private:
  void Decide(RuleDecision::Kind kind, const RuleText& rule, std::string detail) {
    decisions_.push_back(Decision(kind, source_, rule, std::move(detail)));
  }

  // Why an id can't stay; empty if it can.
  std::string IdFault(const RuleText& rule, const MetaItem& id) const {
    if (std::holds_alternative<bool>(id.value)) {
      return "no text";
    }
    const std::string text = MetaText(id.value);
    if (text.empty()) {
      return "empty";
    }
    if (!IsUtf8(text) || text.find('\0') != std::string::npos) {
      return "not UTF-8";
    }
    const auto owner = owners_.find(text);
    return owner == owners_.end() || owner->second == &rule ? ""
                                                            : fmt::format("that of rule {} too", owner->second->name);
  }

  // Renames the items of `key` but for `kept`, which may be null.
  void SetAside(const RuleText& rule, const char* key, const MetaItem* kept) {
    for (const MetaItem& item : rule.meta) {
      if (item.key == key && &item != kept) {
        edits_.Replace(item.key_range, std::string("orig_") + key);
      }
    }
  }

  static bool Repeats(const RuleText& rule, const char* key) {
    return std::count_if(rule.meta.begin(), rule.meta.end(), [&](const MetaItem& item) { return item.key == key; }) > 1;
  }

  void MendId(const RuleText& rule, std::vector<std::string>& items) {
    const MetaItem* const id = FindMeta(rule, "id");  // the one that counts
    const std::string fault = id == nullptr ? "missing" : IdFault(rule, *id);
    SetAside(rule, "id", fault.empty() ? id : nullptr);
    if (fault.empty()) {
      if (Repeats(rule, "id")) {
        Decide(RuleDecision::Kind::kIdReplaced, rule, fmt::format("{}: the last of several", MetaText(id->value)));
      }
      return;
    }
    std::string made = StableRuleId(options_.set_name, rule.name);
    for (int i = 2; !owners_.emplace(made, &rule).second; ++i) {
      made = StableRuleId(options_.set_name, fmt::format("{}/{}", rule.name, i));
    }
    items.push_back("id = " + QuoteText(made));
    if (id == nullptr) {
      Decide(RuleDecision::Kind::kIdAdded, rule, made);
    } else {
      Decide(RuleDecision::Kind::kIdReplaced, rule, fmt::format("{}: {} was {}", made, MetaText(id->value), fault));
    }
  }

  void MendAction(const RuleText& rule, std::vector<std::string>& items) {
    const MetaItem* const action = FindMeta(rule, "action");
    const auto* const word = action == nullptr ? nullptr : std::get_if<std::string>(&action->value);
    const bool keep = word != nullptr && ActionFromWord(*word) != RuleAction::kInvalid;
    SetAside(rule, "action", keep ? action : nullptr);
    if (keep) {
      Decide(RuleDecision::Kind::kActionKept, rule, *word);
      return;
    }
    const std::string& chosen = options_.actions.For(rule);
    items.push_back("action = " + QuoteText(chosen));
    if (action == nullptr) {
      Decide(RuleDecision::Kind::kActionSet, rule, chosen);
    } else {
      Decide(RuleDecision::Kind::kActionReplaced, rule,
             fmt::format("{}: {} is no action", chosen, MetaText(action->value)));
    }
  }

  void Recode(const RuleText& rule, const MetaItem& item) {
    const auto* const text = std::get_if<std::string>(&item.value);
    if (text != nullptr && !IsUtf8(*text)) {
      edits_.Replace(item.value_range, QuoteText(Utf8FromLatin1(*text)));
      Decide(RuleDecision::Kind::kRecoded, rule, item.key);
    }
  }

  const MergedSource& source_;
  const AdoptionOptions& options_;
  std::vector<RuleDecision>& decisions_;
  const SourceIndex index_;
  Edits edits_;
  std::unordered_map<std::string, const RuleText*> owners_;  // of ids
};

// The daemon refuses a set in which an enabled rule counts a disabled one in a rule set.
MergedSource WithoutCountedDisabled(const MergedSource& source, std::vector<RuleDecision>& decisions) {
  const SourceIndex index = ParseSource(source.Text());
  std::unordered_map<std::string, std::size_t> positions;
  std::vector<std::size_t> disabled;
  for (std::size_t i = 0; i < index.rules.size(); ++i) {
    positions[index.rules[i].name] = i;
    const MetaItem* const action = FindMeta(index.rules[i], "action");
    if (action != nullptr && ActionFromWord(MetaText(action->value)) == RuleAction::kDisable) {
      disabled.push_back(i);
    }
  }
  if (disabled.empty()) {
    return source;
  }
  const auto rules = YaraLib::Instance().CompileAndLoad(source.Text(), "id", false, {});
  for (const std::size_t i : disabled) {
    rules->SetRuleEnabled(i, false);
  }
  std::map<std::size_t, std::string> refused;
  while (const auto names = rules->FindDisabledMember()) {
    const std::size_t owner = positions.at(names->first);
    refused[owner] = fmt::format("it counts the disabled rule {} in a rule set", names->second);
    rules->SetRuleEnabled(owner, false);
  }
  return refused.empty() ? source : LeaveOut(source, refused, decisions);
}

}  // namespace

MergedSource Adopt(const MergedSource& source, const AdoptionOptions& options, std::vector<RuleDecision>& decisions) {
  MergedSource set = WithDefinitions(source, options.definitions, decisions);
  set = WithRuleSetsSpelledOut(set, decisions);
  set = ResolveDuplicates(set, OnDuplicate::kRename, decisions);
  set = LeaveOutBroken(set, decisions);
  set = WithNamesGivenBack(set, decisions);
  set = MetadataMender(set, options, decisions).Run();
  return WithoutCountedDisabled(set, decisions);
}

std::string LiteralFor(const std::string& value) {
  const SourceIndex index = ParseSource("rule r { meta: v = " + value + " condition: true }");
  const bool is_literal = index.errors.empty() && index.rules.size() == 1 && index.rules[0].meta.size() == 1 &&
                          index.rules[0].meta[0].value_range.Size() == value.size() && !value.starts_with('"');
  return is_literal ? value : QuoteText(value);
}

}  // namespace vond::vondctl
