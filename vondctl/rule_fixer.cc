#include "vondctl/rule_fixer.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include "vondctl/rule_ids.h"
#include "yara/yara_source/yara_source.h"

namespace vond::vondctl {
namespace {

using yara_source::MetaItem;
using yara_source::RuleText;

bool Has(const RuleText& rule, std::string_view key) {
  return std::any_of(rule.meta.begin(), rule.meta.end(), [&](const MetaItem& item) { return item.key == key; });
}

// The blanks in front of what stands at `at`, if nothing else does on its line; otherwise nothing at all.
bool IsFirstOfLine(const std::string& source, std::size_t at, std::string& indent) {
  const std::size_t newline = at == 0 ? std::string::npos : source.rfind('\n', at - 1);
  const std::size_t begin = newline == std::string::npos ? 0 : newline + 1;
  indent = source.substr(begin, at - begin);
  return indent.find_first_not_of(" \t") == std::string::npos;
}

// `items` in front of the rule's own, or in a section of their own behind the opening brace.
void Insert(const std::string& source, const RuleText& rule, const std::vector<std::string>& items,
            yara_source::Edits& edits) {
  const std::string newline = source.find("\r\n") == std::string::npos ? "\n" : "\r\n";
  std::string indent;
  std::string text;
  if (!rule.meta.empty()) {
    const std::size_t first = rule.meta.front().key_range.begin;
    const std::string between = IsFirstOfLine(source, first, indent) ? newline + indent : " ";
    for (const std::string& item : items) {
      text += item + between;
    }
    edits.Insert(first, std::move(text));
    return;
  }
  // A rule that goes on on the brace's own line is kept on it.
  const std::size_t next = source.find_first_not_of(" \t\r", rule.body_begin);
  const bool own_lines = next != std::string::npos && source[next] == '\n';
  const std::size_t section = source.find_first_not_of(" \t\r\n", rule.body_begin);
  if (!own_lines || section == std::string::npos || !IsFirstOfLine(source, section, indent)) {
    indent.clear();
  }
  const std::string before = own_lines ? newline + indent : " ";
  if (rule.meta_begin == 0) {
    text += before + "meta:";
  }
  for (const std::string& item : items) {
    text += before + (own_lines ? (indent.empty() ? "  " : indent) : "") + item;
  }
  edits.Insert(rule.meta_begin == 0 ? rule.body_begin : rule.meta_begin, std::move(text));
}

}  // namespace

FixedSource AddMissingMetadata(const std::string& source, const std::string& set, const std::string& default_action) {
  FixedSource fixed;
  yara_source::Edits edits;
  for (const RuleText& rule : yara_source::ParseSource(source).rules) {
    std::vector<std::string> items;
    if (!Has(rule, "id")) {
      items.push_back(fmt::format("id = \"{}\"", StableRuleId(set, rule.name)));
      ++fixed.ids;
    }
    if (!Has(rule, "action") && !default_action.empty()) {
      items.push_back(fmt::format("action = \"{}\"", default_action));
      ++fixed.actions;
    }
    if (!items.empty()) {
      Insert(source, rule, items, edits);
    }
  }
  fixed.text = edits.Apply(source);
  return fixed;
}

}  // namespace vond::vondctl
