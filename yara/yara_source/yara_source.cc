#include "yara/yara_source/yara_source.h"

#include <algorithm>
#include <array>

namespace vond::yara_source {

std::optional<OpenEnd> FindOpenEnd(std::string_view source) {
  const std::size_t opening = source.rfind("/*");
  const std::size_t closing = source.rfind("*/");
  const bool may_be_comment =
      opening != std::string_view::npos && (closing == std::string_view::npos || closing < opening + 2);
  if (!may_be_comment && source.find("include") == std::string_view::npos) {
    return std::nullopt;  // as nearly always, without a look at each token
  }
  const std::vector<Token> tokens = Tokenize(source);
  if (tokens.empty() || tokens.back().kind != TokenKind::kError || tokens.back().range.end != source.size()) {
    return std::nullopt;
  }
  const Token& last = tokens.back();
  if (source.substr(last.range.begin).starts_with("/*")) {
    return OpenEnd{"comment without an end, which takes in all that follows", last.range.begin, last.line};
  }
  if (tokens.size() >= 2 && source[last.range.begin] == '"') {
    const Token& keyword = tokens[tokens.size() - 2];
    if (source.substr(keyword.range.begin, keyword.range.Size()) == "include") {
      return OpenEnd{"include without a closing quote, which takes in all that follows", keyword.range.begin,
                     keyword.line};
    }
  }
  return std::nullopt;
}

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
