#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "static_pattern_matching/proto/StaticPatternMatching.pb.h"
#include "vondctl/policy_explainer.h"
#include "vondctl/progress.h"
#include "vondctl/report_file.h"
#include "vondctl/verb.h"

namespace vond::vondctl {

/// The one class each file ends in.
enum class Outcome { kMatch, kClean, kTimeout, kSkipped, kError, kChanged };

/// A rule that matched, and the rule type it was asked for under.
struct Match {
  std::int32_t rule_type = 0;
  yara_lib::YaraRuleDescriptor rule;
};

/// The end of one file.
struct FileReport {
  std::string path;
  std::uint64_t size = 0;            ///< bytes
  std::chrono::nanoseconds time{0};  ///< that the scan took
  Outcome outcome = Outcome::kClean;
  bool changed = false;             ///< meanwhile; a match is a match all the same
  std::vector<Match> matches;       ///< also of a file that was not wholly scanned
  std::optional<int> engine_error;  ///< libyara's code, if that is why
  std::string error;                ///< why the file is neither clean nor a match
};

/// Why a run ended.
enum class RunEnd {
  kComplete,
  kMaxErrors,     ///< as many errors as were allowed
  kInterrupted,   ///< by a signal
  kDaemonFailed,  ///< and could not be brought back
  kOutputFailed,  ///< the results could not be written
};

/// What a watch has to tell besides.
struct WatchSummary {
  std::string watcher;                ///< "fanotify" or "inotify"
  std::uint64_t lost = 0;             ///< how often events were lost, each time one or more
  std::uint64_t gone = 0;             ///< files that were gone before they could be opened
  std::uint64_t commands = 0;         ///< of --on-match that were started
  std::uint64_t commands_failed = 0;  ///< those that did not end with status 0, or were not started
};

struct RunSummary {
  RunEnd end = RunEnd::kComplete;
  int exit_status = 0;
  std::uint64_t restarts = 0;  ///< of the daemon
  std::uint64_t left_out = 0;  ///< what the walk passed over because it is no file
  std::optional<WatchSummary> watch;
};

/// Writes results to standard output and into the report file as they come, progress to a terminal on standard error,
/// and the summary, in which every file stands in exactly one class. One thread.
class Reporter {
 public:
  struct Options {
    Format format = Format::kText;
    bool all = false;      ///< clean files too
    bool quiet = false;    ///< no progress, no summary as text
    bool progress = true;  ///< unless quiet
    bool count = false;    ///< nothing but the counts
    bool meta = false;     ///< as text
    bool tags = false;     ///< as text
    bool color = false;    ///< as text
    std::string report;    ///< path of the report file; empty: none
    bool live = false;     ///< results come now and then, and somebody waits for each
    /// Gets the JSON line of each file with matches. May be empty.
    std::function<void(const std::string& json_line)> on_match;
  };

  /// Throws std::system_error if the report file cannot be made.
  explicit Reporter(Options options);

  /// What is in force when the scan begins, which is now.
  void Policy(const std::vector<RuleSetCount>& rule_sets);
  void File(const FileReport& file);
  /// A line for people, on standard error.
  void Notice(const std::string& text);
  /// To be called often: keeps the progress line going; `in_hand` is the file at work longest, and lets nothing wait in
  /// a buffer for long.
  void Tick(const std::string* in_hand);
  /// Writes the summary, flushes, and puts the report file in place. Returns whether everything could be written.
  [[nodiscard]] bool Summary(const RunSummary& summary);

  /// From now on progress knows the total.
  void UseTotal(const TotalCounter* total) { total_ = total; }
  [[nodiscard]] bool ShowsProgress() const { return progress_.IsEnabled(); }
  /// Whether results got lost because standard output or the report file does not take them.
  [[nodiscard]] bool HasFailed() const;
  [[nodiscard]] bool AnyMatched() const { return Count(Outcome::kMatch) > 0; }
  [[nodiscard]] bool AnyNotScanned() const;
  /// Files that failed or timed out.
  [[nodiscard]] std::uint64_t Errors() const { return Count(Outcome::kError) + Count(Outcome::kTimeout); }

 private:
  struct Slow {
    std::chrono::nanoseconds time;
    std::string path;
  };

  [[nodiscard]] std::uint64_t Count(Outcome outcome) const { return counts_[static_cast<std::size_t>(outcome)]; }
  [[nodiscard]] std::uint64_t Files() const;
  void NoteTime(const FileReport& file);
  // Where each goes is decided here: standard output and the report file.
  void WriteJson(const nlohmann::ordered_json& json, bool to_stdout);
  void FileAsText(const FileReport& file) const;
  [[nodiscard]] nlohmann::ordered_json SummaryJson(const RunSummary& summary, double seconds) const;
  void SummaryAsText(const RunSummary& summary, double seconds) const;

  Options options_;
  std::optional<ReportFile> report_file_;
  std::string report_error_;
  ProgressLine progress_;
  const TotalCounter* total_ = nullptr;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point last_flush_;
  std::array<std::uint64_t, 6> counts_{};  // by Outcome
  std::uint64_t bytes_ = 0;
  std::vector<Slow> slowest_;  // the slowest first
};

}  // namespace vond::vondctl
