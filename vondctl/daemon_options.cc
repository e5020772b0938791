#include "vondctl/daemon_options.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <system_error>

#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

// vond beside this program, or where installation puts it.
std::string FindVond() {
  namespace fs = std::filesystem;
  std::error_code error;
  const fs::path folder = fs::read_symlink("/proc/self/exe", error).parent_path();
  const fs::path installed = folder / ".." / "libexec" / "vond" / "vond";
  return fs::exists(folder / "vond", error) || !fs::exists(installed, error) ? folder / "vond" : installed;
}

// "17:04:09.123", local time.
std::string TimeOfDay() {
  const auto now = std::chrono::system_clock::now();
  const auto second = std::chrono::floor<std::chrono::seconds>(now);
  const auto milliseconds = std::chrono::floor<std::chrono::milliseconds>(now - second).count();
  return fmt::format("{:%H:%M:%S}.{:03}", fmt::localtime(std::chrono::system_clock::to_time_t(second)), milliseconds);
}

}  // namespace

agent::DaemonOptions DaemonOptionsFor(const std::string& executable, const CommonOptions& common) {
  agent::DaemonOptions options;
  options.executable = executable.empty() ? FindVond() : executable;
  options.own_process_group = true;
  if (common.verbosity > 0) {
    // In one piece, since other threads write there too. The daemon's lines begin with their level.
    options.on_output = [](agent::OutputStream, const std::string& line) {
      std::cerr << fmt::format("{} vond: {}\n", TimeOfDay(), EscapeForTerminal(line));
    };
  }
  return options;
}

std::uint32_t DaemonLogLevel(const CommonOptions& common) {
  return common.verbosity == 0 ? 3 : 5 + static_cast<std::uint32_t>(common.verbosity);
}

}  // namespace vond::vondctl
