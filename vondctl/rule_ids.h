#pragma once

#include <string>
#include <string_view>

namespace vond::vondctl {

/// An id for a rule that has none: the UUID (version 5, RFC 4122) of the set's name and the rule's, so the same on
/// every machine and in every run. `set` is what the author would call the set, such as a rule file's name without its
/// folder and ending. Any thread.
[[nodiscard]] std::string StableRuleId(std::string_view set, std::string_view rule);

}  // namespace vond::vondctl
