#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace vond::test {

/// The bytes behind hexadecimal numbers with blanks between.
[[nodiscard]] std::string Bytes(const std::string& hex);

/// `text` with each `from` turned into `to`.
[[nodiscard]] std::string Replace(std::string text, const std::string& from, const std::string& to);

/// A table of tests/data, its notation being: ~ is a newline, <<7c 0a>> are bytes, <<100*x>> is a text that many times,
/// with the number of times left for #,
/// <<!word x>> is what a line "!word | text" of the table says, with x where a question mark stands.
class Table {
 public:
  /// Fails the test if there are fewer rows.
  Table(const std::string& name, std::size_t least_rows);

  [[nodiscard]] const std::vector<std::vector<std::string>>& Rows() const { return rows_; }
  [[nodiscard]] const std::map<std::string, std::string>& Words() const { return words_; }
  [[nodiscard]] std::string Expand(const std::string& cell) const;
  /// As the agent's side delivers them: cut at 64 KiB.
  [[nodiscard]] std::vector<std::string> LogLines(const std::string& cell, const std::string& input = "") const;

 private:
  std::vector<std::vector<std::string>> rows_;
  std::map<std::string, std::string> words_;
};

}  // namespace vond::test
