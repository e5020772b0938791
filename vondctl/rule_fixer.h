#pragma once

#include <cstddef>
#include <string>

namespace vond::vondctl {

/// A rule source with the missing metadata put in.
struct FixedSource {
  std::string text;
  std::size_t ids = 0;      ///< rules that were given an "id"
  std::size_t actions = 0;  ///< rules that were given an "action"
};

/// Adds an "id" (rule_ids.h, of `set` and the rule's name) to each rule of `source` that has none and, unless
/// `default_action` is empty, that action to each that has none. Changes nothing else: not a byte of what is there, and
/// no value that is there, be it a bad one. New items stand in front of the others, in their manner of writing.
[[nodiscard]] FixedSource AddMissingMetadata(const std::string& source, const std::string& set,
                                             const std::string& default_action);

}  // namespace vond::vondctl
