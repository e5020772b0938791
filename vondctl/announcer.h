#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "vondctl/problem.h"
#include "vondctl/rule_merge.h"
#include "vondctl/verb.h"

namespace vond::vondctl {

/// Writes "vondctl: " and `text`, control characters escaped, to standard error.
void Complain(const std::string& text);

/// {"type":"decision","decision":"renamed","file":...,"line":...,"rule":...,"detail":...}
[[nodiscard]] nlohmann::ordered_json DecisionJson(const RuleDecision& decision);

/// Says what a verb finds and does on its way: in text on standard error, in JSON Lines on standard output.
class Announcer {
 public:
  explicit Announcer(const CommonOptions& common);

  void Say(const Problem& problem) const;
  void Say(const RuleDecision& decision) const;

 private:
  const bool json_;
  const bool color_;
};

}  // namespace vond::vondctl
