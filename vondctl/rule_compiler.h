#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct YR_RULES;

namespace vond::vondctl {

/// What libyara's compiler said about one place of a source.
struct CompilerReport {
  bool is_error = false;  ///< otherwise a warning, which the daemon never tells anyone
  long line = 0;          ///< from 1; 0 when the source ends too early
  std::string rule;       ///< the rule at hand, if the compiler knew it
  std::string message;
};

/// The end of one compilation.
struct CompiledSource {
  std::vector<CompilerReport> reports;  ///< in the compiler's order
  std::shared_ptr<YR_RULES> rules;      ///< null when there was an error

  [[nodiscard]] bool Failed() const noexcept { return rules == nullptr; }
};

/// Compiles `source` as the daemon does (no includes, no external variables, a zero byte is an error) and keeps what
/// the daemon drops: the warnings. A failed compilation has at least one error among its reports. Any thread. Throws
/// std::bad_alloc, or YaraException when libyara does not start.
[[nodiscard]] CompiledSource CompileRuleSource(const std::string& source);

/// The name in `undefined identifier "name"`, the compiler's word for an external variable, a rule or module that is
/// not there; empty for any other message.
[[nodiscard]] std::string UndefinedIdentifier(std::string_view message);

/// Whether a warning says that a string of the rule makes every scan slow.
[[nodiscard]] bool IsSlowStringWarning(std::string_view message);

}  // namespace vond::vondctl
