#include "static_pattern_matching/yara_scanner.h"

#include <utility>

#include "utils/checked_access.h"
#include "utils/log.h"
#include "yara/yara_lib/yara_lib.h"
#include "yara/yara_lib/yara_messages.h"

namespace korvo::static_pattern_matching_daemon {

using korvo::utils::MapAt;
using korvo::utils::MutexLock;
using korvo::yara::yara_lib::YaraLib;
using korvo::yara::yara_lib::YaraScanOptions;
using static_pattern_matching_proto::ScanRequest;
using static_pattern_matching_proto::SentScanResponse;
using static_pattern_matching_proto::SentScanResult;
using static_pattern_matching_proto::UserConfigData;

SentScanResponse YaraScanner::ScanFile(int fd, const ScanRequest& request) {
  SentScanResponse response;
  std::shared_ptr<const YaraConfig> config;
  {
    const MutexLock lock(mutex_);
    config = config_;
  }
  for (const int rule_type : request.rule_type()) {
    SentScanResult entry;
    try {
      if (config == nullptr) {
        throw YaraConfig::Exception("no policy has been installed yet");
      }
      const YaraConfig::RuleSetPtr& rule_set = MapAt(MapAt(config->GetRuleSets(), request.file_type()), rule_type);
      const UserConfigData& user_config = config->GetUserConfig();
      const YaraScanOptions options{1, user_config.yara_retries_on_match(), user_config.yara_timeout_in_seconds()};
      entry.set_result(SerializeOutcome(YaraLib::Instance().ScanFileDescriptor(rule_set, fd, options)));
    } catch (const std::exception& e) {
      LOG_ERROR("ScanFile failed with error: ", e.what());
      entry.Clear();
      entry.set_status(static_pattern_matching_proto::ScanStatus_YaraScanFailed);
    }
    (*response.mutable_results())[rule_type] = std::move(entry);
  }
  return response;
}

void YaraScanner::UpdateConfig(const UserConfigData& user_config, const std::vector<int>& fds) {
  LOG_INFO("Updating YaraScanner's configuration..");
  std::shared_ptr<const YaraConfig> config(new YaraConfig(user_config, fds), [this](const YaraConfig* freed) {
    delete freed;
    config_freed_ = true;
  });
  const MutexLock lock(mutex_);
  config_.swap(config);
  // The old configuration goes with `config`, which outlives the lock.
}

}  // namespace korvo::static_pattern_matching_daemon
