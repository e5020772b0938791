#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

// Reads CLI11's table of verbs and options. Help, completion and the command line's own errors go by it, through here.
//
// By convention an option's type name says what it takes: words in lower case between bars are all there are
// ("text|jsonl"), any of FILE, DIR, PATH, RULES, POLICY, OLD, NEW, SOCKET is a path, all else is a value of the user's
// own.
namespace vond::vondctl {

inline constexpr const char* kCommonGroup = "Common options";

/// The verbs below `app`, in the order of the table.
[[nodiscard]] std::vector<const CLI::App*> VerbsOf(const CLI::App& app);

/// Which verb `app` is ("policy check"); empty for the program itself.
[[nodiscard]] std::string VerbName(const CLI::App& app);

/// The named options of one verb, those that every verb takes last. Without the hidden ones.
[[nodiscard]] std::vector<const CLI::Option*> OptionsOf(const CLI::App& app);

/// The arguments of one verb that have no name.
[[nodiscard]] std::vector<const CLI::Option*> ArgumentsOf(const CLI::App& app);

/// "-r" and "--rules", as they are typed.
[[nodiscard]] std::vector<std::string> NamesOf(const CLI::Option& option);

/// False for a flag.
[[nodiscard]] bool TakesValue(const CLI::Option& option);
/// Whether the value may be left out, so that "--name VALUE" is none.
[[nodiscard]] bool ValueIsOptional(const CLI::Option& option);
/// Whether it may be given more than once.
[[nodiscard]] bool MayRepeat(const CLI::Option& option);
/// What help calls its value: "FILE|DIR", "N"; for an argument its name.
[[nodiscard]] std::string ValueName(const CLI::Option& option);
/// The words it takes, if those are all.
[[nodiscard]] std::vector<std::string> WordsOf(const CLI::Option& option);
[[nodiscard]] bool TakesPath(const CLI::Option& option);

}  // namespace vond::vondctl
