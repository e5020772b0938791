#include <algorithm>

#include "yara/yara_source/yara_source.h"

namespace vond::yara_source {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsHexDigit(char c) { return IsDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool IsWordPart(char c) { return IsDigit(c) || IsLetter(c) || c == '_'; }
bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
bool IsPrintable(char c) { return c >= ' ' && c <= '~'; }
bool IsHexStringPart(char c) {
  return IsHexDigit(c) || std::string_view(" \t\r\n-|~?[]()").find(c) != std::string_view::npos;
}

// Takes the same decisions as libyara's scanner, which knows nothing of where a token stands: "/" always begins a
// regular expression, and "{" a hex string wherever it looks like one. The longest token wins.
class Tokenizer {
 public:
  explicit Tokenizer(std::string_view source) : source_(source) {}

  std::vector<Token> Run() {
    if (source_.starts_with(kByteOrderMark)) {
      Add(TokenKind::kError, kByteOrderMark.size());
    }
    while (true) {
      while (IsSpace(At(at_)) && at_ < source_.size()) {
        line_ += source_[at_++] == '\n' ? 1 : 0;
      }
      if (at_ == source_.size()) {
        return std::move(tokens_);
      }
      Next();
    }
  }

 private:
  // A zero byte behind the end, where no token goes on.
  [[nodiscard]] char At(std::size_t i) const { return i < source_.size() ? source_[i] : '\0'; }

  template <typename Predicate>
  [[nodiscard]] std::size_t SkipWhile(std::size_t i, Predicate predicate) const {
    while (i < source_.size() && predicate(source_[i])) {
      ++i;
    }
    return i;
  }

  [[nodiscard]] std::size_t EndOfLine(std::size_t i) const { return std::min(source_.find('\n', i), source_.size()); }

  void Add(TokenKind kind, std::size_t end) {
    tokens_.push_back({kind, {at_, end}, line_});
    line_ += std::count(source_.begin() + static_cast<std::ptrdiff_t>(at_),
                        source_.begin() + static_cast<std::ptrdiff_t>(end), '\n');
    at_ = end;
  }

  void Next() {
    const char c = source_[at_];
    const char next = At(at_ + 1);
    if (IsLetter(c) || c == '_') {
      const std::size_t end = SkipWhile(at_, IsWordPart);
      const bool is_include = source_.substr(at_, end - at_) == "include";
      Add(TokenKind::kIdentifier, end);
      if (is_include) {
        IncludedPath();
      }
    } else if (IsDigit(c)) {
      Add(TokenKind::kNumber, EndOfNumber());
    } else if (c == '"') {
      Quoted('"', TokenKind::kText);
    } else if (c == '/' && next == '/') {
      Add(TokenKind::kComment, EndOfLine(at_));
    } else if (c == '/' && next == '*') {
      const std::size_t end = source_.find("*/", at_ + 2);
      if (end == std::string_view::npos) {
        Add(TokenKind::kError, source_.size());
      } else {
        Add(TokenKind::kComment, end + 2);
      }
    } else if (c == '/') {
      Quoted('/', TokenKind::kRegex);
    } else if (c == '{') {
      const std::size_t end = EndOfHexString();
      Add(end == 0 ? TokenKind::kPunctuation : TokenKind::kHexString, end == 0 ? at_ + 1 : end);
    } else if (c == '$' || c == '#' || c == '@' || (c == '!' && next != '=')) {
      const std::size_t end = SkipWhile(at_ + 1, IsWordPart);
      Add(TokenKind::kStringIdentifier, c == '$' && At(end) == '*' ? end + 1 : end);
    } else if (IsPrintable(c)) {
      const bool is_double = (next == '=' && std::string_view("<>=!").find(c) != std::string_view::npos) ||
                             (c == next && std::string_view("<>.").find(c) != std::string_view::npos);
      Add(TokenKind::kPunctuation, at_ + (is_double ? 2 : 1));
    } else {
      Add(TokenKind::kError, SkipWhile(at_, [](char other) { return !IsPrintable(other) && !IsSpace(other); }));
    }
  }

  [[nodiscard]] std::size_t EndOfNumber() const {
    if (source_[at_] == '0' && At(at_ + 1) == 'x' && IsHexDigit(At(at_ + 2))) {
      return SkipWhile(at_ + 2, IsHexDigit);
    }
    const auto is_octal_digit = [](char c) { return c >= '0' && c <= '7'; };
    if (source_[at_] == '0' && At(at_ + 1) == 'o' && is_octal_digit(At(at_ + 2))) {
      return SkipWhile(at_ + 2, is_octal_digit);
    }
    const std::size_t end = SkipWhile(at_, IsDigit);
    if (At(end) == '.' && IsDigit(At(end + 1))) {
      return SkipWhile(end + 1, IsDigit);
    }
    return (At(end) == 'K' || At(end) == 'M') && At(end + 1) == 'B' ? end + 2 : end;
  }

  // Text or a regular expression, in which a backslash takes the next character with it. Neither goes over a line.
  void Quoted(char quote, TokenKind kind) {
    std::size_t i = at_ + 1;
    while (i < source_.size() && source_[i] != quote && source_[i] != '\n') {
      i += source_[i] == '\\' && i + 1 < source_.size() && source_[i + 1] != '\n' ? 2 : 1;
    }
    if (At(i) != quote) {
      Add(TokenKind::kError, i);
      return;
    }
    ++i;
    if (kind == TokenKind::kRegex) {
      i += At(i) == 'i' ? 1 : 0;
      i += At(i) == 's' ? 1 : 0;
    }
    Add(kind, i);
  }

  // The path of an "include" stands as it is: a backslash means itself, and lines end nothing. Without a closing quote
  // it takes in all the rest.
  void IncludedPath() {
    const std::size_t quote = SkipWhile(at_, [](char c) { return c == ' ' || c == '\t'; });
    if (quote == at_ || At(quote) != '"') {
      return;
    }
    at_ = quote;
    const std::size_t end = source_.find('"', quote + 1);
    if (end == std::string_view::npos) {
      Add(TokenKind::kError, source_.size());
    } else {
      Add(TokenKind::kText, end + 1);
    }
  }

  // Where the hex string that begins here ends, 0 if it is none. A "}" in a "//" comment ends the string if nothing
  // behind that line does. What is looked at in vain holds no other "{" but in comments, so no byte is looked at often.
  [[nodiscard]] std::size_t EndOfHexString() const {
    std::size_t fallback = 0;
    std::size_t i = at_ + 1;
    while (i < source_.size()) {
      if (source_[i] == '}') {
        return i == at_ + 1 ? 0 : i + 1;
      }
      if (IsHexStringPart(source_[i])) {
        ++i;
      } else if (source_[i] == '/' && At(i + 1) == '/') {
        const std::size_t end = EndOfLine(i);
        const std::size_t brace = source_.substr(i, end - i).rfind('}');
        if (brace != std::string_view::npos) {
          fallback = i + brace + 1;
        }
        i = end;
      } else if (source_[i] == '/' && At(i + 1) == '*') {
        const std::size_t end = source_.find("*/", i + 2);
        if (end == std::string_view::npos) {
          break;
        }
        i = end + 2;
      } else {
        break;
      }
    }
    return fallback;
  }

  std::string_view source_;
  std::size_t at_ = 0;
  long line_ = 1;
  std::vector<Token> tokens_;
};

}  // namespace

std::vector<Token> Tokenize(std::string_view source) { return Tokenizer(source).Run(); }

}  // namespace vond::yara_source
