#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <map>
#include <string>
#include <utility>

#include "vondctl/exit_status.h"
#include "vondctl/verb.h"

namespace {

using vond::vondctl::ColorMode;
using vond::vondctl::CommonOptions;
using vond::vondctl::Format;
using vond::vondctl::Verb;
using vond::vondctl::VerbRun;

void AddCommonOptions(CLI::App& verb, CommonOptions& common) {
  verb.add_option("--format", common.format, "Results as text (default) or as one JSON object per line")
      ->transform(
          CLI::CheckedTransformer(std::map<std::string, Format>{{"text", Format::kText}, {"jsonl", Format::kJsonLines}})
              .description(""))
      ->type_name("text|jsonl");
  verb.add_option("--color", common.color, "Colours: on a terminal unless NO_COLOR is set (default), always or never")
      ->transform(CLI::CheckedTransformer(std::map<std::string, ColorMode>{{"auto", ColorMode::kAuto},
                                                                           {"always", ColorMode::kAlways},
                                                                           {"never", ColorMode::kNever}})
                      .description(""))
      ->type_name("auto|always|never");
  verb.add_flag("-v,--verbose", common.verbosity, "Relay the daemon's log; twice for more");
  verb.add_flag("-q,--quiet", common.quiet, "No progress and no summary on standard error");
}

int Run(int argc, char** argv) {
  CLI::App app("vondctl: works with vond, the file-scanning daemon");
  app.set_version_flag("--version", std::string("vondctl " VOND_VERSION));
  app.require_subcommand(1);
  CommonOptions common;
  VerbRun run;
  for (const Verb& verb : vond::vondctl::Verbs()) {
    CLI::App* const sub = app.add_subcommand(verb.name, verb.summary);
    VerbRun run_verb = verb.add(*sub, common);
    AddCommonOptions(*sub, common);
    sub->callback([&run, run_verb = std::move(run_verb)] { run = run_verb; });
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? vond::vondctl::kClean : vond::vondctl::kUsage;
  }
  return run();
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& e) {
    std::cerr << fmt::format("vondctl: {}\n", e.what());
    return vond::vondctl::kDaemonFailed;
  }
}
