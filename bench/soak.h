#pragma once

#include <chrono>
#include <filesystem>

#include "bench/verdict_table.h"

namespace vond::bench {

struct SoakOptions {
  std::chrono::seconds duration{60};
  std::filesystem::path rules;  ///< a folder of *.yar and *.yara files with a "meta:" line per rule; may be empty
  std::filesystem::path files;  ///< a folder of files to scan beside the generated ones; may be empty
};

/// Four clients of one daemon scan for `duration`: hundreds of rules, another policy every 5 s, 1 % bad requests, 1 %
/// of the files cut short under the scan. Every verdict is compared with raw libyara's on the same bytes and rules.
void Soak(const SoakOptions& options, VerdictTable& table);

/// What swapping in a policy of 10,000 rules costs in memory, and what of it comes back.
void MeasureSwap(VerdictTable& table);

/// Kills or stops `count` daemons at random moments of their work, through agent/: every request must have its end by
/// its deadline, and nothing of the daemon may stay in this process.
void Kill(int count, VerdictTable& table);

}  // namespace vond::bench
