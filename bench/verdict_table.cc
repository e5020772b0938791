#include "bench/verdict_table.h"

#include <fmt/format.h>

#include <cstdio>

namespace vond::bench {

void VerdictTable::Add(const std::string& what, const std::string& asked, const std::string& measured, bool reached) {
  fmt::print("{:<52} {:<18} {:<30} {}\n", what, asked, measured, reached ? "reached" : "NOT REACHED");
  static_cast<void>(std::fflush(stdout));
  all_reached_ = all_reached_ && reached;
}

void VerdictTable::Note(const std::string& what, const std::string& measured) {
  fmt::print("{:<52} {:<18} {}\n", what, "", measured);
  static_cast<void>(std::fflush(stdout));
}

}  // namespace vond::bench
