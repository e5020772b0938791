#include "yara/yara_source/yara_source.h"

#include <algorithm>
#include <array>

namespace vond::yara_source {

std::optional<OpenEnd> FindOpenEnd(std::string_view source) {
  const std::size_t opening = source.rfind("/*");
  const std::size_t closing = source.rfind("*/");
  const bool may_be_comment =
      opening != std::string_view::npos && (closing == std::string_view::npos || closing < opening + 2);
  const std::string_view last_line = source.substr(source.rfind('\n') + 1);
  if (!may_be_comment && last_line.find_first_of("\"/") == std::string_view::npos &&
      source.find("include") == std::string_view::npos) {
    return std::nullopt;  // as nearly always, without a look at each token
  }
  const std::vector<Token> tokens = Tokenize(source);
  if (tokens.empty() || tokens.back().kind != TokenKind::kError || tokens.back().range.end != source.size()) {
    return std::nullopt;
  }
  const Token& last = tokens.back();
  const std::string_view text = source.substr(last.range.begin);
  OpenEnd open_end{"", last.range.begin, last.line};
  if (text.starts_with("/*")) {
    open_end.message = "comment without an end";
  } else if (text.starts_with('/')) {
    open_end.message = "regular expression without an end";
  } else if (text.starts_with('"')) {
    open_end.message = "text without a closing quote";
  } else {
    return std::nullopt;
  }
  open_end.message += ", which takes in all that follows";
  if (tokens.size() >= 2 && text.starts_with('"')) {
    const Range keyword = tokens[tokens.size() - 2].range;
    const std::string_view gap = source.substr(keyword.end, last.range.begin - keyword.end);
    if (source.substr(keyword.begin, keyword.Size()) == "include" && !gap.empty() &&
        gap.find_first_not_of(" \t") == std::string_view::npos) {
      open_end.begin = keyword.begin;
    }
  }
  return open_end;
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
