#include "vondctl/daemon_options.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <system_error>

#include "static_pattern_matching/rule_set_decoder.h"
#include "vondctl/policy_source.h"
#include "vondctl/text.h"
#include "yara/yara_source/yara_source.h"

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

constexpr std::string_view kSandboxLine = "sandbox: ";

bool SourceImportsMagic(const std::string& source) {
  if (source.find("magic") == std::string::npos) {
    return false;  // most rules, and parsing takes its time
  }
  const std::vector<yara_source::Directive> imports = yara_source::ParseSource(source).imports;
  return std::any_of(imports.begin(), imports.end(),
                     [](const yara_source::Directive& import) { return import.text == "magic"; });
}

}  // namespace

void AddSandboxOptions(CLI::App& app, SandboxChoice& choice, const std::string& group) {
  auto* const off = app.add_flag("--no-sandbox", choice.off, "Leave the daemon this user's rights");
  auto* const required =
      app.add_flag("--require-sandbox", choice.required, "Fail where a layer of the daemon's sandbox can't be had");
  required->excludes(off);
  if (!group.empty()) {
    off->group(group);
    required->group(group);
  }
}

bool ImportsMagic(const PolicySource& policy) {
  using korvo::static_pattern_matching_daemon::DecodeRuleSet;
  return std::any_of(policy.rule_sets.begin(), policy.rule_sets.end(), [](const RuleSetSource& rule_set) {
    return std::any_of(rule_set.files.begin(), rule_set.files.end(),
                       [](const RuleFile& file) { return SourceImportsMagic(DecodeRuleSet(file.content)); });
  });
}

agent::DaemonOptions DaemonOptionsFor(const std::string& executable, const CommonOptions& common,
                                      const SandboxChoice& sandbox) {
  agent::DaemonOptions options;
  options.executable = executable.empty() ? FindVond() : executable;
  options.own_process_group = true;
  options.sandbox.mode = sandbox.off        ? agent::SandboxMode::kOff
                         : sandbox.required ? agent::SandboxMode::kRequired
                                            : agent::SandboxMode::kOn;
  options.sandbox.magic_database = sandbox.magic;
  if (common.verbosity > 0) {
    // In one piece, since other threads write there too. The daemon's lines begin with their level.
    options.on_output = [](agent::OutputStream, const std::string& line) {
      std::cerr << fmt::format("{} vond: {}\n", TimeOfDay(), EscapeForTerminal(line));
    };
  } else if (!common.quiet && !sandbox.required) {  // what is required and missing is an error, which quotes it
    options.on_output = [](agent::OutputStream stream, const std::string& line) {
      if (stream == agent::OutputStream::kStderr && line.starts_with(kSandboxLine)) {
        std::cerr << fmt::format("vondctl: {}\n", EscapeForTerminal(line));
      }
    };
  }
  return options;
}

std::uint32_t DaemonLogLevel(const CommonOptions& common) {
  return common.verbosity == 0 ? 3 : 5 + static_cast<std::uint32_t>(common.verbosity);
}

}  // namespace vond::vondctl
