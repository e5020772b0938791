#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <string>

#include "vondctl/exit_status.h"
#include "vondctl/scan_command.h"

namespace {

using vond::vondctl::Format;
using vond::vondctl::ScanArguments;

constexpr const char* kScanFooter =
    "Examples:\n"
    "  vondctl scan --rules rules/ /usr/bin\n"
    "  vondctl scan --policy policy.json --format jsonl /srv > results.jsonl\n"
    "\n"
    "Exit status: 0 nothing matched, 1 something matched, 2 something was not scanned (whatever\n"
    "matched), 3 the policy was refused, 4 the daemon failed, 64 wrong usage.\n";

void AddScanOptions(CLI::App& scan, ScanArguments& arguments) {
  // One value per option, so that the paths behind it stay paths.
  auto* const rules =
      scan.add_option("-r,--rules", arguments.rules, "Rule file, or folder of *.yar and *.yara files; may be repeated");
  rules->allow_extra_args(false)->type_name("FILE|DIR");
  auto* const policy =
      scan.add_option("-p,--policy", arguments.policy, "Policy file: the daemon's JSON with a \"path\" per rule set");
  policy->type_name("FILE")->excludes(rules);
  scan.add_option("--format", arguments.report.format, "Results as text (default) or as one JSON object per line")
      ->transform(
          CLI::CheckedTransformer(std::map<std::string, Format>{{"text", Format::kText}, {"jsonl", Format::kJsonLines}})
              .description(""))
      ->type_name("text|jsonl");
  scan.add_flag("--all", arguments.report.all, "Report clean files too");
  scan.add_option("--file-type", arguments.file_type, "File type whose rule sets are used (default 0)");
  scan.add_option("--timeout", arguments.timeout_in_seconds,
                  "Seconds per scan with --rules (default 30, 0 is no limit); a policy file has its own")
      ->excludes(policy);
  scan.add_option("--vond", arguments.executable, "Path of the daemon's program")->type_name("FILE");
  scan.add_flag("-v,--verbose", arguments.verbosity, "Relay the daemon's log; twice for more");
  scan.add_flag("-q,--quiet", arguments.report.quiet, "No progress and no summary on standard error");
  scan.add_option("PATH", arguments.paths, "Files and folders to scan")->required()->type_name("");
  scan.footer(kScanFooter);
}

int Run(int argc, char** argv) {
  CLI::App app("vondctl: works with vond, the file-scanning daemon");
  app.set_version_flag("--version", std::string("vondctl " VOND_VERSION));
  app.require_subcommand(1);
  ScanArguments arguments;
  CLI::App* const scan = app.add_subcommand("scan", "Start a private daemon and scan files and folders with it");
  AddScanOptions(*scan, arguments);
  try {
    app.parse(argc, argv);
    if (arguments.rules.empty() && arguments.policy.empty()) {
      throw CLI::RequiredError("--rules or --policy");
    }
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? vond::vondctl::kClean : vond::vondctl::kUsage;
  }
  return vond::vondctl::RunScan(arguments);
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
