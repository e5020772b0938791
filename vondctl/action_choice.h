#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "yara/yara_source/yara_source.h"

namespace vond::vondctl {

/// Chooses the action of a rule that has none, by the rule's other metadata.
class ActionChoice {
 public:
  /// Throws std::invalid_argument for what is no action, here and below.
  explicit ActionChoice(const std::string& default_action);

  /// Adds "KEY:CASE,CASE..." to what is tried in turn. A case is OPERATOR VALUE=ACTION, such as ">=75=block"; the
  /// operators are >= > <= < for integers, == != for anything, and == where none is given ("high=block"). Throws
  /// std::invalid_argument, with a text for people.
  void Add(std::string_view mapping);

  /// The action of the first case that holds, else the default.
  [[nodiscard]] const std::string& For(const yara_source::RuleText& rule) const;

 private:
  enum class Operator { kEqual, kNotEqual, kLess, kLessOrEqual, kGreater, kGreaterOrEqual };
  struct Case {
    std::string key;
    Operator comparison = Operator::kEqual;
    std::string operand;
    std::int64_t number = 0;  // the operand, for an order
    std::string action;
  };
  static Case ParseCase(std::string_view key, std::string_view text);
  static bool Holds(const Case& one, const yara_source::MetaValue& value);

  std::string default_action_;
  std::vector<Case> cases_;
};

}  // namespace vond::vondctl
