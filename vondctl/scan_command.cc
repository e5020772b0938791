#include "vondctl/scan_command.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <deque>
#include <filesystem>
#include <future>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include "agent/client.h"
#include "utils/assertion.h"
#include "utils/log.h"
#include "utils/mutex.h"
#include "vondctl/exit_status.h"
#include "vondctl/file_walker.h"
#include "vondctl/policy_explainer.h"
#include "vondctl/policy_source.h"
#include "vondctl/report.h"
#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

constexpr const char* kScanFooter =
    "Examples:\n"
    "  vondctl scan --rules rules/ /usr/bin\n"
    "  vondctl scan --policy policy.json --format jsonl /srv > results.jsonl\n"
    "\n"
    "Exit status: 0 nothing matched, 1 something matched, 2 something was not scanned (whatever\n"
    "matched), 3 the policy was refused, 4 the daemon failed, 64 wrong usage.\n";

using korvo::utils::CondVar;
using korvo::utils::Mutex;
using korvo::utils::MutexLock;
using static_pattern_matching_proto::ScanRequest;
using static_pattern_matching_proto::ScanResponse;
using std::chrono::seconds;

// Enough to keep every worker busy while answers travel.
constexpr std::size_t kWindow = 16;
constexpr std::uint32_t kDefaultWorkers = 4;
constexpr seconds kPolicyDeadline{600};
// On top of what the time-outs add up to: the daemon's engine looks at its clock only now and then.
constexpr seconds kDeadlineSlack{60};
// Where the policy sets no time-out at all.
constexpr seconds kNoTimeoutDeadline{3600};

// libyara's results that a file can provoke.
constexpr int kCouldNotMapFile = 4;
constexpr int kScanTimeout = 26;
constexpr int kTooManyMatches = 30;
constexpr int kTooManyFibers = 46;

// What `vondctl scan` was asked for.
struct ScanArguments {
  std::vector<std::string> rules;  // rule files and folders; or else
  std::string policy;              // a policy file
  std::vector<std::string> paths;  // what to scan
  std::int32_t file_type = 0;
  std::uint32_t timeout_in_seconds = 30;  // for `rules`; a policy file has its own
  std::string executable;                 // of vond; empty: the one that belongs to this vondctl
  bool all = false;                       // report clean files too
};

std::string EngineErrorText(int code, std::uint32_t timeout_in_seconds) {
  switch (code) {
    case kCouldNotMapFile:
      return "the file could not be read, or was cut short while it was scanned";
    case kScanTimeout:
      return fmt::format("the scan took longer than {} s", timeout_in_seconds);
    case kTooManyMatches:
      return "a string of the rules occurs too often in it";
    case kTooManyFibers:
      return "a regular expression of the rules branches too often on it";
    default:
      return fmt::format("the engine failed with error {}", code);
  }
}

// A file whose scan has ended.
struct Finished {
  WalkedFile file;
  agent::ScanAnswer answer;
};

// Brings finished scans from the client's thread to the one that reports.
class FinishedQueue {
 public:
  void Push(Finished finished) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    queue_.push_back(std::move(finished));
    condition_.NotifyOne();
  }
  // Waits for the next one.
  Finished Pop() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    while (queue_.empty()) {
      condition_.Wait(mutex_);
    }
    Finished finished = std::move(queue_.front());
    queue_.pop_front();
    return finished;
  }

 private:
  Mutex mutex_;
  CondVar condition_;
  std::deque<Finished> queue_ GUARDED_BY(mutex_);
};

class Scan {
 public:
  Scan(agent::Client& client, const PolicySource& policy, const ScanRequest& request, Reporter& reporter)
      : client_(client), document_(policy.document), request_(request), reporter_(reporter) {}

  // Scans everything that `walker` finds. False when the daemon has failed.
  bool Run(FileWalker& walker) {
    while (!daemon_failed_) {
      std::optional<WalkedFile> file = walker.Next();
      if (!file) {
        break;
      }
      if (file->state == WalkedFile::State::kOpen) {
        Start(std::move(*file));
      } else {
        ReportUnopened(*file);
      }
    }
    while (in_flight_ > 0) {
      Finish();
    }
    return !daemon_failed_;
  }

 private:
  // How long an answer may take: every request of the window may be ahead of it, each running to its time-out.
  [[nodiscard]] seconds Deadline() const {
    const std::uint64_t timeout = document_.yara_timeout_in_seconds();
    if (timeout == 0) {
      return kNoTimeoutDeadline;
    }
    const auto scans =
        static_cast<std::uint64_t>(request_.rule_type_size()) * (std::uint64_t{document_.yara_retries_on_match()} + 1);
    const std::uint64_t ceiling =
        document_.max_number_of_threads() == 0 ? kDefaultWorkers : document_.max_number_of_threads();
    const std::uint64_t workers = std::clamp<std::uint64_t>(std::thread::hardware_concurrency(), 1, ceiling);
    const std::uint64_t rounds = kWindow / workers + 1;
    constexpr std::uint64_t kLongest{2'592'000};  // thirty days
    return seconds(std::min(rounds * std::min(timeout * scans, kLongest), kLongest)) + kDeadlineSlack;
  }

  void Start(WalkedFile file) {
    if (in_flight_ == kWindow) {
      Finish();
    }
    ++in_flight_;
    const auto deadline = std::chrono::steady_clock::now() + Deadline();
    const int fd = file.fd.Get();
    // Shared, since a callback must be copyable.
    const auto shared = std::make_shared<WalkedFile>(std::move(file));
    client_.ScanAsync(fd, request_, deadline, [this, shared](agent::ScanAnswer answer) {
      finished_.Push({std::move(*shared), std::move(answer)});
    });
  }

  void Finish() {
    const Finished finished = finished_.Pop();
    --in_flight_;
    reporter_.File(Judge(finished));
  }

  void ReportUnopened(const WalkedFile& file) {
    FileReport report;
    report.path = file.path;
    report.outcome = file.state == WalkedFile::State::kSkipped ? Outcome::kSkipped : Outcome::kError;
    report.error = file.reason;
    reporter_.File(report);
  }

  FileReport Judge(const Finished& finished) {
    FileReport report;
    report.path = finished.file.path;
    report.size = static_cast<std::uint64_t>(finished.file.status.st_size);
    if (finished.answer.error) {
      JudgeError(*finished.answer.error, report);
    } else {
      JudgeResponse(finished.answer.response, report);
    }
    if (report.outcome == Outcome::kClean && HasChanged(finished.file)) {
      report.outcome = Outcome::kChanged;
      report.error = "the file changed while it was scanned";
    }
    return report;
  }

  void JudgeError(const agent::Error& error, FileReport& report) {
    report.error = error.what();
    switch (error.Code()) {
      case agent::ErrorCode::kDeadlineExceeded:
        report.outcome = Outcome::kTimeout;
        break;
      case agent::ErrorCode::kFileTooLarge:
      case agent::ErrorCode::kNotRegularFile:
        report.outcome = Outcome::kSkipped;
        break;
      case agent::ErrorCode::kDaemonDied:
        daemon_failed_ = true;
        [[fallthrough]];
      default:
        report.outcome = Outcome::kError;
        break;
    }
  }

  // Any rule type without a result makes the file one that was not scanned, whatever the others found.
  void JudgeResponse(const ScanResponse& response, FileReport& report) {
    if (response.status() != static_pattern_matching_proto::ResponseStatus_Success) {
      report.outcome = Outcome::kError;
      report.error = fmt::format("vond answered with status {}", static_cast<int>(response.status()));
      return;
    }
    for (const int rule_type : request_.rule_type()) {
      const auto entry = response.results().find(rule_type);
      if (entry == response.results().end() ||
          entry->second.status() != static_pattern_matching_proto::ScanStatus_Success) {
        report.outcome = Outcome::kError;
        report.error = "vond could not scan it; its log says why";
        continue;
      }
      const yara_lib::YaraScanResult& result = entry->second.result();
      if (result.error() != 0) {
        report.outcome = result.error() == kScanTimeout ? Outcome::kTimeout : Outcome::kError;
        report.engine_error = result.error();
        report.error = EngineErrorText(result.error(), document_.yara_timeout_in_seconds());
      }
      for (const auto& rule : result.matched_rules()) {
        report.matches.push_back({rule_type, rule});
      }
    }
    if (report.outcome == Outcome::kClean && !report.matches.empty()) {
      report.outcome = Outcome::kMatch;
    }
  }

  static bool HasChanged(const WalkedFile& file) {
    struct stat now {};
    return ::fstat(file.fd.Get(), &now) != 0 || now.st_size != file.status.st_size ||
           now.st_mtim.tv_sec != file.status.st_mtim.tv_sec || now.st_mtim.tv_nsec != file.status.st_mtim.tv_nsec;
  }

  agent::Client& client_;
  const static_pattern_matching_proto::UserConfigData& document_;
  const ScanRequest& request_;
  Reporter& reporter_;
  FinishedQueue finished_;
  std::size_t in_flight_ = 0;
  bool daemon_failed_ = false;
};

// vond beside this program, or where installation puts it.
std::string FindVond() {
  namespace fs = std::filesystem;
  std::error_code error;
  const fs::path folder = fs::read_symlink("/proc/self/exe", error).parent_path();
  const fs::path installed = folder / ".." / "libexec" / "vond" / "vond";
  return fs::exists(folder / "vond", error) || !fs::exists(installed, error) ? folder / "vond" : installed;
}

// All rule types that the policy has for the file type, each once.
ScanRequest RequestFor(const PolicySource& policy, std::int32_t file_type) {
  std::set<int> rule_types;
  for (const auto& info : policy.document.rule_sets()) {
    if (info.file_type() == file_type) {
      rule_types.insert(info.rule_type());
    }
  }
  ScanRequest request;
  request.set_file_type(file_type);
  for (const int rule_type : rule_types) {
    request.add_rule_type(static_cast<static_pattern_matching_proto::RuleType>(rule_type));
  }
  return request;
}

void Complain(const std::string& text) { std::cerr << "vondctl: " << EscapeForTerminal(text) << '\n'; }

// Sends the policy; on success returns what it holds, otherwise complains and returns the exit status.
std::optional<int> InstallPolicy(agent::Client& client, const PolicySource& policy, std::uint32_t log_level,
                                 PolicyJudgement& judgement) {
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
      Complain("the policy was refused:");
      for (const std::string& problem : judgement.problems) {
        std::cerr << EscapeForTerminal(problem) << '\n';
      }
    }
    return about_policy ? kPolicyRefused : kDaemonFailed;
  }
}

int RunScan(const ScanArguments& arguments, const CommonOptions& common) {
  // The policy is also judged in this process, by the daemon's code; results go where that would log.
  korvo::utils::SetLogLevel(0);
  korvo::utils::EnableAssertionLines(false);
  try {
    const PolicySource policy = arguments.policy.empty()
                                    ? PolicyFromRules(arguments.rules, arguments.timeout_in_seconds)
                                    : PolicyFromFile(arguments.policy);
    const ScanRequest request = RequestFor(policy, arguments.file_type);
    if (request.rule_type().empty()) {
      Complain(fmt::format("the policy has no rules for file type {}", arguments.file_type));
      return kUsage;
    }

    agent::DaemonOptions options;
    options.executable = arguments.executable.empty() ? FindVond() : arguments.executable;
    if (common.verbosity > 0) {
      options.on_output = [](agent::OutputStream, const std::string& line) {
        std::cerr << fmt::format("vond: {}\n", EscapeForTerminal(line));
      };
    }
    agent::Client client(std::move(options));
    PolicyJudgement judgement;
    const std::uint32_t log_level = common.verbosity == 0 ? 3 : 5 + static_cast<std::uint32_t>(common.verbosity);
    if (const auto status = InstallPolicy(client, policy, log_level, judgement)) {
      return *status;
    }

    Reporter reporter({common.format, arguments.all, common.quiet});
    reporter.Policy(judgement.rule_sets);
    FileWalker walker(arguments.paths);
    Scan scan(client, policy, request, reporter);
    const bool daemon_lived = scan.Run(walker);
    int status = kClean;
    if (!daemon_lived) {
      Complain("vond failed; what is not listed above was not scanned");
      status = kDaemonFailed;
    } else if (reporter.AnyNotScanned()) {
      status = kNotScanned;
    } else if (reporter.AnyMatched()) {
      status = kMatched;
    }
    if (!reporter.Summary(status)) {
      Complain("the results could not be written");
      return std::max(status, static_cast<int>(kNotScanned));
    }
    return status;
  } catch (const PolicyError& e) {
    Complain(e.what());
    return kPolicyRefused;
  } catch (const agent::Error& e) {
    Complain(e.what());
    return kDaemonFailed;
  }
}

void AddScanOptions(CLI::App& scan, ScanArguments& arguments) {
  // One value per option, so that the paths behind it stay paths.
  auto* const rules =
      scan.add_option("-r,--rules", arguments.rules, "Rule file, or folder of *.yar and *.yara files; may be repeated");
  rules->allow_extra_args(false)->type_name("FILE|DIR");
  auto* const policy =
      scan.add_option("-p,--policy", arguments.policy, "Policy file: the daemon's JSON with a \"path\" per rule set");
  policy->type_name("FILE")->excludes(rules);
  scan.add_flag("--all", arguments.all, "Report clean files too");
  scan.add_option("--file-type", arguments.file_type, "File type whose rule sets are used (default 0)");
  scan.add_option("--timeout", arguments.timeout_in_seconds,
                  "Seconds per scan with --rules (default 30, 0 is no limit); a policy file has its own")
      ->excludes(policy);
  scan.add_option("--vond", arguments.executable, "Path of the daemon's program")->type_name("FILE");
  scan.add_option("PATH", arguments.paths, "Files and folders to scan")->required()->type_name("");
  scan.footer(kScanFooter);
}

}  // namespace

VerbRun AddScanCommand(CLI::App& app, const CommonOptions& common) {
  const auto arguments = std::make_shared<ScanArguments>();
  AddScanOptions(app, *arguments);
  return [arguments, &common] {
    if (arguments->rules.empty() && arguments->policy.empty()) {
      Complain("--rules or --policy is required");
      return static_cast<int>(kUsage);
    }
    return RunScan(*arguments, common);
  };
}

}  // namespace vond::vondctl
