#include "vondctl/suggestion.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace vond::vondctl {
namespace {

constexpr std::size_t kLongestWord = 64;

std::string Plain(const std::string& word) {
  std::string plain = word.substr(std::min(word.find_first_not_of('-'), word.size()));
  for (char& c : plain) {
    c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return plain;
}

std::size_t EditDistance(std::string_view a, std::string_view b) {
  std::vector<std::vector<std::size_t>> distance(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) {
    for (std::size_t j = 0; j <= b.size(); ++j) {
      if (i == 0 || j == 0) {
        distance[i][j] = i + j;
        continue;
      }
      const std::size_t change = distance[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      distance[i][j] = std::min({distance[i - 1][j] + 1, distance[i][j - 1] + 1, change});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        distance[i][j] = std::min(distance[i][j], distance[i - 2][j - 2] + 1);
      }
    }
  }
  return distance[a.size()][b.size()];
}

}  // namespace

std::string Suggest(const std::string& word, const std::vector<std::string>& candidates) {
  const std::string plain = Plain(word);
  if (plain.empty() || plain.size() > kLongestWord) {
    return {};
  }
  std::string best;
  std::size_t best_distance = std::max<std::size_t>(1, plain.size() / 3) + 1;
  for (const std::string& candidate : candidates) {
    const std::string other = Plain(candidate);
    const std::size_t distance = EditDistance(plain, other);
    // A word of which nothing stays is no typing error.
    if (distance < best_distance && distance < std::min(plain.size(), other.size())) {
      best = candidate;
      best_distance = distance;
    }
  }
  if (best.empty() && plain.size() > 1) {
    const auto longer = std::find_if(candidates.begin(), candidates.end(), [&plain](const std::string& candidate) {
      return Plain(candidate).starts_with(plain);
    });
    return longer == candidates.end() ? std::string() : *longer;
  }
  return best;
}

std::string DidYouMean(const std::string& word, const std::vector<std::string>& candidates) {
  const std::string suggestion = Suggest(word, candidates);
  return suggestion.empty() ? std::string() : "; did you mean " + suggestion + "?";
}

}  // namespace vond::vondctl
