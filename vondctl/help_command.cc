#include "vondctl/help_command.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "vondctl/command_line.h"
#include "vondctl/exit_status.h"
#include "vondctl/help.h"
#include "vondctl/option_table.h"
#include "vondctl/suggestion.h"

namespace vond::vondctl {
namespace {

constexpr const char* kHelpFooter =
    "Examples:\n"
    "  vondctl help\n"
    "  vondctl help scan\n"
    "\n"
    "Exit status: 0, or 64 if there is no such verb.\n";

int RunHelp(const CLI::App& program, const std::vector<std::string>& verbs) {
  const CLI::App* app = &program;
  for (const std::string& name : verbs) {
    const std::vector<const CLI::App*> known = VerbsOf(*app);
    const auto verb =
        std::find_if(known.begin(), known.end(), [&name](const CLI::App* each) { return each->get_name() == name; });
    if (verb == known.end()) {
      std::vector<std::string> names;
      std::transform(known.begin(), known.end(), std::back_inserter(names),
                     [](const CLI::App* each) { return each->get_name(); });
      throw UsageError(fmt::format("there is no verb \"{}\"{}", name, DidYouMean(name, names)), VerbName(*app));
    }
    app = *verb;
  }
  WriteHelp(std::cout, *app);
  return kClean;
}

}  // namespace

VerbRun AddHelpCommand(CLI::App& app, const CommonOptions& /*common*/) {
  const auto verbs = std::make_shared<std::vector<std::string>>();
  app.add_option("VERB", *verbs, "The verb to tell about; none for the list of verbs");
  app.footer(kHelpFooter);
  const CLI::App* const program = app.get_parent();
  return [verbs, program] { return RunHelp(*program, *verbs); };
}

}  // namespace vond::vondctl
