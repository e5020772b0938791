// Runs a target over every file of a folder, in order of their names: what a build without libFuzzer has for a main.

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <vector>

#include "fuzz/fuzz_support.h"

int main(int argc, char** argv) {
  std::set<std::filesystem::path> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(argc == 2 ? argv[1] : "", error)) {
    files.insert(entry.path());
  }
  for (const auto& path : files) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    std::cerr << path << ", " << bytes.size() << " bytes\n";
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  std::cerr << files.size() << " inputs\n";
  return files.empty() ? 1 : 0;
}
