#pragma once

#include <string>

namespace vond::bench {

/// What was asked for beside what was measured, printed row by row as it is found.
class VerdictTable {
 public:
  /// Prints one row.
  void Add(const std::string& what, const std::string& asked, const std::string& measured, bool reached);
  /// Prints a figure for which nothing is asked.
  void Note(const std::string& what, const std::string& measured);
  [[nodiscard]] bool AllReached() const { return all_reached_; }

 private:
  bool all_reached_ = true;
};

}  // namespace vond::bench
