#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace vond::yara_source {

/// A half-open range of bytes of a source text.
struct Range {
  std::size_t begin = 0;
  std::size_t end = 0;
  [[nodiscard]] std::size_t Size() const noexcept { return end - begin; }
};

enum class TokenKind {
  kIdentifier,        ///< keywords included
  kStringIdentifier,  ///< $a, #a, @a, !a, with or without a name
  kNumber,            ///< with its suffix
  kText,              ///< "..."
  kHexString,         ///< { ... } wherever it looks like one, as for libyara; comments inside included
  kRegex,             ///< /.../ with its modifiers
  kPunctuation,       ///< an operator or a single character
  kComment,           ///< // to the end of the line, or a closed /* */
  kError,             ///< what never ends (a comment, a string), bytes of no token, a byte order mark
};

struct Token {
  TokenKind kind = TokenKind::kError;
  Range range;
  long line = 1;  ///< on which it begins, from 1
};

/// Splits a source into its tokens; what lies between them is white space. Every byte belongs to a token or is white
/// space, whatever the source. Any thread. Runs in time proportional to the source.
[[nodiscard]] std::vector<Token> Tokenize(std::string_view source);

/// Text (its escapes undone, so any bytes), integer or flag.
using MetaValue = std::variant<std::string, std::int64_t, bool>;

/// key = value
struct MetaItem {
  std::string key;
  MetaValue value;
  Range key_range;
  Range value_range;  ///< with quotes and sign
  long line = 1;
};

/// A name in a condition that may stand for a rule: no keyword, no member of a module or of another name, no function,
/// no variable of a loop.
struct RuleReference {
  std::string name;  ///< of a rule, or with `is_prefix` what the names of several begin with ("any of (Name*)")
  bool is_prefix = false;
  Range range;
};

struct RuleText {
  std::string name;
  bool is_private = false;
  bool is_global = false;
  std::vector<std::string> tags;
  std::vector<MetaItem> meta;  ///< in the rule's order; keys may repeat
  std::vector<RuleReference> references;
  std::vector<std::string> modules;  ///< names in front of a dot in the condition, each once
  Range whole;                       ///< from the first modifier to the closing brace
  Range name_range;
  std::size_t body_begin = 0;  ///< behind the opening brace
  std::size_t meta_begin = 0;  ///< behind "meta:", 0 without such a section
  long line = 1;               ///< of the name
};

/// import "module" or include "path"
struct Directive {
  std::string text;  ///< what stands between the quotes, escapes undone
  Range range;       ///< from the keyword to the closing quote
  long line = 1;
};

/// What the parser could not make sense of. The compiler has the last word on whether a source is right.
struct SourceError {
  std::string message;
  long line = 1;
};

/// What a source declares, in its order. After an error the parser goes on with the next declaration.
struct SourceIndex {
  std::vector<RuleText> rules;
  std::vector<Directive> imports;
  std::vector<Directive> includes;
  std::vector<SourceError> errors;
};

/// Reads the declarations of a source. Any thread. Never throws but for want of memory.
[[nodiscard]] SourceIndex ParseSource(std::string_view source);

/// A comment, the path of an include, text or a regular expression that goes on to the end of a source. The compiler
/// says nothing about it, and takes in what follows when another source is joined to this one.
struct OpenEnd {
  std::string message;
  std::size_t begin = 0;  ///< with the keyword of an include
  long line = 1;
};

/// Any thread. Runs in time proportional to the source.
[[nodiscard]] std::optional<OpenEnd> FindOpenEnd(std::string_view source);

/// Changes to a source, kept until all are known, so that every range is one of the original.
class Edits {
 public:
  /// Ranges must not overlap; several insertions at one place (empty ranges) come out in the order of the calls.
  void Replace(Range range, std::string text);
  void Insert(std::size_t at, std::string text) { Replace({at, at}, std::move(text)); }
  [[nodiscard]] bool Empty() const noexcept { return changes_.empty(); }
  /// In the order of the calls.
  [[nodiscard]] const std::vector<std::pair<Range, std::string>>& Changes() const noexcept { return changes_; }
  [[nodiscard]] std::string Apply(std::string_view source) const;

 private:
  std::vector<std::pair<Range, std::string>> changes_;
};

/// `text` as a YARA string literal with its quotes: quote, backslash, and everything that is not printable ASCII
/// escaped.
[[nodiscard]] std::string QuoteText(std::string_view text);

}  // namespace vond::yara_source
