#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace vond::vondctl {

/// What is wrong with a command line, in one line for whoever typed it.
class UsageError : public std::runtime_error {
 public:
  /// `verb`: whose help to read; empty for the program's.
  UsageError(const std::string& text, std::string verb) : std::runtime_error(text), verb_(std::move(verb)) {}
  [[nodiscard]] const std::string& Verb() const noexcept { return verb_; }

 private:
  std::string verb_;
};

/// What was asked for besides a verb's run.
struct CommandLine {
  const CLI::App* help_for = nullptr;  ///< the program or verb whose --help was given; the rest was not looked at
  bool version = false;                ///< likewise --version
};

/// Parses `arguments`, without the program's name, by the table in `program`, and fills what its options are bound to.
/// Throws UsageError. Read as users of other tools expect it, where CLI11 would not:
///
/// - an option that takes one value takes just the next argument, whatever it begins with, but for an option's full
///   name or "--", which show that it was forgotten;
/// - options and arguments may be mixed, up to "--"; "-" is an argument; options that every verb has may stand before
/// it;
/// - an optional value stands in the same argument (--recursive=2);
/// - an option that is not a list may be given once;
/// - an argument such as [a,b] is that, not a list of two.
[[nodiscard]] CommandLine ParseCommandLine(CLI::App& program, const std::vector<std::string>& arguments);

}  // namespace vond::vondctl
