#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "agent/proto/Relay.pb.h"
#include "static_pattern_matching/proto/StaticPatternMatching.pb.h"

namespace vond::agent {

/// How long things took, in buckets of fixed bounds from 10 us to 1000 s, so that it takes the same memory whatever it
/// counts. One thread.
class LatencyHistogram {
 public:
  /// Upper bounds of the buckets in seconds, rising; what is beyond the last one is counted too.
  [[nodiscard]] static const std::vector<double>& Bounds();

  /// Anything below 0 counts as 0.
  void Add(double seconds);
  [[nodiscard]] std::uint64_t Count() const noexcept { return count_; }
  /// The value that `part` (0 to 1) of all values do not exceed, as far as the buckets tell: never more than the
  /// largest value, never below the lower bound of the true value's bucket. 0 without values.
  [[nodiscard]] double Percentile(double part) const;
  /// Buckets at 1, 2 and 5 times each power of ten.
  void Fill(vond_relay::Latency& latency) const;

 private:
  std::vector<std::uint64_t> counts_ = std::vector<std::uint64_t>(Bounds().size() + 1);
  std::uint64_t count_ = 0;
  double sum_ = 0;
  double max_ = 0;
};

/// How often each rule matched. Rules beyond `most` different ones are counted together. One thread.
class RuleHitCounter {
 public:
  explicit RuleHitCounter(std::size_t most = 1000) : most_(most) {}
  void Add(const std::string& rule, std::int32_t rule_type);
  void Fill(vond_relay::Status& status) const;

 private:
  std::size_t most_;
  std::map<std::pair<std::string, std::int32_t>, std::uint64_t> hits_;
  std::uint64_t others_ = 0;
};

enum class ScanOutcome { kMatch, kClean, kTimeout, kSkipped, kError };

/// The class of a scan by the daemon's answer: clean and match only where every rule type that was asked for has a
/// result without an error, and at least one was asked for. Private rules are no matches.
[[nodiscard]] ScanOutcome JudgeScan(const static_pattern_matching_proto::ScanRequest& request,
                                    const static_pattern_matching_proto::ScanResponse& response);

/// What a relay counts. One thread.
class ScanStatistics {
 public:
  /// The end of a scan that never reached the daemon.
  void AddUnsent(ScanOutcome outcome) { ++outcomes_[static_cast<std::size_t>(outcome)]; }
  /// The end of one that did, of a file of `bytes`, after `latency`.
  void Add(ScanOutcome outcome, std::uint64_t bytes, std::chrono::nanoseconds latency);
  void AddHits(const static_pattern_matching_proto::ScanResponse& response);
  void Fill(vond_relay::Status& status) const;

 private:
  std::array<std::uint64_t, 5> outcomes_{};  // by ScanOutcome
  std::uint64_t bytes_ = 0;
  LatencyHistogram latency_;
  RuleHitCounter hits_;
};

}  // namespace vond::agent
