#include "yara/yara_source/yara_source.h"

#include <algorithm>
#include <array>

namespace vond::yara_source {

void Edits::Replace(Range range, std::string text) { changes_.emplace_back(range, std::move(text)); }

std::string Edits::Apply(std::string_view source) const {
  std::vector<const std::pair<Range, std::string>*> changes;
  changes.reserve(changes_.size());
  for (const auto& change : changes_) {
    changes.push_back(&change);
  }
  std::stable_sort(changes.begin(), changes.end(), [](const auto* a, const auto* b) {
    return a->first.begin != b->first.begin ? a->first.begin < b->first.begin
                                            : a->first.Size() == 0 && b->first.Size() != 0;
  });
  std::string result;
  std::size_t done = 0;
  for (const auto* change : changes) {
    result.append(source, done, change->first.begin - done);
    result += change->second;
    done = change->first.end;
  }
  result.append(source, done);
  return result;
}

std::string QuoteText(std::string_view text) {
  static constexpr std::string_view kHexDigits = "0123456789abcdef";
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      quoted += {'\\', c};
    } else if (c == '\n') {
      quoted += "\\n";
    } else if (c == '\t') {
      quoted += "\\t";
    } else if (c >= ' ' && c <= '~') {
      quoted += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      quoted += {'\\', 'x', kHexDigits[byte / 16U], kHexDigits[byte % 16U]};
    }
  }
  quoted += '"';
  return quoted;
}

}  // namespace vond::yara_source
