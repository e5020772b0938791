#include "agent/scan_statistics.h"

#include <algorithm>
#include <cmath>

namespace vond::agent {
namespace {

using static_pattern_matching_proto::ScanRequest;
using static_pattern_matching_proto::ScanResponse;

constexpr std::array<double, 8> kSteps{1, 1.5, 2, 3, 4, 5, 6, 8};
constexpr int kFirstPower = -5;
constexpr int kLastPower = 3;
constexpr int kEngineTimeout = 26;  // libyara's

std::vector<double> MakeBounds() {
  std::vector<double> bounds;
  for (int power = kFirstPower; power < kLastPower; ++power) {
    for (const double step : kSteps) {
      bounds.push_back(step * std::pow(10, power));
    }
  }
  bounds.push_back(std::pow(10, kLastPower));
  return bounds;
}

// Whether a bucket is one of those that are shown.
bool IsShown(std::size_t index) {
  const double step = kSteps[index % kSteps.size()];
  return step == 1 || step == 2 || step == 5;
}

}  // namespace

const std::vector<double>& LatencyHistogram::Bounds() {
  static const std::vector<double> bounds = MakeBounds();
  return bounds;
}

void LatencyHistogram::Add(double seconds) {
  const double value = std::max(seconds, 0.0);
  const auto bucket = std::lower_bound(Bounds().begin(), Bounds().end(), value);
  ++counts_[static_cast<std::size_t>(bucket - Bounds().begin())];
  ++count_;
  sum_ += value;
  max_ = std::max(max_, value);
}

double LatencyHistogram::Percentile(double part) const {
  const double wanted = std::clamp(part, 0.0, 1.0) * static_cast<double>(count_);
  double below = 0;
  for (std::size_t i = 0; i < Bounds().size(); ++i) {
    const auto here = static_cast<double>(counts_[i]);
    if (here > 0 && below + here >= wanted) {
      const double low = i == 0 ? 0 : Bounds()[i - 1];
      return std::min(low + (Bounds()[i] - low) * std::max(wanted - below, 0.0) / here, max_);
    }
    below += here;
  }
  return max_;
}

void LatencyHistogram::Fill(vond_relay::Latency& latency) const {
  latency.set_count(count_);
  latency.set_sum(sum_);
  latency.set_p50(Percentile(0.5));
  latency.set_p90(Percentile(0.9));
  latency.set_p99(Percentile(0.99));
  latency.set_max(max_);
  std::uint64_t count = 0;
  for (std::size_t i = 0; i < Bounds().size(); ++i) {
    count += counts_[i];
    if (IsShown(i)) {
      vond_relay::Bucket& bucket = *latency.add_buckets();
      bucket.set_upper_bound(Bounds()[i]);
      bucket.set_count(count);
    }
  }
}

void RuleHitCounter::Add(const std::string& rule, std::int32_t rule_type) {
  const auto known = hits_.find({rule, rule_type});
  if (known != hits_.end()) {
    ++known->second;
  } else if (hits_.size() < most_) {
    hits_.emplace(std::pair(rule, rule_type), 1);
  } else {
    ++others_;
  }
}

void RuleHitCounter::Fill(vond_relay::Status& status) const {
  for (const auto& [rule, hits] : hits_) {
    vond_relay::RuleHits& entry = *status.add_rule_hits();
    entry.set_rule(rule.first);
    entry.set_rule_type(rule.second);
    entry.set_hits(hits);
  }
  std::stable_sort(status.mutable_rule_hits()->begin(), status.mutable_rule_hits()->end(),
                   [](const auto& a, const auto& b) { return a.hits() > b.hits(); });
  status.set_other_rule_hits(others_);
}

ScanOutcome JudgeScan(const ScanRequest& request, const ScanResponse& response) {
  if (response.status() != static_pattern_matching_proto::ResponseStatus_Success || request.rule_type_size() == 0) {
    return ScanOutcome::kError;
  }
  ScanOutcome outcome = ScanOutcome::kClean;
  for (const int rule_type : request.rule_type()) {
    const auto entry = response.results().find(rule_type);
    if (entry == response.results().end() ||
        entry->second.status() != static_pattern_matching_proto::ScanStatus_Success) {
      return ScanOutcome::kError;
    }
    const yara_lib::YaraScanResult& result = entry->second.result();
    if (result.error() != 0 && result.error() != kEngineTimeout) {
      return ScanOutcome::kError;
    }
    if (result.error() == kEngineTimeout) {
      outcome = ScanOutcome::kTimeout;
    } else if (outcome == ScanOutcome::kClean &&
               std::any_of(result.matched_rules().begin(), result.matched_rules().end(),
                           [](const auto& rule) { return !rule.is_private_rule(); })) {
      outcome = ScanOutcome::kMatch;
    }
  }
  return outcome;
}

void ScanStatistics::Add(ScanOutcome outcome, std::uint64_t bytes, std::chrono::nanoseconds latency) {
  ++outcomes_[static_cast<std::size_t>(outcome)];
  bytes_ += bytes;
  latency_.Add(std::chrono::duration<double>(latency).count());
}

void ScanStatistics::AddHits(const ScanResponse& response) {
  for (const auto& [rule_type, result] : response.results()) {
    for (const auto& rule : result.result().matched_rules()) {
      if (!rule.is_private_rule()) {
        hits_.Add(rule.name(), rule_type);
      }
    }
  }
}

void ScanStatistics::Fill(vond_relay::Status& status) const {
  const auto count = [this](ScanOutcome outcome) { return outcomes_[static_cast<std::size_t>(outcome)]; };
  vond_relay::Outcomes& scans = *status.mutable_scans();
  scans.set_match(count(ScanOutcome::kMatch));
  scans.set_clean(count(ScanOutcome::kClean));
  scans.set_timeout(count(ScanOutcome::kTimeout));
  scans.set_skipped(count(ScanOutcome::kSkipped));
  scans.set_error(count(ScanOutcome::kError));
  status.set_bytes(bytes_);
  latency_.Fill(*status.mutable_latency());
  hits_.Fill(status);
}

}  // namespace vond::agent
