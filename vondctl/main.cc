#include <fmt/format.h>
#include <yara.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <exception>
#include <iostream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "vondctl/command_line.h"
#include "vondctl/exit_status.h"
#include "vondctl/help.h"
#include "vondctl/interrupt.h"
#include "vondctl/option_table.h"
#include "vondctl/text.h"
#include "vondctl/verb.h"

namespace vond::vondctl {
namespace {

constexpr const char* kProgramFooter =
    "\"vondctl help VERB\" tells about one verb, with examples.\n"
    "\n"
    "Exit status: 0 all is well, 1 something matched, or problems or differences were found, 2 something was not "
    "scanned or could not be written, 3 a policy or rules were refused, 4 the daemon failed, 64 wrong usage; 130 after "
    "Ctrl-C.\n";

void AddCommonOptions(CLI::App& verb, CommonOptions& common) {
  verb.add_option("--format", common.format, "Results as text (default) or as one JSON object per line")
      ->transform(
          CLI::CheckedTransformer(std::map<std::string, Format>{{"text", Format::kText}, {"jsonl", Format::kJsonLines}})
              .description(""))
      ->type_name("text|jsonl")
      ->group(kCommonGroup);
  verb.add_option("--color", common.color, "Colours: on a terminal unless NO_COLOR is set (default), always or never")
      ->transform(CLI::CheckedTransformer(std::map<std::string, ColorMode>{{"auto", ColorMode::kAuto},
                                                                           {"always", ColorMode::kAlways},
                                                                           {"never", ColorMode::kNever}})
                      .description(""))
      ->type_name("auto|always|never")
      ->group(kCommonGroup);
  verb.add_flag("-v,--verbose", common.verbosity, "Relay the daemon's log; twice for more")->group(kCommonGroup);
  verb.add_flag("-q,--quiet", common.quiet, "No progress and no summary on standard error")->group(kCommonGroup);
}

// To the verb, or to those that it has instead of options.
void AddCommonOptionsBelow(CLI::App& verb, bool all_of_them, CommonOptions& common) {
  std::vector<CLI::App*> verbs = verb.get_subcommands([](const CLI::App* sub) { return !sub->get_name().empty(); });
  verbs.push_back(&verb);
  for (CLI::App* each : verbs) {
    if (all_of_them) {
      AddCommonOptions(*each, common);
    }
    each->set_help_flag("-h,--help", "Show this help")->group(kCommonGroup);
  }
}

int Run(const std::vector<std::string>& arguments) {
  CLI::App program("Works with vond, the daemon that matches files against YARA rules.", "vondctl");
  program.set_help_flag("-h,--help", "Show this help");
  program.add_flag("--version")->description("Show the versions of vondctl and of the libyara in it");
  program.require_subcommand(1);
  program.footer(kProgramFooter);
  CommonOptions common;
  VerbRun run;
  for (const Verb& verb : Verbs()) {
    CLI::App* const sub = program.add_subcommand(verb.name, verb.summary);
    VerbRun run_verb = verb.add(*sub, common);
    AddCommonOptionsBelow(*sub, verb.has_common_options, common);
    sub->callback([&run, run_verb = std::move(run_verb)] { run = run_verb; });
  }
  if (arguments.empty()) {
    std::cerr << "usage: " << UsageLine(program) << "\nverbs:";
    for (const CLI::App* verb : VerbsOf(program)) {
      std::cerr << ' ' << verb->get_name();
    }
    std::cerr << "\nsee \"vondctl help\"\n";
    return kUsage;
  }
  const CommandLine command_line = ParseCommandLine(program, arguments);
  if (command_line.version) {
    std::cout << "vondctl " VOND_VERSION " (libyara " YR_VERSION ")\n";
    return kClean;
  }
  if (command_line.help_for != nullptr) {
    WriteHelp(std::cout, *command_line.help_for);
    return kClean;
  }
  return run();
}

// Results that went nowhere are not results.
int Finish(int status) {
  errno = 0;
  std::cout.flush();
  if (InterruptSignal() != 0 && !InterruptIsAccepted()) {
    EndBySignal();
  }
  if (!std::cout && status < kNotScanned) {
    std::cerr << fmt::format("vondctl: standard output: {}\n", errno != 0 ? std::strerror(errno) : "cannot be written");
    return kNotScanned;
  }
  return status;
}

}  // namespace
}  // namespace vond::vondctl

int main(int argc, char** argv) {
  using vond::vondctl::EndBySignal;
  using vond::vondctl::EscapeForTerminal;
  using vond::vondctl::Finish;
  using vond::vondctl::InterruptSignal;
  using vond::vondctl::kDaemonFailed;
  using vond::vondctl::kUsage;
  using vond::vondctl::Run;
  using vond::vondctl::UsageError;
  using vond::vondctl::WatchInterrupts;
  try {
    WatchInterrupts();
    return Finish(Run({argv + (argc > 0 ? 1 : 0), argv + argc}));
  } catch (const UsageError& e) {
    std::cerr << fmt::format("vondctl: {}\nsee \"vondctl help{}{}\"\n", EscapeForTerminal(e.what()),
                             e.Verb().empty() ? "" : " ", e.Verb());
    return kUsage;
  } catch (const std::exception& e) {
    if (InterruptSignal() != 0) {
      EndBySignal();
    }
    std::cerr << fmt::format("vondctl: {}\n", EscapeForTerminal(e.what()));
    return kDaemonFailed;
  }
}
