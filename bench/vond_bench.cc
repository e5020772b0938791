// vond_bench [ROUNDS]: how fast the daemon scans beside raw libyara. Each row alternates passes of both over the same
// files with the same rules and as many threads as the daemon has workers, and prints the median of the ratios of their
// throughputs: 1.00 means that the daemon adds nothing.

#include <fmt/format.h>
#include <unistd.h>
#include <yara.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <string_view>
#include <vector>

#include "bench/run.h"
#include "bench/workload.h"

namespace {

using vond::bench::Daemon;
using vond::bench::FileClass;
using vond::bench::PassResult;
using vond::bench::RawYara;

constexpr std::uint32_t kSeed = 20240607;
constexpr std::size_t kInFlight = 8;

void Row(const FileClass& file_class, std::size_t rule_count, std::uint32_t workers, int rounds) {
  const std::string rules = vond::bench::MakeRules(rule_count, kSeed);
  const auto files = vond::bench::MakeFiles(file_class, kSeed);
  RawYara raw(rules);
  Daemon daemon(rules, workers);
  // Not counted: both have their memory and threads after this.
  static_cast<void>(raw.Pass(files, workers));
  static_cast<void>(daemon.Pass(files, kInFlight));

  std::vector<double> ratios;
  std::vector<double> rates;
  for (int round = 0; round < rounds; ++round) {
    const PassResult raw_pass = raw.Pass(files, workers);
    const PassResult daemon_pass = daemon.Pass(files, kInFlight);
    if (raw_pass.matches != daemon_pass.matches) {
      throw std::runtime_error(
          fmt::format("{} matches by raw libyara, {} by the daemon", raw_pass.matches, daemon_pass.matches));
    }
    ratios.push_back(raw_pass.seconds / daemon_pass.seconds);
    rates.push_back(static_cast<double>(files.size()) / daemon_pass.seconds);
  }
  std::sort(ratios.begin(), ratios.end());
  std::sort(rates.begin(), rates.end());
  fmt::print("{:<14} {:>6} {:>8} {:>11.0f} {:>9.2f}   {:.2f} to {:.2f}\n", file_class.name, rule_count, workers,
             rates[rates.size() / 2], ratios[ratios.size() / 2], ratios.front(), ratios.back());
}

}  // namespace

int main(int argc, char** argv) {
#ifdef VOND_SANITIZED
  fmt::print(stderr, "vond_bench: a sanitizer build measures the sanitizer\n");
  return 1;
#endif
  if (std::string_view(VOND_BUILD_TYPE) == "Debug") {
    fmt::print(stderr, "vond_bench: a debug build measures nothing of use\n");
    return 1;
  }
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 11;
  try {
    fmt::print("{} processors, libyara {}, {} build, seed {}, {} rounds, {} requests in flight\n\n",
               ::sysconf(_SC_NPROCESSORS_ONLN), YR_VERSION, VOND_BUILD_TYPE, kSeed, rounds, kInFlight);
    fmt::print("{:<14} {:>6} {:>8} {:>11} {:>9}   {}\n", "files", "rules", "workers", "files/s", "ratio", "range");
    for (const FileClass& file_class :
         {FileClass{"14 to 18 KB", 14 << 10, 18 << 10, 2000}, FileClass{"64 to 512 KB", 64 << 10, 512 << 10, 200}}) {
      for (const std::size_t rule_count : {300U, 5000U}) {
        for (const std::uint32_t workers : {1U, 2U}) {
          Row(file_class, rule_count, workers, rounds);
        }
      }
    }
  } catch (const std::exception& e) {
    fmt::print(stderr, "vond_bench: {}\n", e.what());
    return 1;
  }
  return 0;
}
