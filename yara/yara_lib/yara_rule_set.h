#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <variant>
#include <vector>

struct YR_RULES;

namespace korvo::yara::yara_lib {

/// A metadata value: text (valid UTF-8), integer or flag.
using YaraMetadataValue = std::variant<std::string, std::int64_t, bool>;

/// Text as it stands, an integer in decimal, a flag as "1" or "0". Throws std::bad_variant_access "Unexpected index"
/// for a variant that lost its value.
[[nodiscard]] std::string MetadataValueToText(const YaraMetadataValue& value);

struct YaraMetadataItem {
  std::string key;
  YaraMetadataValue value;
};

/// What is known of one rule.
struct YaraRuleInfo {
  std::string name;
  bool is_private_rule = false;
  std::vector<std::string> tags;           ///< in the rule's order
  std::vector<YaraMetadataItem> metadata;  ///< in the rule's order; keys may repeat

  /// The item of `key` that counts, null if there is none. Of several the last one counts, as it does for a reader who
  /// fills a map from them.
  [[nodiscard]] const YaraMetadataItem* FindMetadata(const std::string& key) const;
  /// Sets the item of `key`, adding it if needed. Of several only the one set remains.
  void SetMetadata(const std::string& key, YaraMetadataValue value);
};

/// A rule's record as a set and the outcomes of scans share it: never changed. Any thread.
class YaraRuleRecord : public YaraRuleInfo {
 public:
  explicit YaraRuleRecord(YaraRuleInfo info) : YaraRuleInfo(std::move(info)) {}
  /// SerializeMatch of the rule, made by its first match: a message for each match would take longer than all the rest
  /// of the match, one for each rule ahead would make loading a policy longer.
  [[nodiscard]] const std::string& SerializedMatch() const;

 private:
  mutable std::once_flag serialized_;
  mutable std::string serialized_match_;
};

/// Hears of what happens to a set's rules. Called on the thread on which it happens, which during scans is any of
/// several at once.
class IYaraRuleSetObserver {
 public:
  virtual ~IYaraRuleSetObserver() = default;
  virtual void OnRuleEnabled(std::size_t rule_index) = 0;
  virtual void OnRuleDisabled(std::size_t rule_index) = 0;
  virtual void OnRuleMatchedNotReported(std::size_t rule_index) = 0;
  virtual void OnRuleMatchedReported(std::size_t rule_index) = 0;
  virtual void OnModuleImported(const std::string& module_name, const void* module_data, std::size_t module_data_size,
                                bool allowed) = 0;
};

/// Something that can be observed.
class IYaraRuleSetObserved {
 public:
  virtual ~IYaraRuleSetObserved() = default;
  virtual void AddObserver(const std::shared_ptr<IYaraRuleSetObserver>& observer) = 0;
  virtual void RemoveObserver(const std::shared_ptr<IYaraRuleSetObserver>& observer) = 0;
  virtual void NotifyRuleEnabled(std::size_t rule_index) = 0;
  virtual void NotifyRuleDisabled(std::size_t rule_index) = 0;
  virtual void NotifyRuleMatchedNotReported(std::size_t rule_index) = 0;
  virtual void NotifyRuleMatchedReported(std::size_t rule_index) = 0;
  virtual void NotifyModuleImported(const std::string& module_name, const void* module_data,
                                    std::size_t module_data_size, bool allowed) = 0;
};

/// Wraps rules so that the last holder destroys them.
[[nodiscard]] std::shared_ptr<YR_RULES> Make_raw_rules_ptr(YR_RULES* rules);

/// One loaded set of rules: libyara's rules, a record per rule in the same order, and the observers.
///
/// Held through a shared pointer, made by YaraLib::Load, never copied. Any number of scans run at once, each under the
/// lock for reading. Everything else that is not const belongs to the one thread that prepares the set before others
/// see it, or to a caller that holds the lock for writing; none of it takes the lock itself. Only the notifications of
/// matches and imports come from scans, under the lock for reading. A broken precondition writes
/// its assertion line; std::out_of_range carries the argument's name.
class YaraRuleSet : public IYaraRuleSetObserved {
 public:
  /// Reads the records of `raw_rules` (none when null). Rules are found by the text of their metadata item `id_key`.
  /// `modules` names the modules that scans may import; empty lets every one in.
  /// Private rules are recorded as such and made public to libyara, which otherwise never reports them: whether they
  /// are reported is decided per scan. Metadata that is not UTF-8 has the offending bytes replaced by U+FFFD, which is
  /// logged once per rule: a message holding them would not parse.
  YaraRuleSet(std::shared_ptr<YR_RULES> raw_rules, std::string id_key, std::vector<std::string> modules);

  YaraRuleSet(const YaraRuleSet&) = delete;
  YaraRuleSet& operator=(const YaraRuleSet&) = delete;

  /// Number of records.
  [[nodiscard]] std::size_t size() const noexcept { return rules_.size(); }
  /// Throw std::out_of_range "rule_index".
  [[nodiscard]] const YaraRuleInfo& GetRule(std::size_t rule_index) const;
  /// The record as it is now: a change of the set makes a new record and leaves this one alone.
  [[nodiscard]] std::shared_ptr<const YaraRuleRecord> CopyRule(std::size_t rule_index) const;

  /// A disabled rule matches nothing and, if global, holds no other back, until it is enabled again. Throws
  /// std::out_of_range "rule_index".
  void SetRuleEnabled(std::size_t rule_index, bool enable);

  /// Whether a rule has this id.
  [[nodiscard]] bool HasRule(const std::string& id) const { return indexes_by_id_.contains(id); }
  /// The rules with this id, in the set's order: ids may be shared. Throws std::out_of_range "_Map_base::at".
  [[nodiscard]] const std::vector<std::size_t>& FindRules(const std::string& id) const;
  /// Sets a metadata item of every rule with this id. Setting the id itself moves the rules to their new id. Throws as
  /// FindRules.
  void SetMetadata(const std::string& id, const std::string& key, const YaraMetadataValue& value);

  /// An enabled rule whose condition counts a disabled rule in a rule set ("any of (A*)"), as the names of the two;
  /// libyara aborts the process when it comes to such a condition. Throws YaraException when the compiled conditions
  /// can't be read.
  [[nodiscard]] std::optional<std::pair<std::string, std::string>> FindDisabledMember() const;

  void AddObserver(const std::shared_ptr<IYaraRuleSetObserver>& observer) override;
  void RemoveObserver(const std::shared_ptr<IYaraRuleSetObserver>& observer) override;
  void NotifyRuleEnabled(std::size_t rule_index) override;
  void NotifyRuleDisabled(std::size_t rule_index) override;
  void NotifyRuleMatchedNotReported(std::size_t rule_index) override;
  void NotifyRuleMatchedReported(std::size_t rule_index) override;
  void NotifyModuleImported(const std::string& module_name, const void* module_data, std::size_t module_data_size,
                            bool allowed) override;

  /// Throw std::system_error on a deadlock report.
  [[nodiscard]] std::shared_lock<std::shared_mutex> LockForReading() const {
    return std::shared_lock<std::shared_mutex>(lock_);
  }
  [[nodiscard]] std::unique_lock<std::shared_mutex> LockForWriting() {
    return std::unique_lock<std::shared_mutex>(lock_);
  }

  [[nodiscard]] const std::shared_ptr<YR_RULES>& GetRawRules() const noexcept { return raw_rules_; }
  [[nodiscard]] const std::vector<std::string>& GetModules() const noexcept { return modules_; }

 private:
  // The text under which a rule is found; none for a rule without id.
  [[nodiscard]] std::optional<std::string> RuleId(const YaraRuleInfo& rule) const;
  void IndexRules();

  std::vector<std::shared_ptr<const YaraRuleRecord>> rules_;
  std::shared_ptr<YR_RULES> raw_rules_;
  std::vector<std::shared_ptr<IYaraRuleSetObserver>> observers_;
  mutable std::shared_mutex lock_;
  const std::string id_key_;
  const std::vector<std::string> modules_;
  std::unordered_map<std::string, std::vector<std::size_t>> indexes_by_id_;
  std::unordered_set<std::size_t> disabled_global_rules_;  // for as long as not global to libyara
};

}  // namespace korvo::yara::yara_lib
