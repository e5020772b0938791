#include "vondctl/policy_options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <thread>
#include <utility>

namespace vond::vondctl {
namespace {

using static_pattern_matching_proto::RuleType;

// One value per option, so that what stands behind it stays a path.
CLI::Option* AddList(CLI::App& app, const char* names, std::vector<std::string>& values, const char* description) {
  return app.add_option(names, values, description)->allow_extra_args(false);
}

}  // namespace

void AddPolicyOptions(CLI::App& app, PolicyOptions& options) {
  auto* const rules = AddList(app, "-r,--rules", options.rules,
                              "Block rules: a rule file, or a folder of *.yar and *.yara files; may be repeated");
  auto* const policy =
      app.add_option("-p,--policy", options.policy, "Policy file: the daemon's JSON with a \"path\" per rule set");
  policy->type_name("FILE")->group("Policy");
  const auto add_for_rules = [policy](CLI::Option* option, const char* type) {
    policy->excludes(option);
    option->group("Policy")->type_name(type);
  };
  add_for_rules(rules, "FILE|DIR");
  add_for_rules(AddList(app, "--allow-rules", options.allow_rules, "Allow rules, likewise"), "FILE|DIR");
  add_for_rules(app.add_option("-j,--jobs", options.workers,
                               "Files scanned at once with --rules (default and most: one per processor)")
                    ->check(CLI::Validator(CheckPositive, "", "")),
                "N");
  add_for_rules(app.add_option("--timeout", options.timeout_in_seconds,
                               "Seconds per scan with --rules (default 30, 0 is no limit); a policy file has its own"),
                "SECONDS");
  add_for_rules(app.add_option("--confirm", options.retries_on_match,
                               "With --rules: a match counts once N more scans of the file have matched (default 0)"),
                "N");
}

void RequirePolicy(const PolicyOptions& options) {
  if (options.rules.empty() && options.allow_rules.empty() && options.policy.empty()) {
    throw CLI::RequiredError("--rules or --policy");
  }
}

std::string CheckPositive(const std::string& text) {
  return text.find_first_not_of('0') == std::string::npos ? "0 is too small" : "";
}

std::uint32_t Processors() { return std::max(std::thread::hardware_concurrency(), 1U); }

PolicySource MakePolicy(const PolicyOptions& options) {
  if (!options.policy.empty()) {
    return PolicyFromFile(options.policy);
  }
  PolicySource policy;
  const auto add = [&](const std::vector<std::string>& rules, RuleType rule_type) {
    if (rules.empty()) {
      return;
    }
    PolicySource part = PolicyFromRules(rules, options.timeout_in_seconds);
    auto* const info = policy.document.add_rule_sets();
    info->set_rule_type(rule_type);
    info->set_fd_index(static_cast<std::int32_t>(policy.rule_set_fds.size()));
    policy.rule_sets.push_back(std::move(part.rule_sets.front()));
    policy.rule_sets.back().rule_type = rule_type;
    policy.rule_set_fds.push_back(std::move(part.rule_set_fds.front()));
  };
  add(options.rules, static_pattern_matching_proto::Block);
  add(options.allow_rules, static_pattern_matching_proto::Allow);
  policy.document.set_yara_timeout_in_seconds(options.timeout_in_seconds);
  policy.document.set_yara_retries_on_match(options.retries_on_match);
  policy.document.set_max_number_of_threads(options.workers == 0 ? Processors() : options.workers);
  return policy;
}

}  // namespace vond::vondctl
