#include "vondctl/command_line.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstddef>
#include <iterator>
#include <optional>
#include <set>
#include <utility>

#include "vondctl/option_table.h"
#include "vondctl/suggestion.h"

namespace vond::vondctl {
namespace {

[[noreturn]] void Refuse(const CLI::App& verb, const std::string& text) { throw UsageError(text, VerbName(verb)); }

std::string Joined(const std::vector<std::string>& words, const std::string& last_separator) {
  std::string text;
  for (std::size_t i = 0; i < words.size(); ++i) {
    text += i == 0 ? "" : i + 1 == words.size() ? last_separator : ", ";
    text += words[i];
  }
  return text;
}

std::vector<std::string> NamesOfVerbs(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* verb : VerbsOf(app)) {
    names.push_back(verb->get_name());
  }
  return names;
}

std::vector<std::string> NamesOfOptions(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::Option* option : OptionsOf(app)) {
    const std::vector<std::string> more = NamesOf(*option);
    std::copy_if(more.begin(), more.end(), std::back_inserter(names),
                 [](const std::string& name) { return name.starts_with("--"); });
  }
  return names;
}

// Brings a command line into the one form that CLI11 cannot misread: verbs, then options, each value an argument of its
// own, then "--" if need be and what is no option.
class Reader {
 public:
  Reader(const CLI::App& program, const std::vector<std::string>& arguments) : verb_(&program), arguments_(arguments) {}

  // The arguments for CLI11, unless help or version was asked for.
  std::vector<std::string> Read(CommandLine& command_line) {
    bool only_arguments = false;
    while (next_ < arguments_.size() && !asked_) {
      const std::string& argument = arguments_[next_++];
      if (!only_arguments && argument == "--") {
        only_arguments = true;
      } else if (!only_arguments && argument.size() > 1 && argument[0] == '-') {
        argument[1] == '-' ? TakeLong(argument) : TakeShort(argument);
      } else {
        TakeWord(argument);
      }
    }
    if (asked_) {
      command_line = *asked_;
      return {};
    }
    if (!VerbsOf(*verb_).empty()) {
      Refuse(*verb_, fmt::format("no verb given; there are {}", Joined(NamesOfVerbs(*verb_), " and ")));
    }
    return Result();
  }

 private:
  void TakeWord(const std::string& word) {
    const auto verbs = VerbsOf(*verb_);
    if (verbs.empty()) {
      if (ArgumentsOf(*verb_).empty()) {
        Refuse(*verb_, fmt::format("unexpected argument \"{}\"", word));
      }
      words_.push_back(word);
      return;
    }
    const auto verb =
        std::find_if(verbs.begin(), verbs.end(), [&word](const CLI::App* each) { return each->get_name() == word; });
    if (verb == verbs.end()) {
      Refuse(*verb_, fmt::format("there is no verb \"{}\"{}", word, DidYouMean(word, NamesOfVerbs(*verb_))));
    }
    verb_ = *verb;
    verbs_.push_back(word);
  }

  void TakeLong(const std::string& argument) {
    const std::string name = argument.substr(0, argument.find('='));
    const CLI::Option& option = Find(name, argument);
    std::optional<std::string> value;
    if (name.size() < argument.size()) {
      value = argument.substr(name.size() + 1);
    }
    Take(option, name, std::move(value));
  }

  void TakeShort(const std::string& argument) {
    if (verb_->get_option_no_throw('-' + argument) != nullptr) {
      Refuse(*verb_, fmt::format("there is no option {0}; did you mean -{0}?", argument));
    }
    for (std::size_t i = 1; i < argument.size() && !asked_; ++i) {
      const std::string name{'-', argument[i]};
      const CLI::Option& option = Find(name, argument);
      if (TakesValue(option)) {
        const std::string rest = argument.substr(i + 1);
        Take(option, name, rest.empty() ? std::nullopt : std::optional(rest));
        return;
      }
      Take(option, name, std::nullopt);
    }
  }

  // The option of the verb; before the verb only what all verbs have, for which the first one stands.
  const CLI::Option& Find(const std::string& name, const std::string& argument) {
    const CLI::Option* option = verb_->get_option_no_throw(name);
    if (option == nullptr && !VerbsOf(*verb_).empty()) {
      option = VerbsOf(*verb_).front()->get_option_no_throw(name);
      option = option != nullptr && option->get_group() == kCommonGroup ? option : nullptr;
    }
    if (option == nullptr) {
      std::string in = name == argument || name.starts_with("--") ? "" : fmt::format(" (in {})", argument);
      std::string advice = DidYouMean(name, NamesOfOptions(*verb_));
      if (advice.empty() && verbs_.empty()) {
        advice = "; a verb's options stand behind it";
      }
      Refuse(*verb_, fmt::format("there is no option {}{}{}", name, in, advice));
    }
    return *option;
  }

  void Take(const CLI::Option& option, const std::string& name, std::optional<std::string> value) {
    if (option.check_name("--help") || option.check_name("--version")) {
      asked_.emplace();
      asked_->version = option.check_name("--version");
      asked_->help_for = asked_->version ? nullptr : verb_;
      return;
    }
    if (!MayRepeat(option) && !once_.insert(option.get_name()).second) {
      Refuse(*verb_, fmt::format("{} is given twice", option.get_name()));
    }
    if (!VerbsOf(*verb_).empty()) {
      early_.push_back(name);
    }
    if (!TakesValue(option)) {
      options_.push_back(value ? name + '=' + *value : name);
      return;
    }
    options_.push_back(name);
    if (!value && ValueIsOptional(option)) {
      value = option.get_flag_value(name.substr(name.find_first_not_of('-')), "");
    } else if (!value) {
      value = NextValue(option, name);
    }
    options_.push_back(*value);
  }

  std::string NextValue(const CLI::Option& option, const std::string& name) {
    const std::string needs = fmt::format("{} needs a value, {}", name, ValueName(option));
    if (next_ == arguments_.size() || arguments_[next_] == "--") {
      Refuse(*verb_, needs);
    }
    const std::string& value = arguments_[next_++];
    if (value.starts_with("--") && verb_->get_option_no_throw(value) != nullptr) {
      Refuse(*verb_, fmt::format("{}; if {} is meant as one, write {}={}", needs, value, option.get_name(), value));
    }
    return value;
  }

  [[nodiscard]] std::vector<std::string> Result() const {
    std::vector<std::string> result = verbs_;
    for (const std::string& name : early_) {
      if (verb_->get_option_no_throw(name) == nullptr) {
        Refuse(*verb_, fmt::format("{} has no option {}", VerbName(*verb_), name));
      }
    }
    result.insert(result.end(), options_.begin(), options_.end());
    const bool protect = std::any_of(words_.begin(), words_.end(), [](const std::string& word) {
      return word == "++" || (word.size() > 1 && word.starts_with('-'));
    });
    if (protect) {
      result.emplace_back("--");
    }
    for (const std::string& word : words_) {
      const bool looks_like_list = word.starts_with('[') && word.ends_with(']');
      result.push_back(looks_like_list ? "./" + word : word);
    }
    return result;
  }

  const CLI::App* verb_;  // the innermost so far
  const std::vector<std::string>& arguments_;
  std::size_t next_ = 0;
  std::optional<CommandLine> asked_;
  std::vector<std::string> verbs_;
  std::vector<std::string> options_;  // and their values
  std::vector<std::string> early_;    // options that stood before the last verb
  std::vector<std::string> words_;
  std::set<std::string> once_;  // options that have been given and must not be again
};

// The verb that CLI11 has parsed.
CLI::App& ParsedVerb(CLI::App& program) {
  CLI::App* verb = &program;
  while (!verb->get_subcommands().empty()) {
    verb = verb->get_subcommands().front();
  }
  return *verb;
}

// All of a verb's options and arguments, hidden ones and those of groups too.
std::vector<CLI::Option*> AllOptions(CLI::App& verb) {
  std::vector<CLI::Option*> options = verb.get_options();
  for (CLI::App* group : verb.get_subcommands([](CLI::App* sub) { return sub->get_name().empty(); })) {
    const std::vector<CLI::Option*> more = group->get_options();
    options.insert(options.end(), more.begin(), more.end());
  }
  return options;
}

// Why a number was not taken.
std::string NumberProblem(const std::string& value) {
  const std::string digits = value.substr(value.starts_with('-') || value.starts_with('+') ? 1 : 0);
  const bool starts_as_number = !digits.empty() && digits.find_first_not_of("0123456789.") == std::string::npos;
  if (!starts_as_number || digits == "." || std::count(digits.begin(), digits.end(), '.') > 1) {
    return "is not a number";
  }
  if (digits.find('.') != std::string::npos) {
    return "is not a whole number";
  }
  return value.starts_with('-') ? "is too small" : "is too large";
}

// The words of CLI11's own "X not in {a,b,c}"; none in another message.
std::vector<std::string> WordsListedIn(const std::string& message) {
  const std::size_t start = message.find(" not in {");
  const std::size_t end = message.rfind('}');
  if (start == std::string::npos || end == std::string::npos || end < start) {
    return {};
  }
  return CLI::detail::split(message.substr(start + 9, end - start - 9), ',');
}

// What the value of `option` suffers from; nothing if it is fine.
std::optional<std::string> ProblemOfValue(CLI::Option& option) {
  try {
    option.run_callback();
    return std::nullopt;
  } catch (const CLI::ParseError& e) {
    std::vector<std::string> words = WordsOf(option);
    if (words.empty()) {
      words = WordsListedIn(e.what());
    }
    for (const std::string& value : option.results()) {
      if (!words.empty() && std::find(words.begin(), words.end(), value) == words.end()) {
        return fmt::format("{} takes {}, not \"{}\"{}", option.get_name(), Joined(words, " or "), value,
                           DidYouMean(value, words));
      }
    }
    if (e.get_name() == "ConversionError" && !option.results().empty()) {
      const std::string& value = option.results().back();
      if (!TakesValue(option)) {
        return fmt::format("{} takes no value such as \"{}\"", option.get_name(), value);
      }
      return fmt::format("{}: \"{}\" {}", option.get_name(), value, NumberProblem(value));
    }
    return e.what();
  }
}

// In place of CLI11's word for it: the first thing that is wrong.
std::string Problem(const CLI::App& program, CLI::App& verb, const CLI::ParseError& error) {
  const std::vector<CLI::Option*> options = AllOptions(verb);
  // The name of this error is the verb's, so go by its code.
  if (const std::vector<std::string> extras = program.remaining(true);
      error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError) && !extras.empty()) {
    return fmt::format("unexpected argument \"{}\"", extras.front());
  }
  for (CLI::Option* option : options) {
    if (option->count() > 0) {
      if (const auto problem = ProblemOfValue(*option)) {
        return *problem;
      }
    }
  }
  for (const CLI::Option* option : options) {
    if (option->get_required() && option->count() == 0) {
      return fmt::format("{} is required", option->get_name());
    }
    for (const CLI::Option* other : option->get_excludes()) {
      if (option->count() > 0 && other->count() > 0) {
        return fmt::format("{} and {} do not go together", option->get_name(), other->get_name());
      }
    }
    for (const CLI::Option* other : option->get_needs()) {
      if (option->count() > 0 && other->count() == 0) {
        return fmt::format("{} requires {}", option->get_name(), other->get_name());
      }
    }
  }
  for (const CLI::App* group : verb.get_subcommands([](CLI::App* sub) { return sub->get_name().empty(); })) {
    std::vector<std::string> names;
    std::size_t given = 0;
    for (const CLI::Option* option : group->get_options([](const CLI::Option*) { return true; })) {
      names.push_back(option->get_name());
      given += option->count() > 0 ? 1 : 0;
    }
    if (given < group->get_require_option_min()) {
      return fmt::format("{} is required", Joined(names, " or "));
    }
    if (group->get_require_option_max() > 0 && given > group->get_require_option_max()) {
      return fmt::format("{} do not go together", Joined(names, " and "));
    }
  }
  return error.what();
}

// Else CLI11 takes "[a,b]" for a list, and the arguments behind an option that may be repeated for more of its values.
void OneValueEach(CLI::App& app) {
  for (CLI::Option* option : AllOptions(app)) {
    if (!option->get_positional()) {
      option->allow_extra_args(false);
    }
  }
}

}  // namespace

CommandLine ParseCommandLine(CLI::App& program, const std::vector<std::string>& arguments) {
  CommandLine command_line;
  std::vector<std::string> readable = Reader(program, arguments).Read(command_line);
  if (command_line.help_for != nullptr || command_line.version) {
    return command_line;
  }
  for (CLI::App* verb : program.get_subcommands([](CLI::App*) { return true; })) {
    OneValueEach(*verb);
    for (CLI::App* below : verb->get_subcommands([](CLI::App* sub) { return !sub->get_name().empty(); })) {
      OneValueEach(*below);
    }
  }
  std::reverse(readable.begin(), readable.end());  // as CLI11 wants it
  try {
    program.parse(std::move(readable));
  } catch (const CLI::ParseError& e) {
    CLI::App& verb = ParsedVerb(program);
    Refuse(verb, Problem(program, verb, e));
  }
  return command_line;
}

}  // namespace vond::vondctl
