#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "static_pattern_matching/proto/StaticPatternMatching.pb.h"
#include "yara/yara_lib/yara_exceptions.h"
#include "yara/yara_lib/yara_rule_set.h"

namespace korvo::static_pattern_matching_daemon {

/// Where a load failed, for tools that explain it to people; see YaraConfig's constructor.
struct YaraConfigLoadFailure {
  int rule_set = -1;      ///< position in the document's rule_sets, or -1
  std::string rule_name;  ///< the rule that was refused, or empty
  std::vector<korvo::yara::yara_lib::CompilerMessage> compiler_messages;  ///< of a compilation that failed
};

/// A policy, fully loaded: the user configuration document and its rule sets, compiled, overridden, validated, with the
/// rules switched off whose action says so. Either all of it loads or construction throws.
///
/// Immutable once constructed; shared by scans through a shared pointer. Construction runs on one thread, logs its
/// steps, and reads the descriptors, which stay the caller's.
class YaraConfig {
 public:
  /// A policy or request that can't be served.
  class Exception : public std::runtime_error {
   public:
    /// `status` is a static_pattern_matching_proto::ResponseStatus.
    explicit Exception(const std::string& message,
                       int status = static_pattern_matching_proto::ResponseStatus_GenericError)
        : std::runtime_error(message), status_(status) {}
    [[nodiscard]] int GetStatus() const noexcept { return status_; }

   private:
    int status_;
  };

  using RuleSetPtr = std::shared_ptr<korvo::yara::yara_lib::YaraRuleSet>;
  using RuleSetsByRuleType = std::unordered_map<std::int32_t, RuleSetPtr>;
  using RuleSetsByFileType = std::unordered_map<std::int32_t, RuleSetsByRuleType>;

  /// Loads `document`, whose rule sets index `fds`. Throws std::exceptions of many kinds, each already logged.
  /// `failure`, if given, is filled with where it failed.
  YaraConfig(static_pattern_matching_proto::UserConfigData document, const std::vector<int>& fds,
             YaraConfigLoadFailure* failure = nullptr);

  [[nodiscard]] const static_pattern_matching_proto::UserConfigData& GetUserConfig() const noexcept {
    return user_config_;
  }
  /// By file type, then by rule type.
  [[nodiscard]] const RuleSetsByFileType& GetRuleSets() const noexcept { return rule_sets_; }

 private:
  using RuleVisitor = std::function<void(std::int32_t file_type, std::int32_t rule_type,
                                         korvo::yara::yara_lib::YaraRuleSet& rule_set, std::size_t rule_index)>;
  void ForEachRule(const RuleVisitor& visit);

  void Load(const std::vector<int>& fds, YaraConfigLoadFailure& failure);
  void CompileRules(const std::vector<int>& fds, YaraConfigLoadFailure& failure);
  void ApplyOverride(const static_pattern_matching_proto::RuleOverride& rule_override);
  void ValidateRules(YaraConfigLoadFailure& failure);
  void DisableMarkedRules();
  void RefuseDisabledMembers(YaraConfigLoadFailure& failure);
  // Position in the document of the rule set in force for a pair.
  [[nodiscard]] int PositionOf(std::int32_t file_type, std::int32_t rule_type) const;
  void TraceRules();

  static_pattern_matching_proto::UserConfigData user_config_;
  RuleSetsByFileType rule_sets_;
};

}  // namespace korvo::static_pattern_matching_daemon
