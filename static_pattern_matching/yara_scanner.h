#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "static_pattern_matching/proto/SentScanResponse.pb.h"
#include "static_pattern_matching/proto/StaticPatternMatching.pb.h"
#include "static_pattern_matching/yara_config.h"
#include "utils/mutex.h"

namespace korvo::static_pattern_matching_daemon {

/// Scans files with the current configuration, and swaps that for a new one. Any thread; scans run in parallel, each
/// with the configuration that was current when it began. The mutex is held for a pointer's copy or swap only.
class YaraScanner {
 public:
  /// Scans the file once for each rule type asked for. Failures are reported per rule type: no rule set for the file's
  /// type and this rule type, no configuration yet, or a failing engine give ScanStatus_YaraScanFailed. An engine error
  /// in a result is not a failure of this kind. `fd` stays the caller's.
  [[nodiscard]] static_pattern_matching_proto::SentScanResponse ScanFile(
      int fd, const static_pattern_matching_proto::ScanRequest& request) EXCLUDES(mutex_);

  /// Loads a configuration and makes it current. Throws what YaraConfig throws; the old one then stays.
  void UpdateConfig(const static_pattern_matching_proto::UserConfigData& user_config, const std::vector<int>& fds)
      EXCLUDES(mutex_);

  /// Whether a configuration has been freed since the last call. Mostly that is at the swap, but a scan that began
  /// before it keeps the old one until its own end.
  [[nodiscard]] bool TakeConfigFreed() noexcept { return config_freed_ && config_freed_.exchange(false); }

 private:
  korvo::utils::Mutex mutex_;
  std::atomic<bool> config_freed_{false};                        // before config_, whose end sets it
  std::shared_ptr<const YaraConfig> config_ GUARDED_BY(mutex_);  // empty until the first policy
};

}  // namespace korvo::static_pattern_matching_daemon
