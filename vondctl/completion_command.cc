#include "vondctl/completion_command.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "vondctl/exit_status.h"
#include "vondctl/option_table.h"

namespace vond::vondctl {
namespace {

constexpr const char* kCompletionFooter =
    "Examples:\n"
    "  vondctl completion bash > ~/.local/share/bash-completion/completions/vondctl\n"
    "  vondctl completion zsh > ~/.zfunc/_vondctl    # a folder of $fpath\n"
    "  vondctl completion fish > ~/.config/fish/completions/vondctl.fish\n"
    "\n"
    "Exit status: 0, or 64 for another shell.\n";

std::string Join(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : " ") + word;
  }
  return text;
}

// For a shell, within single quotes, which no two of them escape alike.
std::string Unquoted(const std::string& text) {
  std::string result;
  for (const char c : text) {
    result += c == '\'' ? "\u2019" : c == '\\' ? "/" : std::string(1, c);
  }
  return result;
}

std::vector<std::string> VerbNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* verb : VerbsOf(app)) {
    names.push_back(verb->get_name());
  }
  return names;
}

// `app` and all verbs below it, each before its own.
// NOLINTNEXTLINE(misc-no-recursion): as deep as verbs have verbs
void Collect(const CLI::App& app, std::vector<const CLI::App*>& apps) {
  apps.push_back(&app);
  for (const CLI::App* verb : VerbsOf(app)) {
    Collect(*verb, apps);
  }
}

std::vector<const CLI::App*> AllVerbs(const CLI::App& program) {
  std::vector<const CLI::App*> apps;
  Collect(program, apps);
  return apps;
}

// The words that an argument of a verb may be: verbs for "help", else what its type says.
std::vector<std::string> ArgumentWords(const CLI::App& program, const CLI::App& verb) {
  std::vector<std::string> words;
  for (const CLI::Option* argument : ArgumentsOf(verb)) {
    const bool is_verb = ValueName(*argument) == "VERB";
    const std::vector<std::string> more = is_verb ? VerbNames(program) : WordsOf(*argument);
    words.insert(words.end(), more.begin(), more.end());
  }
  return words;
}

bool ArgumentsArePaths(const CLI::App& verb) {
  const auto arguments = ArgumentsOf(verb);
  return std::any_of(arguments.begin(), arguments.end(),
                     [](const CLI::Option* argument) { return TakesPath(*argument); });
}

// bash has words only, split at "=" as well. Two functions are the table, the third reads it.

constexpr const char* kBashReader = R"(
__vondctl_words() {
    mapfile -t COMPREPLY < <(compgen -W "$1" -- "$cur")
}

__vondctl_files() {
    compopt -o filenames 2>/dev/null
    mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -f -- "$cur")
}

_vondctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local verb='' verbs options arguments paths kind words word ended='' i
    COMPREPLY=()
    if [[ $cur == = ]]; then
        cur=''
    elif [[ $prev == = ]]; then
        prev=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    __vondctl_verb "$verb"
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ $word == -- ]]; then
            ended=yes
        elif [[ $word == -* ]]; then
            __vondctl_option "$verb" "$word"
            if [[ ${COMP_WORDS[i + 1]} == = ]]; then
                ((i += 2))
            elif [[ $kind != flag ]]; then
                ((i += 1))
            fi
        elif [[ " $verbs " == *" $word "* ]]; then
            verb=${verb:+$verb }$word
            __vondctl_verb "$verb"
        fi
    done
    kind=flag
    [[ -n $ended ]] || __vondctl_option "$verb" "$prev"
    case $kind in
    words) __vondctl_words "$words" ;;
    file) __vondctl_files ;;
    value) ;;
    *)
        if [[ $cur == -* && -z $ended ]]; then
            __vondctl_words "$options"
        elif [[ -n $verbs ]]; then
            __vondctl_words "$verbs"
        else
            __vondctl_words "$arguments"
            [[ -z $paths ]] || __vondctl_files
        fi
        ;;
    esac
}

complete -F _vondctl vondctl
)";

void WriteBash(std::ostream& out, const CLI::App& program) {
  out << "# bash completion for vondctl, made by \"vondctl completion bash\"\n\n"
         "__vondctl_verb() {\n    case $1 in\n";
  for (const CLI::App* app : AllVerbs(program)) {
    std::vector<std::string> options;
    for (const CLI::Option* option : OptionsOf(*app)) {
      for (const std::string& name : NamesOf(*option)) {
        options.push_back(name);
      }
    }
    out << fmt::format("    '{}') verbs='{}' arguments='{}' paths='{}' options='{}' ;;\n", VerbName(*app),
                       Join(VerbNames(*app)), Join(ArgumentWords(program, *app)), ArgumentsArePaths(*app) ? "yes" : "",
                       Join(options));
  }
  out << "    esac\n}\n\n__vondctl_option() {\n    kind=flag words=''\n    case \"$1 $2\" in\n";
  for (const CLI::App* app : AllVerbs(program)) {
    for (const CLI::Option* option : OptionsOf(*app)) {
      if (!TakesValue(*option) || ValueIsOptional(*option)) {
        continue;
      }
      std::string patterns;
      for (const std::string& name : NamesOf(*option)) {
        patterns += fmt::format("{}'{} {}'", patterns.empty() ? "" : " | ", VerbName(*app), name);
      }
      const std::vector<std::string> words = WordsOf(*option);
      const std::string kind = !words.empty()       ? fmt::format("words words='{}'", Join(words))
                               : TakesPath(*option) ? "file"
                                                    : "value";
      out << fmt::format("    {}) kind={} ;;\n", patterns, kind);
    }
  }
  out << "    esac\n}\n" << kBashReader;
}

// zsh: one function for each verb, which gives _arguments its entries.

std::string ZshFunction(const CLI::App& app) {
  std::string name = VerbName(app);
  for (char& c : name) {
    c = c == ' ' ? '_' : c;
  }
  return name.empty() ? "_vondctl" : "_vondctl_" + name;
}

// A description within an entry, where brackets and colons mean something.
std::string ZshText(const std::string& text) {
  std::string escaped;
  for (const char c : Unquoted(text)) {
    escaped += c == '[' || c == ']' || c == ':' ? fmt::format("\\{}", c) : std::string(1, c);
  }
  return escaped;
}

std::string ZshAction(const std::string& label, const std::vector<std::string>& words, bool path) {
  const std::string action = !words.empty() ? '(' + Join(words) + ')' : path ? "_files" : " ";
  return fmt::format(":{}:{}", ZshText(label), action);
}

void WriteZshOption(std::ostream& out, const CLI::Option& option) {
  const std::vector<std::string> names = NamesOf(option);
  const bool repeats = MayRepeat(option);
  for (const std::string& name : names) {
    // The names of one option exclude each other, unless it may be repeated.
    const std::string others = repeats ? "*" : names.size() > 1 ? '(' + Join(names) + ')' : "";
    std::string entry = others + name;
    if (TakesValue(option) && name.starts_with("--")) {
      entry += ValueIsOptional(option) ? "=-" : "=";
    } else if (TakesValue(option)) {
      entry += ValueIsOptional(option) ? "-" : "+";
    }
    entry += '[' + ZshText(option.get_description()) + ']';
    if (TakesValue(option)) {
      entry += (ValueIsOptional(option) ? ":" : "") + ZshAction(ValueName(option), WordsOf(option), TakesPath(option));
    }
    out << " \\\n        '" << entry << '\'';
  }
}

void WriteZshVerb(std::ostream& out, const CLI::App& program, const CLI::App& app) {
  out << fmt::format(
      "{}() {{\n    local curcontext=$curcontext context state state_descr line\n"
      "    typeset -A opt_args\n    _arguments -C -s -S",
      ZshFunction(app));
  for (const CLI::Option* option : OptionsOf(app)) {
    WriteZshOption(out, *option);
  }
  const std::vector<const CLI::App*> verbs = VerbsOf(app);
  if (verbs.empty()) {
    for (const CLI::Option* argument : ArgumentsOf(app)) {
      const std::vector<std::string> words = ValueName(*argument) == "VERB" ? VerbNames(program) : WordsOf(*argument);
      out << fmt::format(" \\\n        '{}{}'", argument->get_items_expected_max() > 1 ? "*" : "",
                         ZshAction(ValueName(*argument), words, TakesPath(*argument)));
    }
    out << "\n}\n\n";
    return;
  }
  out << " \\\n        '1:verb:->verb' '*::argument:->argument'\n    case $state in\n    verb)\n"
         "        local -a verbs=(";
  for (const CLI::App* verb : verbs) {
    out << fmt::format("\n            '{}:{}'", verb->get_name(), ZshText(verb->get_description()));
  }
  out << ")\n        _describe -t verbs verb verbs\n        ;;\n    argument)\n        case $line[1] in\n";
  for (const CLI::App* verb : verbs) {
    out << fmt::format("        {}) {} ;;\n", verb->get_name(), ZshFunction(*verb));
  }
  out << "        esac\n        ;;\n    esac\n}\n\n";
}

void WriteZsh(std::ostream& out, const CLI::App& program) {
  out << "#compdef vondctl\n# zsh completion for vondctl, made by \"vondctl completion zsh\"\n\n";
  for (const CLI::App* app : AllVerbs(program)) {
    WriteZshVerb(out, program, *app);
  }
  out << "# Loaded as a function it is called at once; sourced, it must register itself.\n"
         "if [[ $funcstack[1] == _vondctl ]]; then\n    _vondctl \"$@\"\nelse\n    compdef _vondctl vondctl\nfi\n";
}

// fish: one line for each candidate, with the condition under which it is one.

constexpr const char* kFishReader = R"(
# __vondctl_at VERB...: whether these are the first words; with --next, whether they are all of them.
function __vondctl_at
    set -l words
    set -l tokens (commandline -opc)
    for word in $tokens[2..-1]
        string match -q -- '-*' $word; or set -a words $word
    end
    if test "$argv[1]" = --next
        set -e argv[1]
        test (count $words) -eq (count $argv); or return 1
    end
    for i in (seq (count $argv))
        test "$words[$i]" = "$argv[$i]"; or return 1
    end
end

complete -c vondctl -f
)";

void WriteFishOption(std::ostream& out, const std::string& condition, const CLI::Option& option) {
  out << "complete -c vondctl -n '" << condition << '\'';
  for (const std::string& name : option.get_snames()) {
    out << " -s " << name;
  }
  for (const std::string& name : option.get_lnames()) {
    out << " -l " << name;
  }
  if (TakesValue(option) && !ValueIsOptional(option)) {
    const std::vector<std::string> words = WordsOf(option);
    out << (!words.empty()      ? " -x -a '" + Join(words) + '\''
            : TakesPath(option) ? std::string(" -r -F")
                                : std::string(" -x"));
  }
  out << " -d '" << Unquoted(option.get_description()) << "'\n";
}

void WriteFish(std::ostream& out, const CLI::App& program) {
  out << "# fish completion for vondctl, made by \"vondctl completion fish\"\n" << kFishReader;
  for (const CLI::App* app : AllVerbs(program)) {
    const std::string name = VerbName(*app);
    const std::string here = "__vondctl_at " + name;
    const std::string next = "__vondctl_at --next " + name;
    for (const CLI::App* verb : VerbsOf(*app)) {
      out << fmt::format("complete -c vondctl -n '{}' -a {} -d '{}'\n", next, verb->get_name(),
                         Unquoted(verb->get_description()));
    }
    for (const CLI::Option* option : OptionsOf(*app)) {
      WriteFishOption(out, VerbsOf(*app).empty() ? here : next, *option);
    }
    if (ArgumentsArePaths(*app)) {
      out << fmt::format("complete -c vondctl -n '{}' -F\n", here);
    }
    const std::vector<std::string> words = ArgumentWords(program, *app);
    if (!words.empty()) {
      out << fmt::format("complete -c vondctl -n '{}' -a '{}'\n", here, Join(words));
    }
  }
}

}  // namespace

VerbRun AddCompletionCommand(CLI::App& app, const CommonOptions& /*common*/) {
  const auto shell = std::make_shared<std::string>();
  app.add_option("SHELL", *shell, "The shell: bash, zsh or fish")
      ->required()
      ->check(CLI::IsMember({"bash", "zsh", "fish"}).description(""))
      ->type_name("bash|zsh|fish");
  app.footer(kCompletionFooter);
  const CLI::App* const program = app.get_parent();
  return [shell, program] {
    const auto write = *shell == "bash" ? &WriteBash : *shell == "zsh" ? &WriteZsh : &WriteFish;
    write(std::cout, *program);
    return static_cast<int>(kClean);
  };
}

}  // namespace vond::vondctl
