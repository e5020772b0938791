#include "vondctl/help.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstddef>
#include <ostream>
#include <sstream>
#include <utility>
#include <vector>

#include "vondctl/option_table.h"

namespace vond::vondctl {
namespace {

constexpr std::size_t kColumns = 80;
constexpr std::size_t kMaxLeftColumn = 30;  // what is wider has a line for itself

// `text` in lines of at most `width`; a word that is longer stays whole.
std::vector<std::string> Fill(const std::string& text, std::size_t width) {
  std::vector<std::string> lines;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    if (lines.empty() || lines.back().size() + 1 + word.size() > width) {
      lines.push_back(word);
    } else {
      lines.back() += ' ' + word;
    }
  }
  return lines;
}

using Rows = std::vector<std::pair<std::string, std::string>>;

// Two columns.
void WriteRows(std::ostream& out, const Rows& rows) {
  std::size_t width = 0;
  for (const auto& [left, right] : rows) {
    width = std::max(width, left.size() <= kMaxLeftColumn ? left.size() : 0);
  }
  const std::size_t indent = width + 4;
  for (const auto& [left, right] : rows) {
    std::string line = "  " + left;
    if (left.size() > width) {
      out << line << '\n';
      line.clear();
    }
    for (const std::string& text : Fill(right, kColumns - indent)) {
      line.resize(indent, ' ');
      out << line << text << '\n';
      line.clear();
    }
    if (!line.empty()) {  // nothing to say about it
      out << line << '\n';
    }
  }
}

std::string ArgumentLabel(const CLI::Option& argument) {
  const std::string label = ValueName(argument) + (argument.get_items_expected_max() > 1 ? "..." : "");
  return argument.get_required() ? label : '[' + label + ']';
}

// "-r, --rules FILE|DIR"; all long names in one column.
std::string OptionLabel(const CLI::Option& option) {
  std::string label = option.get_snames().empty() ? "    " : "";
  const std::vector<std::string> names = NamesOf(option);
  for (std::size_t i = 0; i < names.size(); ++i) {
    label += (i == 0 ? "" : ", ") + names[i];
  }
  if (ValueIsOptional(option)) {
    label += "[=" + ValueName(option) + ']';
  } else if (TakesValue(option)) {
    label += ' ' + ValueName(option);
  }
  return label;
}

std::string Description(const CLI::Option& option) {
  const std::string& text = option.get_description();
  const std::string value = option.get_default_str();
  const bool says_default = text.find("default") != std::string::npos;
  return value.empty() || value == "[]" || value == "false" || says_default
             ? text
             : fmt::format("{} (default {})", text, value);
}

void WriteOptions(std::ostream& out, const CLI::App& app) {
  const std::vector<const CLI::Option*> options = OptionsOf(app);
  std::vector<std::string> groups;
  for (const CLI::Option* option : options) {
    if (std::find(groups.begin(), groups.end(), option->get_group()) == groups.end()) {
      groups.push_back(option->get_group());
    }
  }
  for (const std::string& group : groups) {
    Rows rows;
    for (const CLI::Option* option : options) {
      if (option->get_group() == group) {
        rows.emplace_back(OptionLabel(*option), Description(*option));
      }
    }
    out << '\n' << group << ":\n";
    WriteRows(out, rows);
  }
}

void WriteParagraph(std::ostream& out, std::string& paragraph) {
  for (const std::string& line : Fill(paragraph, kColumns)) {
    out << line << '\n';
  }
  paragraph.clear();
}

void WriteFooter(std::ostream& out, const std::string& footer) {
  std::istringstream lines(footer);
  std::string paragraph;
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line.front() != ' ') {
      paragraph += line + ' ';
      continue;
    }
    WriteParagraph(out, paragraph);
    out << line << '\n';
  }
  WriteParagraph(out, paragraph);
}

}  // namespace

std::string UsageLine(const CLI::App& app) {
  std::string usage = "vondctl";
  const std::string verb = VerbName(app);
  if (!verb.empty()) {
    usage += ' ' + verb;
  }
  if (!VerbsOf(app).empty()) {
    return usage + " VERB [options] [arguments]";
  }
  if (!OptionsOf(app).empty()) {
    usage += " [options]";
  }
  for (const CLI::Option* option : OptionsOf(app)) {
    if (option->get_required()) {
      usage += fmt::format(" {} {}", NamesOf(*option).front(), ValueName(*option));
    }
  }
  for (const CLI::Option* argument : ArgumentsOf(app)) {
    usage += ' ' + ArgumentLabel(*argument);
  }
  return usage;
}

void WriteHelp(std::ostream& out, const CLI::App& app) {
  out << "Usage: " << UsageLine(app) << "\n\n";
  std::string description = app.get_description();
  WriteParagraph(out, description);

  Rows verbs;
  for (const CLI::App* verb : VerbsOf(app)) {
    verbs.emplace_back(verb->get_name(), verb->get_description());
  }
  if (!verbs.empty()) {
    out << "\nVerbs:\n";
    WriteRows(out, verbs);
  }
  Rows arguments;
  for (const CLI::Option* argument : ArgumentsOf(app)) {
    arguments.emplace_back(ArgumentLabel(*argument), argument->get_description());
  }
  if (!arguments.empty()) {
    out << "\nArguments:\n";
    WriteRows(out, arguments);
  }
  WriteOptions(out, app);
  if (!app.get_footer().empty()) {
    out << '\n';
    WriteFooter(out, app.get_footer());
  }
}

}  // namespace vond::vondctl
