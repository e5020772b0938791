#include "vondctl/scan_command.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <future>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include "agent/client.h"
#include "utils/assertion.h"
#include "utils/log.h"
#include "vondctl/daemon_options.h"
#include "vondctl/exit_status.h"
#include "vondctl/file_walker.h"
#include "vondctl/interrupt.h"
#include "vondctl/policy_explainer.h"
#include "vondctl/policy_source.h"
#include "vondctl/report.h"
#include "vondctl/scan_options.h"
#include "vondctl/scanner.h"
#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

using static_pattern_matching_proto::RuleType;
using static_pattern_matching_proto::ScanRequest;
using std::chrono::seconds;

constexpr std::uint32_t kDefaultWorkers = 4;  // the daemon's, where the policy has no number
constexpr seconds kPolicyDeadline{600};

void Complain(const std::string& text) { std::cerr << "vondctl: " << EscapeForTerminal(text) << '\n'; }

std::uint32_t Processors() { return std::max(std::thread::hardware_concurrency(), 1U); }

PolicySource MakePolicy(const ScanOptions& options) {
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

// The rule types that are asked for, each once; all that the policy has for the file type if none is named. Without one
// of them, complains and returns nothing.
std::optional<ScanRequest> MakeRequest(const PolicySource& policy, const ScanOptions& options) {
  std::set<int> available;
  for (const auto& info : policy.document.rule_sets()) {
    if (info.file_type() == options.file_type) {
      available.insert(info.rule_type());
    }
  }
  if (available.empty()) {
    Complain(fmt::format("the policy has no rules for file type {}", options.file_type));
    return std::nullopt;
  }
  std::set<int> wanted;
  for (const std::string& name : options.rule_types) {
    const int rule_type = name == "allow" ? static_pattern_matching_proto::Allow : static_pattern_matching_proto::Block;
    if (!available.contains(rule_type)) {
      Complain(fmt::format("the policy has no {} rules for file type {}", name, options.file_type));
      return std::nullopt;
    }
    wanted.insert(rule_type);
  }
  ScanRequest request;
  request.set_file_type(options.file_type);
  for (const int rule_type : wanted.empty() ? available : wanted) {
    request.add_rule_type(static_cast<RuleType>(rule_type));
  }
  return request;
}

// Sends the policy; on success returns what it holds, otherwise complains and returns the exit status.
std::optional<int> InstallPolicy(agent::Client& client, const PolicySource& policy, std::uint32_t log_level,
                                 PolicyJudgement& judgement, const CommonOptions& common) {
  auto judged = std::async(std::launch::async, JudgePolicy, std::cref(policy));
  try {
    client.ApplyPolicy(policy.ForAgent(log_level), kPolicyDeadline);
    judgement = judged.get();
    return std::nullopt;
  } catch (const agent::Error& e) {
    judgement = judged.get();
    const bool about_policy = e.Code() == agent::ErrorCode::kPolicyRefused ||
                              e.Code() == agent::ErrorCode::kPacketTooLarge ||
                              e.Code() == agent::ErrorCode::kTooManyDescriptors;
    if (e.Code() != agent::ErrorCode::kPolicyRefused || judgement.problems.empty()) {
      Complain(e.what());
    } else {
      WriteRefusal(judgement.problems, CountRuleFiles(policy), common);
    }
    return about_policy ? kPolicyRefused : kDaemonFailed;
  }
}

// When a signal is about to end this process: no zombie is left to whoever started it.
void EndDaemon(agent::Client& client) {
  client.Process().Kill(SIGKILL);
  static_cast<void>(client.Process().Wait(seconds(1)));
}

ScannerSettings MakeSettings(const PolicySource& policy, ScanRequest request, const ScanOptions& options) {
  ScannerSettings settings;
  const std::uint32_t threads = policy.document.max_number_of_threads();
  settings.workers = std::min(Processors(), threads == 0 ? kDefaultWorkers : threads);
  settings.timeout_in_seconds = policy.document.yara_timeout_in_seconds();
  settings.deadline = options.deadline_in_seconds != 0 ? seconds(options.deadline_in_seconds)
                                                       : DefaultDeadline(policy.document, request.rule_type_size());
  settings.max_errors = options.max_errors;
  settings.private_rules = options.private_rules;
  settings.request = std::move(request);
  return settings;
}

FileWalker MakeWalker(const ScanOptions& options, const PolicySource& policy, bool only_look) {
  WalkOptions walk;
  walk.max_depth = options.max_depth;
  walk.include = options.include;
  walk.exclude = options.exclude;
  walk.one_file_system = options.one_file_system;
  walk.follow = options.follow;
  walk.only_look = only_look;
  const std::uint64_t max_sample_size = policy.document.max_sample_size();
  const bool by_policy = max_sample_size != 0 && (options.max_size == 0 || max_sample_size < options.max_size);
  walk.max_size = by_policy ? max_sample_size : options.max_size;
  walk.max_size_name = by_policy ? "the policy's max_sample_size" : "--max-size";
  std::optional<PathList> list;
  if (!options.files_from.empty()) {
    list.emplace(options.files_from, options.zero_terminated ? '\0' : '\n');
  }
  return {options.paths, std::move(list), std::move(walk)};
}

// Whether the list of paths, if there is one, can be read a second time.
bool IsCountable(const ScanOptions& options) {
  struct stat status {};
  return options.files_from.empty() ||
         (options.files_from != "-" && ::stat(options.files_from.c_str(), &status) == 0 && S_ISREG(status.st_mode));
}

int ExitStatusFor(RunEnd end, const Reporter& reporter) {
  if (end == RunEnd::kInterrupted) {
    return InterruptStatus();
  }
  if (end == RunEnd::kDaemonFailed) {
    return kDaemonFailed;
  }
  if (end != RunEnd::kComplete || reporter.AnyNotScanned()) {
    return kNotScanned;
  }
  return reporter.AnyMatched() ? kMatched : kClean;
}

int ScanFiles(const ScanOptions& options, const CommonOptions& common, const PolicySource& policy,
              ScanRequest request) {
  Reporter reporter({common.format, options.all, common.quiet, common.verbosity == 0, options.count, options.meta,
                     options.tags, UseColor(common.color, STDOUT_FILENO), options.report});
  FileWalker walker = MakeWalker(options, policy, false);
  RaiseDescriptorLimit();
  SandboxChoice sandbox = options.sandbox;
  sandbox.magic = ImportsMagic(policy);
  const agent::DaemonOptions daemon = DaemonOptionsFor(options.executable, common, sandbox);
  auto client = std::make_unique<agent::Client>(daemon);
  PolicyJudgement judgement;
  {
    const AtInterrupt end_daemon([&client] { EndDaemon(*client); });
    if (const auto status = InstallPolicy(*client, policy, DaemonLogLevel(common), judgement, common)) {
      return *status;
    }
  }
  const auto start_daemon = [&] {
    auto another = std::make_unique<agent::Client>(daemon);
    const AtInterrupt end_daemon([&another] { EndDaemon(*another); });
    another->ApplyPolicy(policy.ForAgent(DaemonLogLevel(common)), kPolicyDeadline);
    return another;
  };
  Scanner scanner(std::move(client), start_daemon, MakeSettings(policy, std::move(request), options), reporter);
  std::optional<TotalCounter> total;
  if (reporter.ShowsProgress() && IsCountable(options)) {
    total.emplace(MakeWalker(options, policy, true));
    reporter.UseTotal(&*total);
  }
  reporter.Policy(judgement.rule_sets);
  RunSummary summary = scanner.Run(walker);
  summary.exit_status = ExitStatusFor(summary.end, reporter);
  if (!reporter.Summary(summary)) {
    return std::max(summary.exit_status, static_cast<int>(kNotScanned));
  }
  return summary.exit_status;
}

int RunScan(const ScanOptions& options, const CommonOptions& common) {
  // The policy is also judged in this process, by the daemon's code; results go where that would log.
  korvo::utils::SetLogLevel(0);
  korvo::utils::EnableAssertionLines(false);
  try {
    const PolicySource policy = MakePolicy(options);
    std::optional<ScanRequest> request = MakeRequest(policy, options);
    return request ? ScanFiles(options, common, policy, std::move(*request)) : static_cast<int>(kUsage);
  } catch (const PolicyError& e) {
    WriteRefusal(e.Problems(), 0, common);
    return kPolicyRefused;
  } catch (const agent::Error& e) {
    Complain(e.what());
    return kDaemonFailed;
  } catch (const std::system_error& e) {  // the report or the list of paths
    Complain(e.what());
    return kNotScanned;
  }
}

}  // namespace

VerbRun AddScanCommand(CLI::App& app, const CommonOptions& common) {
  return [options = AddScanOptions(app), &common] { return RunScan(*options, common); };
}

}  // namespace vond::vondctl
