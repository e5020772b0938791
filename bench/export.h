#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "bench/inputs.h"

namespace vond::bench {

struct ExportOptions {
  std::string file_class;
  std::size_t rule_count = 300;
};

/// Writes the rules to `folder`/rules.yar and the files to `folder`/files, for programs that want paths. Returns an
/// exit status.
int Export(const Inputs& inputs, const ExportOptions& options, const std::filesystem::path& folder);

/// The daemon as one of the programs that are compared over exported inputs: scans all files once for each line of
/// standard input, and answers each with a line "seconds matches".
int RunPasses(const std::filesystem::path& folder, std::uint32_t workers);

}  // namespace vond::bench
