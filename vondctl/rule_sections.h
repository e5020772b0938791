#pragma once

#include <string>
#include <string_view>

#include "yara/yara_source/yara_source.h"

namespace vond::vondctl {

/// The text of a token such that two tokens with the same text mean the same: hex strings without comments, white space
/// and upper case, all others as they stand. `source` is what was tokenized.
[[nodiscard]] std::string CanonicalToken(std::string_view source, const yara_source::Token& token);

/// The parts of a rule, each as its tokens, comments and layout left out: equal texts mean equal parts.
struct RuleSections {
  std::string tags;
  std::string meta;
  std::string strings;
  std::string condition;
};

/// Takes a rule of ParseSource(source) apart.
[[nodiscard]] RuleSections SectionsOf(std::string_view source, const yara_source::RuleText& rule);

/// The item of `key` that counts: the last one. Null if there is none.
[[nodiscard]] const yara_source::MetaItem* FindMeta(const yara_source::RuleText& rule, std::string_view key);

/// A metadata value as it is shown to people: text as it stands, true or false, an integer in decimal.
[[nodiscard]] std::string MetaText(const yara_source::MetaValue& value);

}  // namespace vond::vondctl
