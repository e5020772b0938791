// vond_bench: how fast the daemon is beside raw libyara, and what it takes. Prints each figure, and writes all of them
// as JSON. A ratio's two sides take turns within one run, since absolute times drift.

#include <dlfcn.h>
#include <fmt/format.h>
#include <gnu/libc-version.h>
#include <sys/resource.h>
#include <unistd.h>
#include <yara.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/build_check.h"
#include "bench/export.h"
#include "bench/measurements.h"
#include "bench/raw_memory.h"

namespace {

using vond::bench::Extent;
using vond::bench::Inputs;
using vond::bench::Results;

using Part = void (*)(const Inputs&, const Extent&, Results&);
constexpr std::array<std::pair<std::string_view, Part>, 7> kParts{{{"scans", &vond::bench::MeasureScans},
                                                                   {"empty", &vond::bench::MeasureEmptyRequests},
                                                                   {"matches", &vond::bench::MeasureMatches},
                                                                   {"policy", &vond::bench::MeasurePolicyLoad},
                                                                   {"memory", &vond::bench::MeasureMemory},
                                                                   {"sandbox", &vond::bench::MeasureSandbox},
                                                                   {"growth", &vond::bench::MeasureGrowth}}};

Extent MakeExtent(bool full, std::size_t rounds) {
  Extent extent;
  extent.rounds = rounds > 0 ? rounds : (full ? 11 : 5);
  extent.rule_counts = full ? std::vector<std::size_t>{10, 300, 5000} : std::vector<std::size_t>{300, 5000};
  extent.in_flight = full ? std::vector<std::size_t>{1, 8, 64} : std::vector<std::size_t>{8};
  extent.workers = {1};
  if (::sysconf(_SC_NPROCESSORS_ONLN) > 1) {
    extent.workers.push_back(2);
  }
  extent.curve_rule_counts = {10, 100, 1000};
  extent.curve_file_sizes = {4 << 10, 64 << 10, 1 << 20};
  if (full) {
    extent.curve_rule_counts = {10, 30, 100, 300, 1000, 3000, 10000};
    extent.curve_file_sizes = {4 << 10, 16 << 10, 64 << 10, 256 << 10, 1 << 20, 4 << 20, 16 << 20};
    extent.swaps_under_load = 100;
  }
  return extent;
}

// Thousands of files are open at once.
void RaiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

// The file that malloc comes from.
std::string Allocator() {
  Dl_info info{};
  void* const call = ::dlsym(RTLD_DEFAULT, "malloc");
  const bool found = call != nullptr && ::dladdr(call, &info) != 0 && info.dli_fname != nullptr;
  return found ? std::filesystem::path(info.dli_fname).filename().string() : "unknown";
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): setting up the options fails only without memory
int main(int argc, char** argv) {
  CLI::App app{"Measures the daemon beside raw libyara in the same run", "vond_bench"};
  bool full = false;
  std::size_t rounds = 0;
  std::uint32_t seed = 20240607;
  std::string rules;
  std::vector<std::filesystem::path> files;
  std::string json;
  std::vector<std::string> only;
  std::string path;
  app.add_flag("--full", full, "the whole matrix, more rounds");
  app.add_option("--rounds", rounds, "of each comparison");
  app.add_option("--seed", seed, "of generated rules and files")->capture_default_str();
  app.add_option("--rules", rules, "folder of rules, in place of generated ones")->check(CLI::ExistingDirectory);
  app.add_option("--files", files, "folder of files, in place of generated ones; may be repeated")
      ->check(CLI::ExistingDirectory)
      ->allow_extra_args(false);
  app.add_option("--json", json, "file to write all figures to");
  app.add_option("--only", only, "parts: scans, empty, matches, policy, memory, sandbox, growth")->delimiter(',');
  CLI::App* const raw_load = app.add_subcommand("raw-load", "the memory of raw libyara with a compiled set");
  raw_load->add_option("FILE", path)->required();
  CLI::App* const raw_compile = app.add_subcommand("raw-compile", "the memory of raw libyara that compiles");
  raw_compile->add_option("FILE", path)->required();
  vond::bench::ExportOptions export_options;
  CLI::App* const exporting = app.add_subcommand("export", "writes rules and files of one kind to a folder");
  exporting->add_option("FOLDER", path)->required();
  exporting->add_option("--class", export_options.file_class, "of files")->required();
  exporting->add_option("--count", export_options.rule_count, "of rules")->required();
  CLI::App* const passes =
      app.add_subcommand("passes", "scans what was exported once for each line of input, and prints seconds, matches");
  std::uint32_t workers = 1;
  passes->add_option("FOLDER", path)->required();
  passes->add_option("--workers", workers)->capture_default_str();
  CLI11_PARSE(app, argc, argv);

  if (const char* const why = vond::bench::WhyBuildIsRefused()) {
    fmt::print(stderr, "vond_bench: {}\n", why);
    return 1;
  }
  RaiseDescriptorLimit();
  try {
    if (raw_load->parsed()) {
      return vond::bench::RunRawLoad(path);
    }
    if (raw_compile->parsed()) {
      return vond::bench::RunRawCompile(path);
    }
    if (passes->parsed()) {
      return vond::bench::RunPasses(path, workers);
    }
    const Inputs inputs(rules, files, seed);
    if (exporting->parsed()) {
      return vond::bench::Export(inputs, export_options, path);
    }
    const Extent extent = MakeExtent(full, rounds);
    Results results;
    results.Note("libyara linked", YR_VERSION);
    results.Note("build type", VOND_BUILD_TYPE);
    results.Note("allocator", fmt::format("malloc of {} (glibc {})", Allocator(), ::gnu_get_libc_version()));
    results.Note("processors", std::to_string(::sysconf(_SC_NPROCESSORS_ONLN)));
    const std::string generated = fmt::format("generated, seed {}", seed);
    results.Note("rules", rules.empty() ? generated
                                        : fmt::format("{} of {} files in {}; {} do not compile with the others",
                                                      inputs.RuleCounts({}).front(), inputs.RuleFilesTaken(), rules,
                                                      inputs.RuleFilesLeftOut()));
    std::string folders;
    for (const auto& folder : files) {
      folders += (folders.empty() ? "" : ", ") + folder.string();
    }
    results.Note("files", files.empty() ? generated : folders);
    results.Note("rounds", std::to_string(extent.rounds));
    const auto start = std::chrono::steady_clock::now();
    for (const auto& [name, measure] : kParts) {
      if (only.empty() || std::find(only.begin(), only.end(), name) != only.end()) {
        results.Begin(std::string(name));
        measure(inputs, extent, results);
      }
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start);
    results.Note("seconds", std::to_string(seconds.count()));
    if (!json.empty()) {
      results.Write(json);
    }
    return 0;
  } catch (const std::exception& e) {
    fmt::print(stderr, "vond_bench: {}\n", e.what());
    return 1;
  }
}
