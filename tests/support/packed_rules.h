#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "utils/rule_set_file.h"

namespace vond::test {

/// `text` as one gzip member. `level` is zlib's; -1 is its default.
[[nodiscard]] std::string Gzip(std::string text, int level = -1);

/// A packed rule-set file that holds `data`, which should be gzip, where it says it does.
[[nodiscard]] std::string Encrypt(const std::string& data, std::string_view key = korvo::utils::kPackedRuleSetKey);

/// `data` with the bits of `mask` flipped in one byte.
[[nodiscard]] std::string Flip(std::string data, std::size_t at, int mask);

/// Packed rule-set files that are damaged, each with what was done to it: more than 2,000, made from a few whole ones.
[[nodiscard]] std::vector<std::pair<std::string, std::string>> DamagedRuleSets();

}  // namespace vond::test
