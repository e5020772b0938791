#include "vondctl/rule_sections.h"

#include <algorithm>
#include <cctype>

namespace vond::vondctl {

using yara_source::MetaItem;
using yara_source::MetaValue;
using yara_source::RuleText;
using yara_source::Token;
using yara_source::TokenKind;

std::string CanonicalToken(std::string_view source, const Token& token) {
  const std::string_view text = source.substr(token.range.begin, token.range.Size());
  if (token.kind != TokenKind::kHexString) {
    return std::string(text);
  }
  std::string canonical;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const std::string_view rest = text.substr(i);
    if (rest.starts_with("//")) {
      i = std::min(text.find('\n', i), text.size() - 1);
    } else if (rest.starts_with("/*")) {
      i = std::min(text.find("*/", i + 2), text.size() - 2) + 1;
    } else if (std::isspace(static_cast<unsigned char>(text[i])) == 0) {
      canonical += static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
    }
  }
  return canonical;
}

RuleSections SectionsOf(std::string_view source, const RuleText& rule) {
  RuleSections sections;
  std::string heading;
  std::string* section = &heading;
  const std::string_view text = source.substr(rule.whole.begin, rule.whole.Size());
  for (const Token& token : yara_source::Tokenize(text)) {
    const std::size_t position = rule.whole.begin + token.range.begin;
    const std::string_view word = text.substr(token.range.begin, token.range.Size());
    if (token.kind == TokenKind::kComment) {
      continue;
    }
    // The words that begin a section are names of nothing else.
    if (position >= rule.body_begin && token.kind == TokenKind::kIdentifier) {
      section = word == "meta"        ? &sections.meta
                : word == "strings"   ? &sections.strings
                : word == "condition" ? &sections.condition
                                      : section;
    } else if (position >= rule.name_range.end && position < rule.body_begin) {
      section = &sections.tags;
    }
    *section += CanonicalToken(text, token);
    *section += ' ';
  }
  return sections;
}

const MetaItem* FindMeta(const RuleText& rule, std::string_view key) {
  const auto found =
      std::find_if(rule.meta.rbegin(), rule.meta.rend(), [&](const MetaItem& item) { return item.key == key; });
  return found == rule.meta.rend() ? nullptr : &*found;
}

std::string MetaText(const MetaValue& value) {
  if (const auto* const text = std::get_if<std::string>(&value)) {
    return *text;
  }
  if (const auto* const flag = std::get_if<bool>(&value)) {
    return *flag ? "true" : "false";
  }
  return std::to_string(std::get<std::int64_t>(value));
}

}  // namespace vond::vondctl
