#include "vondctl/option_table.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <sstream>
#include <string_view>

namespace vond::vondctl {
namespace {

std::vector<std::string> SplitAtBars(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, '|');) {
    parts.push_back(part);
  }
  return parts;
}

bool IsWord(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
  });
}

// Visible options, those of option groups (which are nameless verbs to CLI11) included.
// NOLINTNEXTLINE(misc-no-recursion): a group may hold groups
void Collect(const CLI::App& app, bool positional, std::vector<const CLI::Option*>& options) {
  for (const CLI::Option* option :
       app.get_options([](const CLI::Option* candidate) { return !candidate->get_group().empty(); })) {
    if (option->get_positional() == positional) {
      options.push_back(option);
    }
  }
  for (const CLI::App* group : app.get_subcommands([](const CLI::App* sub) { return sub->get_name().empty(); })) {
    Collect(*group, positional, options);
  }
}

// What the verb's author called the value, without what CLI11 appends for validators.
std::string TypeName(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  return type.substr(0, type.find(':'));
}

}  // namespace

std::vector<const CLI::App*> VerbsOf(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App* sub) { return !sub->get_name().empty() && !sub->get_group().empty(); });
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as verbs have verbs
std::string VerbName(const CLI::App& app) {
  const CLI::App* const parent = app.get_parent();
  if (parent == nullptr) {
    return {};
  }
  const std::string above = VerbName(*parent);
  return above.empty() ? app.get_name() : above + ' ' + app.get_name();
}

std::vector<const CLI::Option*> OptionsOf(const CLI::App& app) {
  std::vector<const CLI::Option*> options;
  Collect(app, false, options);
  std::stable_partition(options.begin(), options.end(),
                        [](const CLI::Option* option) { return option->get_group() != kCommonGroup; });
  return options;
}

std::vector<const CLI::Option*> ArgumentsOf(const CLI::App& app) {
  std::vector<const CLI::Option*> arguments;
  Collect(app, true, arguments);
  return arguments;
}

std::vector<std::string> NamesOf(const CLI::Option& option) {
  std::vector<std::string> names;
  for (const std::string& name : option.get_snames()) {
    names.push_back('-' + name);
  }
  for (const std::string& name : option.get_lnames()) {
    names.push_back("--" + name);
  }
  return names;
}

bool TakesValue(const CLI::Option& option) { return option.get_items_expected_max() > 0; }

bool ValueIsOptional(const CLI::Option& option) { return TakesValue(option) && option.get_items_expected_min() == 0; }

bool MayRepeat(const CLI::Option& option) {
  return !TakesValue(option) || option.get_items_expected_max() > 1 ||
         option.get_multi_option_policy() != CLI::MultiOptionPolicy::Throw;
}

std::string ValueName(const CLI::Option& option) {
  if (option.get_positional()) {
    return option.get_name(true);
  }
  if (!TakesValue(option)) {
    return {};
  }
  const std::string type = TypeName(option);
  return type == "INT" || type == "UINT" || type == "FLOAT" ? "N" : type;
}

std::vector<std::string> WordsOf(const CLI::Option& option) {
  std::vector<std::string> words = SplitAtBars(TypeName(option));
  const bool all_words = words.size() > 1 && std::all_of(words.begin(), words.end(), &IsWord);
  return all_words ? words : std::vector<std::string>{};
}

bool TakesPath(const CLI::Option& option) {
  constexpr std::array<std::string_view, 8> kPaths{"FILE", "DIR", "PATH", "RULES", "POLICY", "OLD", "NEW", "SOCKET"};
  const std::vector<std::string> names = SplitAtBars(ValueName(option));
  return std::any_of(names.begin(), names.end(), [&kPaths](const std::string& name) {
    return std::find(kPaths.begin(), kPaths.end(), name) != kPaths.end();
  });
}

}  // namespace vond::vondctl
