#include "vondctl/action_choice.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <stdexcept>
#include <utility>

#include "static_pattern_matching/rule_metadata.h"
#include "vondctl/rule_sections.h"

namespace vond::vondctl {
namespace {

using korvo::static_pattern_matching_daemon::ActionFromWord;
using korvo::static_pattern_matching_daemon::RuleAction;

void RequireAction(const std::string& word) {
  if (ActionFromWord(word) == RuleAction::kInvalid) {
    throw std::invalid_argument(
        fmt::format("\"{}\" is not an action: disable, internal, silent, inform, block or allow", word));
  }
}

std::optional<std::int64_t> Integer(std::string_view text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

}  // namespace

ActionChoice::ActionChoice(const std::string& default_action) : default_action_(default_action) {
  RequireAction(default_action);
}

void ActionChoice::Add(std::string_view mapping) {
  const std::size_t colon = mapping.find(':');
  if (colon == 0 || colon == std::string_view::npos || colon + 1 == mapping.size()) {
    throw std::invalid_argument(fmt::format("\"{}\" is not KEY:CASE,CASE...", mapping));
  }
  const std::string_view key = mapping.substr(0, colon);
  mapping.remove_prefix(colon + 1);
  while (true) {
    const std::size_t comma = mapping.find(',');
    cases_.push_back(ParseCase(key, mapping.substr(0, comma)));
    if (comma == std::string_view::npos) {
      return;
    }
    mapping.remove_prefix(comma + 1);
  }
}

ActionChoice::Case ActionChoice::ParseCase(std::string_view key, std::string_view text) {
  static constexpr std::array<std::pair<std::string_view, Operator>, 7> kOperators{{{">=", Operator::kGreaterOrEqual},
                                                                                    {"<=", Operator::kLessOrEqual},
                                                                                    {"==", Operator::kEqual},
                                                                                    {"!=", Operator::kNotEqual},
                                                                                    {">", Operator::kGreater},
                                                                                    {"<", Operator::kLess},
                                                                                    {"=", Operator::kEqual}}};
  const std::size_t equals = text.rfind('=');
  if (equals == 0 || equals == std::string_view::npos) {
    throw std::invalid_argument(fmt::format("\"{}\" is not a case such as >=75=block or high=inform", text));
  }
  Case result;
  result.key = key;
  result.action = text.substr(equals + 1);
  RequireAction(result.action);
  std::string_view operand = text.substr(0, equals);
  for (const auto& [symbol, comparison] : kOperators) {
    if (operand.starts_with(symbol)) {
      result.comparison = comparison;
      operand.remove_prefix(symbol.size());
      break;
    }
  }
  result.operand = operand;
  if (result.comparison != Operator::kEqual && result.comparison != Operator::kNotEqual) {
    const std::optional<std::int64_t> number = Integer(operand);
    if (!number) {
      throw std::invalid_argument(fmt::format("\"{}\" in the case \"{}\" is not an integer", operand, text));
    }
    result.number = *number;
  }
  return result;
}

bool ActionChoice::Holds(const Case& one, const yara_source::MetaValue& value) {
  if (one.comparison == Operator::kEqual || one.comparison == Operator::kNotEqual) {
    return (MetaText(value) == one.operand) == (one.comparison == Operator::kEqual);
  }
  // Some sets write their numbers as text.
  const auto* const text = std::get_if<std::string>(&value);
  const auto* const integer = std::get_if<std::int64_t>(&value);
  const std::optional<std::int64_t> number = integer != nullptr ? *integer
                                             : text != nullptr  ? Integer(*text)
                                                                : std::nullopt;
  if (!number) {
    return false;
  }
  switch (one.comparison) {
    case Operator::kLess:
      return *number < one.number;
    case Operator::kLessOrEqual:
      return *number <= one.number;
    case Operator::kGreater:
      return *number > one.number;
    default:
      return *number >= one.number;
  }
}

const std::string& ActionChoice::For(const yara_source::RuleText& rule) const {
  for (const Case& one : cases_) {
    const yara_source::MetaItem* const item = FindMeta(rule, one.key);
    if (item != nullptr && Holds(one, item->value)) {
      return one.action;
    }
  }
  return default_action_;
}

}  // namespace vond::vondctl
