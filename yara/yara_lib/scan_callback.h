#pragma once

#include <exception>
#include <memory>
#include <vector>

#include "yara/yara_lib/yara_rule_set.h"

namespace korvo::yara::yara_lib {

/// What one scan hands through libyara to its callback.
struct ScanContext {
  std::shared_ptr<YaraRuleSet> rule_set;
  const YR_RULES* yr_rules = nullptr;
  std::vector<std::string> modules;  ///< empty: every module may be imported
  bool report_private_rules = false;
  std::vector<std::shared_ptr<const YaraRuleRecord>> matches;
  std::exception_ptr exception;  ///< what went wrong in the callback, to be rethrown after libyara has returned
};

/// Handles one of libyara's scan messages; `user_data` is the ScanContext. Returns 0 to go on or 2 to end the scan with
/// an error. No exception leaves it, since libyara's frames can't be unwound.
[[nodiscard]] int OnScanMessage(int message, void* message_data, void* user_data) noexcept;

}  // namespace korvo::yara::yara_lib
