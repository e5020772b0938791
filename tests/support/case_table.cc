#include "tests/support/case_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <utility>

#include "tests/support/test_support.h"

namespace vond::test {

std::string Bytes(const std::string& hex) {
  std::istringstream stream(hex);
  std::string bytes;
  for (unsigned byte = 0; stream >> std::hex >> byte;) {
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

Table::Table(const std::string& name, std::size_t least_rows) {
  for (std::vector<std::string>& row : ReadTable(name)) {
    if (row[0].starts_with('!')) {
      words_[row[0]] = row.at(1);
    } else {
      rows_.push_back(std::move(row));
    }
  }
  EXPECT_GE(rows_.size(), least_rows);
  std::printf("%s: %zu rows\n", name.c_str(), rows_.size());
}

// NOLINTNEXTLINE(misc-no-recursion): words are made of words, as deep as the table has them
std::string Table::Expand(const std::string& cell) const {
  std::string text;
  std::size_t at = 0;
  for (std::size_t start = 0; (start = cell.find("<<", at)) != std::string::npos;) {
    text += Replace(cell.substr(at, start - at), "~", "\n");
    at = cell.find_first_not_of('>', cell.find(">>", start));
    at = std::min(at, cell.size());
    const std::string inner = cell.substr(start + 2, at - start - 4);
    const std::size_t star = inner.find('*');
    const std::size_t blank = std::min(inner.find(' '), inner.size());
    if (inner.starts_with('!')) {
      text += Expand(Replace(words_.at(inner.substr(0, blank)), "?", inner.substr(std::min(blank + 1, inner.size()))));
    } else if (star == std::string::npos) {
      text += Bytes(inner);
    } else {
      for (std::size_t i = std::stoul(inner); i > 0; --i) {
        text += Replace(inner.substr(star + 1), "#", std::to_string(i));
      }
    }
  }
  return text + Replace(cell.substr(at), "~", "\n");
}

std::vector<std::string> Table::LogLines(const std::string& cell, const std::string& input) const {
  std::vector<std::string> lines = Lines(Replace(Expand(cell), "<input>", input));
  for (std::string& line : lines) {
    line.resize(std::min(line.size(), std::size_t{65536}));
  }
  return lines;
}

}  // namespace vond::test
