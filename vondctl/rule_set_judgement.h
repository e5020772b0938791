#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "vondctl/problem.h"
#include "vondctl/rule_merge.h"
#include "yara/yara_source/yara_source.h"

namespace vond::vondctl {

// What pack and adopt both do with a merged set before they write it. Problems have the places of the files that it was
// made of.

/// What `check` finds in the source that keeps the daemon from taking it, and its slow rules, which come first.
[[nodiscard]] std::vector<Problem> JudgeMerged(const MergedSource& source);

/// Why the daemon's own code does not take the rule-set file `content`, made of `source`; nothing if it does.
[[nodiscard]] std::vector<Problem> LoadMerged(const MergedSource& source, const std::string& content);

/// Whether `output` is one of the files that `source` was made of.
[[nodiscard]] bool IsInput(const MergedSource& source, const std::string& output);

/// Adds metadata items ("key = value") in front of a rule's own, in the rule's layout; makes the section if needed.
void AddMetaItems(yara_source::Edits& edits, std::string_view text, const yara_source::RuleText& rule,
                  const std::vector<std::string>& items);

}  // namespace vond::vondctl
