#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "static_pattern_matching/proto/StaticPatternMatching.pb.h"
#include "vondctl/policy_explainer.h"
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
  std::uint64_t size = 0;  ///< bytes
  Outcome outcome = Outcome::kClean;
  std::vector<Match> matches;       ///< also of a file that was not wholly scanned
  std::optional<int> engine_error;  ///< libyara's code, if that is why
  std::string error;                ///< why the file is neither clean nor a match
};

/// Writes results to standard output as they come, progress to a terminal on standard error, and the summary, in which
/// every file stands in exactly one class. One thread.
class Reporter {
 public:
  struct Options {
    Format format = Format::kText;
    bool all = false;    ///< clean files too
    bool quiet = false;  ///< no progress, no summary as text
  };

  explicit Reporter(const Options& options);

  void Policy(const std::vector<RuleSetCount>& rule_sets) const;
  void File(const FileReport& file);
  /// Writes the summary with this exit status and flushes. Returns whether everything could be written.
  [[nodiscard]] bool Summary(int exit_status);

  [[nodiscard]] bool AnyMatched() const { return Count(Outcome::kMatch) > 0; }
  [[nodiscard]] bool AnyNotScanned() const;

 private:
  [[nodiscard]] std::size_t Count(Outcome outcome) const { return counts_[static_cast<std::size_t>(outcome)]; }
  void FileAsText(const FileReport& file);
  void ShowProgress();
  void ClearProgress();

  Options options_;
  bool show_progress_;
  bool progress_shown_ = false;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point last_progress_;
  std::array<std::size_t, 6> counts_{};  // by Outcome
  std::uint64_t bytes_ = 0;
};

}  // namespace vond::vondctl
