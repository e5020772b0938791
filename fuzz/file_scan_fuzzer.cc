// The bytes of a file, scanned by rules that look into it with every module (file_scan.yar).

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>

#include "fuzz/fuzz_support.h"
#include "yara/yara_lib/yara_lib.h"

namespace {

using korvo::yara::yara_lib::YaraLib;
using korvo::yara::yara_lib::YaraScanOutcome;
using vond::fuzz::Require;

constexpr int kTimedOut = 26;

bool IsSame(const YaraScanOutcome& left, const YaraScanOutcome& right) {
  return left.error == kTimedOut || right.error == kTimedOut ||
         (left.error == right.error &&
          std::equal(left.matches.begin(), left.matches.end(), right.matches.begin(), right.matches.end(),
                     [](const auto& one, const auto& other) { return one->name == other->name; }));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vond::fuzz::SetUp();
  static const auto rules = [] {
    std::ifstream stream(VOND_FUZZ_DIR "/file_scan.yar");
    const std::string source{std::istreambuf_iterator<char>(stream), {}};
    return YaraLib::Instance().CompileAndLoad(source, "id", false, {});
  }();
  Require(rules->size() > 0, "there are rules");
  static const auto file = vond::fuzz::MakeFile("");
  Require(::ftruncate(file.Get(), 0) == 0 && ::pwrite(file.Get(), data, size, 0) == static_cast<ssize_t>(size),
          "the file can be written");
  constexpr korvo::yara::yara_lib::YaraScanOptions kOptions{1, 0, 1};
  const YaraScanOutcome of_file = YaraLib::Instance().ScanFileDescriptor(rules, file.Get(), kOptions);
  const YaraScanOutcome of_memory = YaraLib::Instance().ScanMemory(data, size, rules, kOptions);
  // To libyara an empty file has no content at all, empty memory has one of no bytes, and `math` tells them apart.
  Require(size == 0 || IsSame(of_file, of_memory), "a file and its bytes in memory give the same");
  return 0;
}
