#pragma once

#include <string>
#include <vector>

namespace vond::vondctl {

/// The candidate that `word` was most likely meant to be: the one with the fewest letters changed, added, left out or
/// swapped with their neighbours, case aside, if those are few for its length, else one that begins with `word`. Empty
/// if there is none. Dashes in front count for nothing.
[[nodiscard]] std::string Suggest(const std::string& word, const std::vector<std::string>& candidates);

/// "; did you mean X?" for the end of a message, or nothing.
[[nodiscard]] std::string DidYouMean(const std::string& word, const std::vector<std::string>& candidates);

}  // namespace vond::vondctl
