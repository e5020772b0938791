#pragma once

#include <map>
#include <string>

namespace vond::vondctl {

/// The line (from 1) of each member and each element of a JSON text, under the keys and positions that lead to it, with
/// a stroke between: "rule_sets", "rule_sets/0", "rule_sets/0/path". A repeated key has the line of the last one, which
/// is the one that counts. Up to the first error, if there is one.
[[nodiscard]] std::map<std::string, long> PlacesOfJson(const std::string& text);

}  // namespace vond::vondctl
