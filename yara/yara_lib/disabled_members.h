#pragma once

#include <cstdint>
#include <optional>
#include <vector>

struct YR_RULES;

namespace korvo::yara::yara_lib {

/// Rule `owner` counts rule `member` in a rule set of its condition. Indexes into libyara's rule list.
struct RuleSetMembership {
  std::uint32_t owner;
  std::uint32_t member;
};

/// Every membership of the compiled conditions, found by a linear walk over them with the opcodes of yara/exec.h. No
/// value when the code holds something the walk does not know. Pure; any thread.
[[nodiscard]] std::optional<std::vector<RuleSetMembership>> FindRuleSetMemberships(const YR_RULES& rules);

}  // namespace korvo::yara::yara_lib
