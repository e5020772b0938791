#include "bench/process_figures.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

namespace vond::bench {
namespace {

std::filesystem::path Folder(pid_t pid) { return "/proc/" + std::to_string(pid); }

}  // namespace

ProcessFigures ReadFigures(pid_t pid) {
  ProcessFigures figures;
  std::ifstream status(Folder(pid) / "status");
  for (std::string key; status >> key;) {
    if (key == "VmRSS:") {
      status >> figures.resident_kib;
    } else if (key == "VmHWM:") {
      status >> figures.peak_resident_kib;
    } else if (key == "Threads:") {
      status >> figures.threads;
    }
  }
  std::error_code error;
  const std::filesystem::directory_iterator descriptors(Folder(pid) / "fd", error);
  figures.descriptors = static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
  return figures;
}

void ResetPeak(pid_t pid) { std::ofstream(Folder(pid) / "clear_refs") << "5"; }

}  // namespace vond::bench
