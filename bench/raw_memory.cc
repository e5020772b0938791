#include "bench/raw_memory.h"

#include <fmt/format.h>
#include <unistd.h>
#include <yara.h>

#include <chrono>

#include "bench/process_figures.h"
#include "bench/real_inputs.h"

namespace vond::bench {
namespace {

int Report(int error, double compile_seconds) {
  const ProcessFigures figures = ReadFigures(::getpid());
  fmt::print("{} {} {}\n", figures.resident_kib, figures.peak_resident_kib, compile_seconds);
  return error == ERROR_SUCCESS ? 0 : 1;
}

}  // namespace

int RunRawCompile(const std::string& source) {
  const std::string text = ReadWhole(source);
  YR_COMPILER* compiler = nullptr;
  YR_RULES* rules = nullptr;
  if (::yr_initialize() != ERROR_SUCCESS) {
    return 1;
  }
  const auto start = std::chrono::steady_clock::now();
  if (::yr_compiler_create(&compiler) != ERROR_SUCCESS ||
      ::yr_compiler_add_string(compiler, text.c_str(), nullptr) != 0 ||
      ::yr_compiler_get_rules(compiler, &rules) != ERROR_SUCCESS) {
    return 1;
  }
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
  return Report(::yr_rules_save(rules, (source + ".out").c_str()), taken.count());
}

int RunRawLoad(const std::string& image) {
  YR_RULES* rules = nullptr;
  if (::yr_initialize() != ERROR_SUCCESS) {
    return 1;
  }
  return Report(image.empty() ? ERROR_SUCCESS : ::yr_rules_load(image.c_str(), &rules), 0);
}

}  // namespace vond::bench
