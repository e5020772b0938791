#include "bench/raw_process.h"

#include <fmt/format.h>
#include <stdlib.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace vond::bench {

RawFigures RunRaw(const std::string& mode, const std::filesystem::path& path) {
  constexpr double kKibOfMib = 1024;
  const std::string command =
      fmt::format("'{}' {} '{}'", std::filesystem::read_symlink("/proc/self/exe").string(), mode, path.string());
  // NOLINTNEXTLINE(cert-env33-c): the command is this program itself
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "re"), &::pclose);
  std::size_t resident = 0;
  std::size_t peak = 0;
  double seconds = 0;
  if (pipe == nullptr || std::fscanf(pipe.get(), "%zu %zu %lf", &resident, &peak, &seconds) != 3) {
    throw std::runtime_error(command + " failed");
  }
  return {static_cast<double>(resident) / kKibOfMib, static_cast<double>(peak) / kKibOfMib, seconds};
}

ScratchFolder::ScratchFolder() {
  std::string path = (std::filesystem::temp_directory_path() / "vond_bench.XXXXXX").string();
  if (::mkdtemp(path.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed");
  }
  path_ = path;
}

ScratchFolder::~ScratchFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace vond::bench
