// vond_soak: how the daemon and the agent's side hold up over time. Prints each figure beside what is asked of it.

#include <fmt/format.h>
#include <unistd.h>
#include <yara.h>

#include <CLI/CLI.hpp>
#include <exception>

#include "bench/soak.h"

// NOLINTNEXTLINE(bugprone-exception-escape): setting up the options fails only without memory
int main(int argc, char** argv) {
  using vond::bench::VerdictTable;
  CLI::App app{"Runs the daemon for long, under load, and against kills", "vond_soak"};
  app.require_subcommand(1);
  vond::bench::SoakOptions options;
  double minutes = 1;
  int kills = 1000;
  CLI::App* const soak = app.add_subcommand("soak", "four clients, swaps, bad requests, files cut short");
  soak->add_option("MINUTES", minutes, "how long")->required()->check(CLI::PositiveNumber);
  soak->add_option("--rules", options.rules, "folder of rules, used beside generated ones")
      ->check(CLI::ExistingDirectory);
  soak->add_option("--files", options.files, "folder of files, scanned beside generated ones")
      ->check(CLI::ExistingDirectory);
  CLI::App* const swap = app.add_subcommand("swap", "the memory that a policy of 10,000 rules takes and gives back");
  CLI::App* const kill = app.add_subcommand("kills", "daemons killed or stopped at random moments");
  kill->add_option("COUNT", kills, "how many")->check(CLI::PositiveNumber);
  CLI11_PARSE(app, argc, argv);

  try {
    VerdictTable table;
    fmt::print("{} processors, libyara {}, {} build\n", ::sysconf(_SC_NPROCESSORS_ONLN), YR_VERSION, VOND_BUILD_TYPE);
    if (soak->parsed()) {
      options.duration = std::chrono::seconds(static_cast<long>(minutes * 60));
      vond::bench::Soak(options, table);
    } else if (swap->parsed()) {
      vond::bench::MeasureSwap(table);
    } else if (kill->parsed()) {
      vond::bench::Kill(kills, table);
    }
    return table.AllReached() ? 0 : 1;
  } catch (const std::exception& e) {
    fmt::print(stderr, "vond_soak: {}\n", e.what());
    return 1;
  }
}
