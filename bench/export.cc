#include "bench/export.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "bench/measurements.h"
#include "bench/real_inputs.h"
#include "bench/run.h"

namespace vond::bench {

int Export(const Inputs& inputs, const ExportOptions& options, const std::filesystem::path& folder) {
  const auto* const file_class = std::find_if(kFileClasses.begin(), kFileClasses.end(),
                                              [&](const FileClass& known) { return known.name == options.file_class; });
  if (file_class == kFileClasses.end()) {
    throw std::runtime_error("no class of files: " + options.file_class);
  }
  std::filesystem::create_directories(folder / "files");
  std::ofstream(folder / "rules.yar") << inputs.Rules(options.rule_count);
  std::size_t number = 0;
  for (const auto& file : inputs.Files(*file_class)) {
    // /proc has no path's content but the descriptor's own, wherever its position is.
    std::ofstream(folder / "files" / fmt::format("{:05}", number++), std::ios::binary)
        << ReadWhole(fmt::format("/proc/self/fd/{}", file.Get()));
  }
  return 0;
}

int RunPasses(const std::filesystem::path& folder, std::uint32_t workers) {
  Daemon daemon(ReadWhole(folder / "rules.yar"), workers);
  for (std::string line; std::getline(std::cin, line);) {
    // Opening is part of it: the others are given paths too.
    std::vector<auto_resources::ManagedFD> files;
    const auto start = std::chrono::steady_clock::now();
    for (const auto& path : FilesUnder(folder / "files")) {
      files.emplace_back(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    }
    const std::size_t matches = daemon.Pass(files, kUsualInFlight).matches;
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    fmt::print("{} {}\n", seconds.count(), matches);
    static_cast<void>(std::fflush(stdout));
  }
  return 0;
}

}  // namespace vond::bench
