#include "vondctl/scan_command.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <future>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <system_error>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include "agent/client.h"
#include "agent/held_policy.h"
#include "agent/relay_protocol.h"
#include "utils/assertion.h"
#include "utils/log.h"
#include "vondctl/announcer.h"
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

constexpr seconds kPolicyDeadline{600};
constexpr seconds kStatusTimeout{30};
constexpr seconds kRelayDeadline{3600};  // others' files come in between, and the relay sees to a daemon that hangs
constexpr seconds kWindUp{4};            // after a signal; what OnEnd may take besides fits into kInterruptPatience

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
  settings.workers = agent::WorkerCount(policy.document);
  settings.timeout_in_seconds = policy.document.yara_timeout_in_seconds();
  const seconds deadline =
      options.connect.empty() ? DefaultDeadline(policy.document, request.rule_type_size()) : kRelayDeadline;
  settings.deadline = options.deadline_in_seconds != 0 ? seconds(options.deadline_in_seconds) : deadline;
  settings.max_errors = options.max_errors;
  settings.private_rules = options.private_rules;
  settings.request = std::move(request);
  return settings;
}

WalkOptions MakeWalkOptions(const ScanOptions& options, const PolicySource& policy) {
  WalkOptions walk;
  walk.max_depth = options.max_depth;
  walk.include = options.include;
  walk.exclude = options.exclude;
  walk.one_file_system = options.one_file_system;
  walk.follow = options.follow;
  const std::uint64_t max_sample_size = policy.document.max_sample_size();
  const bool by_policy = max_sample_size != 0 && (options.max_size == 0 || max_sample_size < options.max_size);
  walk.max_size = by_policy ? max_sample_size : options.max_size;
  walk.max_size_name = by_policy ? "the policy's max_sample_size" : "--max-size";
  return walk;
}

FileWalker MakeWalker(const ScanOptions& options, const PolicySource& policy, bool only_look) {
  WalkOptions walk = MakeWalkOptions(options, policy);
  walk.only_look = only_look;
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

int ExitStatusFor(const RunSummary& summary, const Reporter& reporter) {
  const RunEnd end = summary.end;
  if (end == RunEnd::kInterrupted) {
    return InterruptStatus();
  }
  if (end == RunEnd::kDaemonFailed) {
    return kDaemonFailed;
  }
  const bool any_lost = summary.watch && summary.watch->lost > 0;
  if (end != RunEnd::kComplete || reporter.AnyNotScanned() || any_lost) {
    return kNotScanned;
  }
  return reporter.AnyMatched() ? kMatched : kClean;
}

// Where a run gets its daemons from.
struct DaemonSource {
  std::unique_ptr<agent::Client> first;  // with the policy in force
  Scanner::StartDaemon another;
  std::vector<RuleSetCount> rule_sets;
};

// Daemons of our own; an exit status, once it has been said why, when there is none or it does not take the policy.
std::variant<DaemonSource, int> StartDaemons(const ScanOptions& options, const CommonOptions& common,
                                             const PolicySource& policy) {
  SandboxChoice sandbox = options.sandbox;
  sandbox.magic = ImportsMagic(policy);
  const agent::DaemonOptions daemon = DaemonOptionsFor(options.executable, common, sandbox);
  DaemonSource source;
  source.first = std::make_unique<agent::Client>(daemon);
  PolicyJudgement judgement;
  {
    const AtInterrupt end_daemon([&source] { EndDaemon(*source.first); });
    if (const auto status = InstallPolicy(*source.first, policy, DaemonLogLevel(common), judgement, common)) {
      return *status;
    }
  }
  source.rule_sets = std::move(judgement.rule_sets);
  source.another = [daemon, &policy, &common] {
    auto another = std::make_unique<agent::Client>(daemon);
    const AtInterrupt end_daemon([&another] { EndDaemon(*another); });
    another->ApplyPolicy(policy.ForAgent(DaemonLogLevel(common)), kPolicyDeadline);
    return another;
  };
  return source;
}

DaemonSource ConnectDaemon(const std::string& socket, const vond_relay::Policy& policy) {
  DaemonSource source;
  source.another = [socket] { return std::make_unique<agent::Client>(agent::ConnectToRelay(socket)); };
  source.first = source.another();
  for (const vond_relay::RuleSet& rule_set : policy.rule_sets()) {
    if (rule_set.has_rules()) {
      source.rule_sets.push_back({rule_set.file_type(), static_cast<RuleType>(rule_set.rule_type()), rule_set.rules()});
    }
  }
  return source;
}

// A relay's policy, as far as a scan needs it.
PolicySource PolicyBehind(const vond_relay::Policy& policy) {
  PolicySource source;
  for (const vond_relay::RuleSet& rule_set : policy.rule_sets()) {
    auto* const info = source.document.add_rule_sets();
    info->set_file_type(rule_set.file_type());
    info->set_rule_type(static_cast<RuleType>(rule_set.rule_type()));
  }
  source.document.set_max_sample_size(policy.max_sample_size());
  source.document.set_max_number_of_threads(policy.max_number_of_threads());
  source.document.set_yara_timeout_in_seconds(policy.yara_timeout_in_seconds());
  source.document.set_yara_retries_on_match(policy.yara_retries_on_match());
  return source;
}

// `relay`: the policy behind the relay that is asked for, if one is.
int ScanFiles(const ScanOptions& options, const CommonOptions& common, const PolicySource& policy, ScanRequest request,
              const vond_relay::Policy* relay, const MakeLiveSource& make_live) {
  std::unique_ptr<FileSource> files;
  LiveSource* live = nullptr;
  const auto on_match = [&live](const std::string& json_line) { live->OnMatch(json_line); };
  Reporter reporter({common.format, options.all, common.quiet, common.verbosity == 0 && !make_live, options.count,
                     options.meta, options.tags, UseColor(common.color, STDOUT_FILENO), options.report,
                     static_cast<bool>(make_live),
                     make_live ? std::function<void(const std::string&)>(on_match) : nullptr});
  if (make_live) {
    auto made = make_live(MakeWalkOptions(options, policy));
    live = made.get();
    files = std::move(made);
  } else {
    files = std::make_unique<FileWalker>(MakeWalker(options, policy, false));
  }
  RaiseDescriptorLimit();
  std::variant<DaemonSource, int> daemons =
      relay != nullptr ? ConnectDaemon(options.connect, *relay) : StartDaemons(options, common, policy);
  if (const int* const status = std::get_if<int>(&daemons)) {
    return *status;
  }
  auto& source = std::get<DaemonSource>(daemons);
  ScannerSettings settings = MakeSettings(policy, std::move(request), options);
  settings.wind_up = live != nullptr ? kWindUp : seconds(0);
  Scanner scanner(std::move(source.first), std::move(source.another), std::move(settings), reporter);
  std::optional<TotalCounter> total;
  if (reporter.ShowsProgress() && IsCountable(options)) {
    total.emplace(MakeWalker(options, policy, true));
    reporter.UseTotal(&*total);
  }
  reporter.Policy(source.rule_sets);
  RunSummary summary = scanner.Run(*files);
  if (live != nullptr) {
    live->OnEnd(summary);
    if (InterruptSignal() != 0 && summary.end == RunEnd::kComplete) {
      SettleInterrupt();
    }
  }
  summary.exit_status = ExitStatusFor(summary, reporter);
  if (!reporter.Summary(summary)) {
    return std::max(summary.exit_status, static_cast<int>(kNotScanned));
  }
  return summary.exit_status;
}

}  // namespace

int RunScan(const ScanOptions& options, const CommonOptions& common, const MakeLiveSource& make_live) {
  // The policy is also judged in this process, by the daemon's code; results go where that would log.
  korvo::utils::SetLogLevel(0);
  korvo::utils::EnableAssertionLines(false);
  try {
    std::optional<vond_relay::Policy> relay;
    if (!options.connect.empty()) {
      agent::Client client(agent::ConnectToRelay(options.connect));
      relay = agent::AskForStatus(client, kStatusTimeout).policy();
    }
    const PolicySource policy = relay ? PolicyBehind(*relay) : MakePolicy(options);
    std::optional<ScanRequest> request = MakeRequest(policy, options);
    return request ? ScanFiles(options, common, policy, std::move(*request), relay ? &*relay : nullptr, make_live)
                   : static_cast<int>(kUsage);
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

VerbRun AddScanCommand(CLI::App& app, const CommonOptions& common) {
  return [options = AddScanOptions(app), &common] { return RunScan(*options, common, {}); };
}

}  // namespace vond::vondctl
