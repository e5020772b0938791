#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "agent/relay_protocol.h"
#include "agent/scan_statistics.h"
#include "agent/supervised_daemon.h"
#include "agent/unix_listener.h"
#include "tests/support/test_support.h"
#include "vondctl/prometheus_text.h"

// What the relay is made of and can be looked at without a daemon.
namespace vond::agent {
namespace {

using static_pattern_matching_proto::ScanRequest;
using static_pattern_matching_proto::ScanResponse;
using std::chrono::milliseconds;
using std::chrono::seconds;

// The bucket that a value falls into.
std::pair<double, double> BucketOf(double value) {
  const auto& bounds = LatencyHistogram::Bounds();
  const auto upper = std::lower_bound(bounds.begin(), bounds.end(), value);
  return {upper == bounds.begin() ? 0 : *(upper - 1), upper == bounds.end() ? HUGE_VAL : *upper};
}

TEST(LatencyHistogram, PercentilesAreWithinTheBucketOfTheTrueOnes) {
  std::mt19937 random(7);
  for (const double spread : {0.1, 1.0, 3.0}) {
    std::lognormal_distribution<double> distribution(-6, spread);
    LatencyHistogram histogram;
    std::vector<double> values(5000);
    for (double& value : values) {
      value = distribution(random);
      histogram.Add(value);
    }
    std::sort(values.begin(), values.end());
    double last = 0;
    for (const double part : {0.01, 0.5, 0.9, 0.99, 1.0}) {
      const double truth = values[static_cast<std::size_t>(std::ceil(part * 5000)) - 1];
      const double told = histogram.Percentile(part);
      const auto [low, high] = BucketOf(truth);
      EXPECT_GE(told, low) << part;
      EXPECT_LE(told, high) << part;
      EXPECT_GE(told, last) << part;
      EXPECT_LE(told, values.back());
      last = told;
    }
  }
}

TEST(LatencyHistogram, TakesWhatIsBeyondItsBounds) {
  LatencyHistogram histogram;
  EXPECT_EQ(histogram.Percentile(0.5), 0);
  for (const double value : {-1.0, 0.0, 5000.0}) {
    histogram.Add(value);
  }
  EXPECT_EQ(histogram.Percentile(0.99), 5000);
  vond_relay::Latency latency;
  histogram.Fill(latency);
  EXPECT_EQ(latency.count(), 3U);
  EXPECT_EQ(latency.sum(), 5000);
  ASSERT_GT(latency.buckets_size(), 10);
  EXPECT_EQ(latency.buckets(0).count(), 2U);
  EXPECT_EQ(latency.buckets(latency.buckets_size() - 1).count(), 2U) << "the last one is in no bucket";
  for (int i = 1; i < latency.buckets_size(); ++i) {
    EXPECT_LT(latency.buckets(i - 1).upper_bound(), latency.buckets(i).upper_bound());
  }
}

TEST(RuleHitCounter, CountsSoManyRulesAloneAndTheRestTogether) {
  RuleHitCounter counter(2);
  for (const char* const rule : {"a", "b", "c", "b", "d", "c"}) {
    counter.Add(rule, 0);
  }
  counter.Add("b", 1);  // the same name under another type is another rule
  vond_relay::Status status;
  counter.Fill(status);
  ASSERT_EQ(status.rule_hits_size(), 2);
  EXPECT_EQ(status.rule_hits(0).rule(), "b") << "most hits first";
  EXPECT_EQ(status.rule_hits(0).hits(), 2U);
  EXPECT_EQ(status.rule_hits(1).hits(), 1U);
  EXPECT_EQ(status.other_rule_hits(), 4U);
}

TEST(JudgeScan, TakesForScannedOnlyWhatWasScannedWhole) {
  struct Result {
    int rule_type;
    int status;
    int error;
    std::string rules;  // a small letter is a private rule
  };
  struct Case {
    const char* name;
    std::vector<int> asked;
    int status;
    std::vector<Result> results;
    ScanOutcome outcome;
  };
  const std::vector<Case> cases{
      {"clean", {0}, 0, {{0, 0, 0, ""}}, ScanOutcome::kClean},
      {"match", {0, 1}, 0, {{0, 0, 0, ""}, {1, 0, 0, "A"}}, ScanOutcome::kMatch},
      {"private", {0}, 0, {{0, 0, 0, "a"}}, ScanOutcome::kClean},
      {"nothing asked", {}, 0, {}, ScanOutcome::kError},
      {"a type without a result", {0, 1}, 0, {{0, 0, 0, "A"}}, ScanOutcome::kError},
      {"failed status", {0}, 1, {{0, 0, 0, ""}}, ScanOutcome::kError},
      {"no rule set", {0}, 0, {{0, 2, 0, ""}}, ScanOutcome::kError},
      {"time-out behind a match", {0, 1}, 0, {{0, 0, 0, "A"}, {1, 0, 26, ""}}, ScanOutcome::kTimeout},
      {"match behind a time-out", {1, 0}, 0, {{0, 0, 0, "A"}, {1, 0, 26, ""}}, ScanOutcome::kTimeout},
      {"engine error", {0, 1}, 0, {{0, 0, 26, ""}, {1, 0, 4, "A"}}, ScanOutcome::kError},
  };
  for (const Case& one : cases) {
    ScanRequest request;
    ScanResponse response;
    for (const int rule_type : one.asked) {
      request.add_rule_type(static_cast<static_pattern_matching_proto::RuleType>(rule_type));
    }
    response.set_status(static_cast<static_pattern_matching_proto::ResponseStatus>(one.status));
    for (const Result& result : one.results) {
      auto& entry = (*response.mutable_results())[result.rule_type];
      entry.set_status(static_cast<static_pattern_matching_proto::ScanStatus>(result.status));
      entry.mutable_result()->set_error(result.error);
      for (const char rule : result.rules) {
        auto& matched = *entry.mutable_result()->add_matched_rules();
        matched.set_name(std::string(1, rule));
        matched.set_is_private_rule(rule >= 'a');
      }
    }
    EXPECT_EQ(JudgeScan(request, response), one.outcome) << one.name;
  }
}

TEST(CrashWindow, IsFullWithTheFifthCrashInAMinute) {
  const CrashWindow::TimePoint start{};
  CrashWindow window;
  for (const int at : {0, 10, 20, 59}) {
    EXPECT_TRUE(window.Note(start + seconds(at))) << at;
  }
  EXPECT_TRUE(window.Note(start + seconds(61))) << "the first one is over a minute ago";
  EXPECT_FALSE(window.Note(start + seconds(62)));
}

TEST(CrashWindow, WaitsTwiceAsLongAfterEachCrash) {
  const CrashWindow::TimePoint start{};
  CrashWindow window(100, seconds(60));
  std::vector<long> waits;
  for (int i = 0; i < 4; ++i) {
    EXPECT_TRUE(window.Note(start + milliseconds(i)));
    waits.push_back(window.BackOff().count());
  }
  EXPECT_EQ(waits, (std::vector<long>{100, 200, 400, 800}));
  EXPECT_TRUE(window.Note(start + seconds(100)));
  EXPECT_EQ(window.BackOff(), milliseconds(100)) << "it had been well for a minute";
  for (int i = 0; i < 40; ++i) {
    EXPECT_TRUE(window.Note(start + seconds(101)));
  }
  EXPECT_LE(window.BackOff(), seconds(60));
}

TEST(AccessRule, LetsInWhoIsNamedOnceAnyoneIs) {
  const auto peer = [](uid_t uid, std::set<gid_t> groups) {
    PeerIdentity identity;
    identity.uid = uid;
    identity.groups = std::move(groups);
    return identity;
  };
  const AccessRule nobody_named;
  const AccessRule named{{7}, {30}};
  EXPECT_TRUE(nobody_named.Admits(peer(9, {9}), 5)) << "the socket's mode has decided";
  EXPECT_TRUE(named.Admits(peer(5, {}), 5)) << "the owner";
  EXPECT_TRUE(named.Admits(peer(0, {}), 5)) << "root";
  EXPECT_TRUE(named.Admits(peer(7, {9}), 5));
  EXPECT_TRUE(named.Admits(peer(9, {1, 30}), 5));
  EXPECT_FALSE(named.Admits(peer(9, {7}), 5)) << "a group with a named user's number";
  EXPECT_FALSE(named.Admits(peer(30, {9}), 5));
}

TEST(RelayProtocol, FailuresComeBackAsTheyWere) {
  for (const ErrorCode code : {ErrorCode::kStartFailed, ErrorCode::kDeadlineExceeded, ErrorCode::kRelayFailed}) {
    const Error error = ErrorIn(FailureResponse(Error(code, "why")).generic_result());
    EXPECT_EQ(error.Code(), code);
    EXPECT_STREQ(error.what(), "why");
  }
  EXPECT_EQ(ErrorIn(FailureResponse(Error(ErrorCode::kDaemonDied, "")).generic_result()).Code(),
            ErrorCode::kRelayFailed)
      << "or the client would take its connection for broken";
  korvo_daemon::GenericResult unknown;
  for (const std::uint32_t result_code : {0U, 1000U, 0xffffffffU}) {
    unknown.set_result_code(result_code);
    EXPECT_EQ(ErrorIn(unknown).Code(), ErrorCode::kBadAnswer);
  }
}

// A reader of the text format that knows nothing of the writer: samples by family, with labels unescaped.
struct Sample {
  std::string name;
  std::map<std::string, std::string> labels;
  double value;
};

std::map<std::string, std::string> ReadLabels(const std::string& line, std::size_t& at) {
  std::map<std::string, std::string> labels;
  while (line.at(at) != '}') {
    at += line[at] == '{' || line[at] == ',' ? 1 : 0;
    const std::size_t equals = line.find("=\"", at);
    std::string& value = labels[line.substr(at, equals - at)];
    for (at = equals + 2; line.at(at) != '"'; ++at) {
      if (line[at] == '\\') {
        ++at;
        EXPECT_NE(std::string("\\\"n").find(line.at(at)), std::string::npos) << line;
        value += line[at] == 'n' ? '\n' : line[at];
      } else {
        value += line[at];
      }
    }
    ++at;
  }
  ++at;
  return labels;
}

TEST(PrometheusText, IsWellFormedAndWhole) {
  ScanStatistics statistics;
  for (const int time : {1, 3, 700, 5'000'000}) {
    statistics.Add(ScanOutcome::kClean, 10, milliseconds(time));
  }
  vond_relay::Status status;
  statistics.Fill(status);
  const std::string nasty = "a\"b\\c\nd\\n{},=";
  auto& hits = *status.add_rule_hits();
  hits.set_rule(nasty);
  hits.set_rule_type(1);
  hits.set_hits(9);

  std::map<std::string, std::string> types;
  std::vector<Sample> samples;
  std::set<std::string> seen;
  std::string family;
  for (const std::string& line : test::Lines(vondctl::PrometheusText(status))) {
    if (line.starts_with("#")) {
      std::istringstream words(line);
      std::string hash, keyword, name, rest;
      words >> hash >> keyword >> name >> rest;
      EXPECT_NE(rest, "") << line;
      EXPECT_TRUE(keyword == "HELP" ? !types.contains(name) : name == family) << "a family is in one piece: " << line;
      family = name;
      if (keyword == "TYPE") {
        types[name] = rest;
      }
      continue;
    }
    EXPECT_TRUE(seen.insert(line.substr(0, line.rfind(' '))).second) << "twice: " << line;
    std::size_t at = line.find_first_of("{ ");
    Sample sample{line.substr(0, at), {}, 0};
    if (line[at] == '{') {
      sample.labels = ReadLabels(line, at);
    }
    ASSERT_EQ(line.at(at), ' ') << line;
    std::size_t end = 0;
    sample.value = std::stod(line.substr(at + 1), &end);
    EXPECT_EQ(end, line.size() - at - 1) << line;
    EXPECT_TRUE(sample.name == family || (types[family] == "histogram" && sample.name.starts_with(family + "_")))
        << line;
    EXPECT_EQ(types[family] == "counter", family.ends_with("_total")) << family;
    samples.push_back(sample);
  }

  double last = 0;
  std::map<std::string, double> by_name;
  for (const Sample& sample : samples) {
    by_name[sample.name] = sample.value;
    if (sample.name == "vond_scan_seconds_bucket") {
      EXPECT_GE(sample.value, last) << "buckets hold all that is below";
      last = sample.value;
    }
    if (sample.name == "vond_rule_hits_total" && sample.value == 9) {
      EXPECT_EQ(sample.labels, (std::map<std::string, std::string>{{"rule", nasty}, {"type", "allow"}}));
      by_name["nasty"] = 1;
    }
    if (sample.name == "vond_scans_total" && sample.labels.at("outcome") == "clean") {
      EXPECT_EQ(sample.value, 4);
    }
  }
  EXPECT_EQ(last, 4) << "the last bucket is +Inf";
  EXPECT_EQ(by_name["vond_scan_seconds_count"], 4);
  EXPECT_NEAR(by_name["vond_scan_seconds_sum"], 5000.704, 1e-6);
  EXPECT_EQ(by_name["vond_scanned_bytes_total"], 40);
  EXPECT_EQ(by_name["nasty"], 1);
}

}  // namespace
}  // namespace vond::agent
