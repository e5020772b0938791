#include "bench/workload.h"

#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <random>
#include <stdexcept>

namespace vond::bench {
namespace {

using auto_resources::ManagedFD;

constexpr std::size_t kWords = 4096;  // that rules look for; a hundredth of the files hold one of them

std::string Word(std::uint32_t number, std::uint32_t seed) {
  std::minstd_rand random(seed + number * 7919U + 1U);
  std::string word;
  for (int i = 0; i < 12; ++i) {
    word += static_cast<char>('a' + random() % 26);
  }
  return word;
}

}  // namespace

std::string MakeRules(std::size_t count, std::uint32_t seed) {
  std::minstd_rand random(seed);
  std::string rules;
  for (std::size_t i = 0; i < count; ++i) {
    rules += fmt::format(
        "rule Bench_{0} : bench {{\n  meta:\n    id = \"{0}\"\n    action = \"block\"\n    score = {1}\n"
        "  strings:\n    $text = \"{2}\"\n    $code = {{ {3:02x} 8b {4:02x} 24 ?? e8 {5:02x} {6:02x} {7:02x} 00 85 c0 "
        "}}\n"
        "  condition:\n    uint32(0) == 0x464c457f and any of them\n}}\n",
        i, random() % 100, Word(static_cast<std::uint32_t>(i % kWords), seed), random() % 256, random() % 256,
        random() % 256, random() % 256, random() % 256);
  }
  return rules;
}

std::string MakeMatchingRules(std::size_t count, std::size_t few) {
  std::string rules;
  for (std::size_t i = 0; i < count; ++i) {
    rules += fmt::format(
        "rule Match_{0} : bench {{\n  meta:\n    id = \"match {0}\"\n    action = \"inform\"\n    score = {0}\n"
        "    family = \"bench family {1}\"\n    author = \"the generator of the benchmark\"\n    reviewed = true\n"
        "    severity = 3\n    note = \"one of eight items\"\n  condition:\n    uint8(0) {2}\n}}\n",
        i, i % 7, i < few ? ">= 1" : "== 2");
  }
  return rules;
}

ManagedFD MakeMemfd(std::string_view content) {
  ManagedFD file(::memfd_create("bench", MFD_CLOEXEC));
  if (!file.IsValid() || ::write(file.Get(), content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
    throw std::runtime_error("memfd failed");
  }
  return file;
}

std::vector<ManagedFD> MakeFiles(const FileClass& file_class, std::uint32_t seed) {
  // The bytes that x86 code is mostly made of.
  constexpr std::array<unsigned char, 16> kFrequent = {0x00, 0x48, 0x8b, 0x89, 0xe8, 0x0f, 0xff, 0x24,
                                                       0x83, 0xc0, 0x41, 0x85, 0x74, 0x45, 0x4c, 0x01};
  std::minstd_rand random(seed);
  std::vector<ManagedFD> files;
  for (std::size_t i = 0; i < file_class.count; ++i) {
    const std::size_t size = file_class.min_size + random() % (file_class.max_size - file_class.min_size + 1);
    std::string content(size, '\0');
    for (char& byte : content) {
      byte = static_cast<char>(random() % 4 == 0 ? random() % 256 : kFrequent[random() % kFrequent.size()]);
    }
    content.replace(0, 5,
                    "\x7f"
                    "ELF\x02");
    if (i % 100 == 0) {
      content.replace(size / 2, 12, Word(static_cast<std::uint32_t>(i / 100) % 10, seed));
    }
    files.push_back(MakeMemfd(content));
  }
  return files;
}

}  // namespace vond::bench
