#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "bench/inputs.h"
#include "bench/results.h"

namespace vond::bench {

/// How much is measured.
struct Extent {
  std::size_t rounds = 5;
  std::vector<std::size_t> rule_counts;
  std::vector<std::size_t> in_flight;
  std::vector<std::uint32_t> workers;
  std::vector<std::size_t> curve_rule_counts;
  std::vector<std::size_t> curve_file_sizes;
  int swaps_under_load = 20;
};

/// What an agent has in flight where nothing else is said.
inline constexpr std::size_t kUsualInFlight = 8;
/// A policy that is large, but not unusual.
inline constexpr std::size_t kManyRules = 5000;

// Each starts daemons of its own, so that none sees what another left behind, and adds its figures to `results`.
// Throw std::exceptions when something is not as it should be, above all when daemon and twin disagree on matches.

/// The daemon beside raw libyara, over file classes, rules, requests in flight and workers.
void MeasureScans(const Inputs& inputs, const Extent& extent, Results& results);
/// A request with a descriptor and nothing to scan beside a bare echo of its packets.
void MeasureEmptyRequests(const Inputs& inputs, const Extent& extent, Results& results);
/// What each matched rule costs, and how large the answer becomes.
void MeasureMatches(const Inputs& inputs, const Extent& extent, Results& results);
/// A packed policy from the request to the answer beside raw compiling.
void MeasurePolicyLoad(const Inputs& inputs, const Extent& extent, Results& results);
/// Memory at rest, under scans, in swaps and after them; processor time at rest.
void MeasureMemory(const Inputs& inputs, const Extent& extent, Results& results);
/// The daemon in its sandbox beside one without, over file classes and workers.
void MeasureSandbox(const Inputs& inputs, const Extent& extent, Results& results);
/// How cost grows with rules, file size and requests in flight.
void MeasureGrowth(const Inputs& inputs, const Extent& extent, Results& results);

}  // namespace vond::bench
