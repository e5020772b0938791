#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace korvo::utils {

/// A line of text in a fixed buffer: nothing here allocates or locks, so signal handlers may use it. What does not fit
/// is cut. One thread.
class FixedLine {
 public:
  FixedLine& Append(std::string_view text) noexcept;
  FixedLine& Append(long number) noexcept;
  /// Writes the text to descriptor `fd` and keeps `errno`. Errors are ignored: there is nowhere left to report them.
  void WriteTo(int fd) const noexcept;
  [[nodiscard]] std::string_view View() const noexcept { return {buffer_.data(), size_}; }

 private:
  std::array<char, 1024> buffer_{};
  std::size_t size_ = 0;
};

/// Starts an assertion line: "Line <line> @ <path> *** Assertion '((<condition>))' failed *** ".
/// `line` and `path` are the site's fixed name in the agent's crash statistics; they do not follow the source.
[[nodiscard]] FixedLine AssertionPrefix(int line, std::string_view path, std::string_view condition) noexcept;

/// Writes the assertion line of a broken invariant, with `message` and a newline, to standard error whatever the log
/// level. Any thread, also in signal context. Never throws; what follows is the caller's to decide.
void WriteAssertion(int line, std::string_view path, std::string_view condition, std::string_view message) noexcept;

/// Whether WriteAssertion writes at all; it does at start. For tools that use the daemon's code to judge rules and tell
/// people in their own words what is wrong.
void EnableAssertionLines(bool enable) noexcept;

}  // namespace korvo::utils
