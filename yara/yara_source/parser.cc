#include <algorithm>
#include <charconv>
#include <optional>
#include <system_error>
#include <unordered_map>
#include <unordered_set>

#include "yara/yara_source/yara_source.h"

namespace vond::yara_source {
namespace {

// What an identifier in a condition never is.
bool IsKeyword(std::string_view word) {
  static const std::unordered_set<std::string_view> kKeywords{
      "all",      "and",       "any",       "ascii",      "at",       "base64",      "base64wide", "condition",
      "contains", "defined",   "endswith",  "entrypoint", "false",    "filesize",    "for",        "fullword",
      "global",   "icontains", "iendswith", "iequals",    "import",   "in",          "include",    "int16",
      "int16be",  "int32",     "int32be",   "int8",       "int8be",   "istartswith", "matches",    "meta",
      "nocase",   "none",      "not",       "of",         "or",       "private",     "rule",       "startswith",
      "strings",  "them",      "true",      "uint16",     "uint16be", "uint32",      "uint32be",   "uint8",
      "uint8be",  "wide",      "xor"};
  return kKeywords.contains(word);
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  return (c | 0x20) - 'a' + 10;
}

bool IsHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

// What stands between the quotes, escapes undone. An escape that is none stays as it is.
std::string Unquote(std::string_view text) {
  text = text.substr(1, text.size() - 2);
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char next = i + 1 < text.size() ? text[i + 1] : '\0';
    const bool escape = text[i] == '\\';
    if (escape && (next == '"' || next == '\\')) {
      result += next;
      ++i;
    } else if (escape && (next == 't' || next == 'n' || next == 'r')) {
      result += next == 't' ? '\t' : next == 'n' ? '\n' : '\r';
      ++i;
    } else if (escape && next == 'x' && i + 3 < text.size() && IsHexDigit(text[i + 2]) && IsHexDigit(text[i + 3])) {
      result += static_cast<char>(HexValue(text[i + 2]) * 16 + HexValue(text[i + 3]));
      i += 3;
    } else {
      result += text[i];
    }
  }
  return result;
}

// Nothing for a fraction and for what 64 bits can't hold.
std::optional<std::int64_t> IntegerOf(std::string_view number) {
  std::int64_t unit = 1;
  int base = 10;
  if (number.starts_with("0x")) {
    base = 16;
    number.remove_prefix(2);
  } else if (number.starts_with("0o")) {
    base = 8;
    number.remove_prefix(2);
  } else if (number.ends_with("KB") || number.ends_with("MB")) {
    unit = number.ends_with("KB") ? 1024 : 1024 * 1024;
    number.remove_suffix(2);
  }
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value, base);
  if (error != std::errc() || end != number.data() + number.size() || __builtin_mul_overflow(value, unit, &value)) {
    return std::nullopt;
  }
  return value;
}

// The loops around a place in a condition, and their variables.
class LoopVariables {
 public:
  [[nodiscard]] bool Contains(std::string_view name) const {
    const auto it = counts_.find(name);
    return it != counts_.end() && it->second > 0;
  }
  // Behind the "in" of a "for".
  void Declare(std::vector<std::string_view> names) { declared_.push_back({std::move(names), depth_}); }
  void OnColon() { body_expected_ = true; }
  void OnOpen() {
    ++depth_;
    if (body_expected_ && !declared_.empty() && declared_.back().depth == depth_ - 1) {
      open_.push_back({std::move(declared_.back().names), depth_});
      declared_.pop_back();
      for (const std::string_view name : open_.back().names) {
        ++counts_[name];
      }
    }
    body_expected_ = false;
  }
  void OnClose() {
    if (!open_.empty() && open_.back().depth == depth_) {
      for (const std::string_view name : open_.back().names) {
        --counts_[name];
      }
      open_.pop_back();
    }
    --depth_;
  }

 private:
  struct Loop {
    std::vector<std::string_view> names;
    long depth = 0;
  };
  long depth_ = 0;
  bool body_expected_ = false;
  std::vector<Loop> declared_;
  std::vector<Loop> open_;
  std::unordered_map<std::string_view, int> counts_;
};

class Parser {
 public:
  explicit Parser(std::string_view source) : source_(source), tokens_(Tokenize(source)) {
    std::erase_if(tokens_, [](const Token& token) { return token.kind == TokenKind::kComment; });
  }

  SourceIndex Run() {
    bool lost = false;  // of what no declaration begins with, only the first token is reported
    while (at_ < tokens_.size()) {
      const std::string_view word = WordAt(at_);
      const std::size_t before = at_;
      if (word == "import" || word == "include") {
        ParseDirective(word);
      } else if (word == "rule" || word == "private" || word == "global") {
        ParseRule();
      }
      if (at_ != before) {
        lost = false;
        continue;
      }
      if (!std::exchange(lost, true)) {
        Fail(at_, "expected a rule, \"import\" or \"include\"");
      }
      ++at_;
    }
    return std::move(index_);
  }

 private:
  [[nodiscard]] std::string_view TextAt(std::size_t i) const {
    return i < tokens_.size() ? source_.substr(tokens_[i].range.begin, tokens_[i].range.Size()) : std::string_view();
  }
  [[nodiscard]] bool Is(std::size_t i, TokenKind kind) const { return i < tokens_.size() && tokens_[i].kind == kind; }
  [[nodiscard]] std::string_view WordAt(std::size_t i) const {
    return Is(i, TokenKind::kIdentifier) ? TextAt(i) : std::string_view();
  }
  [[nodiscard]] bool IsPunctuation(std::size_t i, std::string_view text) const {
    return Is(i, TokenKind::kPunctuation) && TextAt(i) == text;
  }
  [[nodiscard]] bool IsName(std::size_t i) const { return Is(i, TokenKind::kIdentifier) && !IsKeyword(TextAt(i)); }
  [[nodiscard]] bool IsSection(std::size_t i, std::string_view name) const {
    return WordAt(i) == name && IsPunctuation(i + 1, ":");
  }

  void Fail(std::size_t i, std::string message) {
    const long line = i < tokens_.size() ? tokens_[i].line : tokens_.empty() ? 1 : tokens_.back().line;
    if (Is(i, TokenKind::kError)) {
      const char first = source_[tokens_[i].range.begin];
      message = first == '"'   ? "text without a closing quote"
                : first == '/' ? "comment or regular expression without an end"
                               : "byte that no token begins with";
    }
    index_.errors.push_back({std::move(message), line});
  }

  void ParseDirective(std::string_view word) {
    const std::size_t keyword = at_++;
    if (!Is(at_, TokenKind::kText)) {
      Fail(at_, "expected a quoted name");
      return;
    }
    const std::string_view quoted = TextAt(at_);
    const Range range{tokens_[keyword].range.begin, tokens_[at_].range.end};
    const long line = tokens_[keyword].line;
    if (word == "import") {
      index_.imports.push_back({Unquote(quoted), range, line});
    } else {
      index_.includes.push_back({std::string(quoted.substr(1, quoted.size() - 2)), range, line});
    }
    ++at_;
  }

  void ParseRule() {
    RuleText rule;
    rule.whole.begin = tokens_[at_].range.begin;
    for (; WordAt(at_) == "private" || WordAt(at_) == "global"; ++at_) {
      (WordAt(at_) == "private" ? rule.is_private : rule.is_global) = true;
    }
    if (WordAt(at_) != "rule") {
      Fail(at_, "expected \"rule\"");
      return;
    }
    ++at_;
    if (!IsName(at_)) {
      Fail(at_, "expected the name of a rule");
      return;
    }
    rule.name = TextAt(at_);
    rule.name_range = tokens_[at_].range;
    rule.line = tokens_[at_].line;
    ++at_;
    if (IsPunctuation(at_, ":")) {
      for (++at_; IsName(at_); ++at_) {
        rule.tags.emplace_back(TextAt(at_));
      }
    }
    if (!IsPunctuation(at_, "{")) {
      Fail(at_, "expected \"{\" behind the rule's name");
      return;
    }
    rule.body_begin = tokens_[at_].range.end;
    ++at_;
    ParseBody(rule);
    rule.whole.end = tokens_[at_ - 1].range.end;
    index_.rules.push_back(std::move(rule));
  }

  // Up to and with the closing brace. A rule that lacks one ends where the next begins.
  void ParseBody(RuleText& rule) {
    if (IsSection(at_, "meta")) {
      rule.meta_begin = tokens_[at_ + 1].range.end;
      at_ += 2;
      ParseMeta(rule);
    }
    bool in_condition = false;
    LoopVariables variables;
    std::unordered_set<std::string_view> modules;
    for (long depth = 1; depth > 0; ++at_) {
      if (at_ >= tokens_.size() || BeginsRule(at_)) {
        Fail(at_, "rule \"" + rule.name + "\" has no closing brace");
        while (WordAt(at_ - 1) == "private" || WordAt(at_ - 1) == "global") {
          --at_;
        }
        return;
      }
      const Token& token = tokens_[at_];
      if (token.kind == TokenKind::kPunctuation) {
        const std::string_view text = TextAt(at_);
        depth += text == "{" ? 1 : text == "}" ? -1 : 0;
        if (text == "(") {
          variables.OnOpen();
        } else if (text == ")") {
          variables.OnClose();
        } else if (text == ":" && in_condition) {
          variables.OnColon();
        }
      } else if (token.kind == TokenKind::kError) {
        Fail(at_, "");
      } else if (token.kind == TokenKind::kIdentifier && in_condition) {
        ReadConditionWord(rule, variables, modules);
      } else if (IsSection(at_, "condition")) {
        in_condition = true;
        ++at_;
      }
    }
  }

  // "rule" is no word of any section.
  [[nodiscard]] bool BeginsRule(std::size_t i) const {
    return WordAt(i) == "rule" && IsName(i + 1) && (IsPunctuation(i + 2, "{") || IsPunctuation(i + 2, ":"));
  }

  void ParseMeta(RuleText& rule) {
    while (Is(at_, TokenKind::kIdentifier) && IsPunctuation(at_ + 1, "=")) {
      const std::size_t key = at_;
      std::size_t value = at_ + 2;
      MetaItem item{std::string(TextAt(key)), false, tokens_[key].range, {}, tokens_[key].line};
      const bool negative = IsPunctuation(value, "-");
      value += negative ? 1 : 0;
      const std::string_view text = TextAt(value);
      if (Is(value, TokenKind::kNumber)) {
        const std::optional<std::int64_t> number = IntegerOf(text);
        if (!number) {
          Fail(value, "not a 64-bit integer");
        }
        item.value = negative ? -number.value_or(0) : number.value_or(0);
      } else if (Is(value, TokenKind::kText) && !negative) {
        item.value = Unquote(text);
      } else if ((text == "true" || text == "false") && !negative) {
        item.value = text == "true";
      } else {
        Fail(value, "expected text, an integer, true or false");
        at_ = key + 2;
        return;
      }
      item.value_range = {tokens_[key + 2].range.begin, tokens_[value].range.end};
      rule.meta.push_back(std::move(item));
      at_ = value + 1;
    }
  }

  void ReadConditionWord(RuleText& rule, LoopVariables& variables, std::unordered_set<std::string_view>& modules) {
    const std::string_view word = TextAt(at_);
    if (word == "in") {
      DeclareLoopVariables(rule, variables);
    }
    if (IsKeyword(word) || IsPunctuation(at_ - 1, ".") || variables.Contains(word)) {
      return;
    }
    if (IsPunctuation(at_ + 1, ".")) {
      if (modules.insert(word).second) {
        rule.modules.emplace_back(word);
      }
    } else if (!IsPunctuation(at_ + 1, "(") && !IsPunctuation(at_ + 1, "[")) {
      const bool is_prefix =
          IsPunctuation(at_ + 1, "*") && (IsPunctuation(at_ + 2, ",") || IsPunctuation(at_ + 2, ")"));
      rule.references.push_back({std::string(word), is_prefix, tokens_[at_].range});
    }
  }

  // Names right in front of "in", which otherwise stands behind strings, "them" or a parenthesis. They have been taken
  // for references.
  void DeclareLoopVariables(RuleText& rule, LoopVariables& variables) {
    std::vector<std::string_view> names;
    for (std::size_t i = at_ - 1; IsName(i); i -= 2) {
      names.push_back(TextAt(i));
      if (!rule.references.empty() && rule.references.back().range.begin == tokens_[i].range.begin) {
        rule.references.pop_back();
      }
      if (!IsPunctuation(i - 1, ",")) {
        break;
      }
    }
    if (!names.empty()) {
      variables.Declare(std::move(names));
    }
  }

  std::string_view source_;
  std::vector<Token> tokens_;
  std::size_t at_ = 0;
  SourceIndex index_;
};

}  // namespace

SourceIndex ParseSource(std::string_view source) { return Parser(source).Run(); }

}  // namespace vond::yara_source
