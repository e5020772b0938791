#include "yara/yara_lib/scan_callback.h"

#include <yara.h>

#include <algorithm>

#include "utils/assertion.h"

namespace korvo::yara::yara_lib {
namespace {

using korvo::utils::WriteAssertion;

constexpr const char* kSource = "yara/yara_lib/yara_lib";
// libyara ends the scan with ERROR_CALLBACK_ERROR on this.
constexpr int kEndWithError = CALLBACK_ERROR;
static_assert(kEndWithError == 2 && CALLBACK_CONTINUE == 0);

int OnRuleMatching(const YR_RULE* rule, ScanContext& context) {
  if (rule == nullptr) {
    WriteAssertion(134, kSource, "rule", "");
    return kEndWithError;
  }
  const auto index = static_cast<std::size_t>(rule - context.yr_rules->rules_table);
  std::shared_ptr<const YaraRuleRecord> info = context.rule_set->CopyRule(index);
  if (info->is_private_rule && !context.report_private_rules) {
    context.rule_set->NotifyRuleMatchedNotReported(index);
    return CALLBACK_CONTINUE;
  }
  context.rule_set->NotifyRuleMatchedReported(index);
  context.matches.push_back(std::move(info));
  return CALLBACK_CONTINUE;
}

int OnImportModule(const YR_MODULE_IMPORT* yr_module, ScanContext& context) {
  if (yr_module == nullptr) {
    WriteAssertion(38, kSource, "yr_module", "");
    return kEndWithError;
  }
  const std::string name = yr_module->module_name;
  const bool allowed = context.modules.empty() ||
                       std::find(context.modules.begin(), context.modules.end(), name) != context.modules.end();
  context.rule_set->NotifyModuleImported(name, yr_module->module_data, yr_module->module_data_size, allowed);
  return allowed ? CALLBACK_CONTINUE : kEndWithError;
}

}  // namespace

int OnScanMessage(int message, void* message_data, void* user_data) noexcept {
  auto* const context = static_cast<ScanContext*>(user_data);
  if (context == nullptr) {
    WriteAssertion(161, kSource, "user_data", "user_data is null");
    return kEndWithError;
  }
  try {
    switch (message) {
      case CALLBACK_MSG_RULE_MATCHING:
        return OnRuleMatching(static_cast<const YR_RULE*>(message_data), *context);
      case CALLBACK_MSG_IMPORT_MODULE:
        return OnImportModule(static_cast<const YR_MODULE_IMPORT*>(message_data), *context);
      case CALLBACK_MSG_SCAN_FINISHED:
      case CALLBACK_MSG_MODULE_IMPORTED:
        return CALLBACK_CONTINUE;
      default:
        // Also the messages that libyara has learnt since: too many matches, which so ends the scan, and the console
        // module's, whose return value it does not look at.
        WriteAssertion(177, kSource, "0 < message && message <= 5 && message != 2", "not supported callback message");
        return kEndWithError;
    }
  } catch (...) {
    context->exception = std::current_exception();
    return kEndWithError;
  }
}

}  // namespace korvo::yara::yara_lib
