#include "vondctl/scanner.h"

#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <thread>
#include <utility>

#include "vondctl/engine_errors.h"
#include "vondctl/interrupt.h"
#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

using korvo::utils::MutexLock;
using static_pattern_matching_proto::ScanResponse;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// Enough to keep each worker busy while answers travel.
constexpr std::size_t kWindowPerWorker = 8;
// Of a process, apart from the files with the daemon: streams, channel, pipes, folders, and what libraries open.
constexpr std::size_t kOtherDescriptors = 24;
constexpr milliseconds kTick{100};
constexpr milliseconds kShortWait{20};  // for a descriptor or another path
constexpr int kMaxDeathsInARow = 20;
constexpr milliseconds kLogLag{200};  // of a log line behind the answer that it belongs to
constexpr const char* kScanErrorLine = "ERROR ScanFile failed with error: ";

std::size_t WindowFor(std::size_t workers) {
  const std::size_t limit = RaiseDescriptorLimit();
  const std::size_t room = limit > kOtherDescriptors ? limit - kOtherDescriptors : 1;
  return std::min({workers * kWindowPerWorker, agent::kMaxInFlight, room});
}

bool HasChanged(const WalkedFile& file) {
  struct stat now {};
  const auto differ = [](const timespec& a, const timespec& b) {
    return a.tv_sec != b.tv_sec || a.tv_nsec != b.tv_nsec;
  };
  // The change time too: it moves even where somebody puts the others back.
  return ::fstat(file.fd.Get(), &now) != 0 || now.st_size != file.status.st_size ||
         differ(now.st_mtim, file.status.st_mtim) || differ(now.st_ctim, file.status.st_ctim);
}

}  // namespace

std::size_t RaiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return kOtherDescriptors + 1;
  }
  constexpr rlim_t kEnough = 1024;
  if (limit.rlim_cur < kEnough && limit.rlim_cur < limit.rlim_max) {
    const rlim_t before = std::exchange(limit.rlim_cur, std::min(kEnough, limit.rlim_max));
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
      limit.rlim_cur = before;
    }
  }
  return static_cast<std::size_t>(limit.rlim_cur);
}

void Scanner::FinishedQueue::Push(Finished finished) {
  const MutexLock lock(mutex_);
  queue_.push_back(std::move(finished));
  condition_.notify_one();
}

void Scanner::FinishedQueue::Wake() {
  const MutexLock lock(mutex_);
  awake_ = true;
  condition_.notify_one();
}

std::vector<Scanner::Finished> Scanner::FinishedQueue::Take(milliseconds timeout) {
  const auto until = steady_clock::now() + timeout;
  const MutexLock lock(mutex_);
  while (queue_.empty() && !awake_ && timeout.count() > 0 && steady_clock::now() < until) {
    condition_.wait_until(mutex_, until);
  }
  awake_ = false;
  return std::exchange(queue_, {});
}

Scanner::Scanner(std::unique_ptr<agent::Client> client, StartDaemon start_daemon, ScannerSettings settings,
                 Reporter& reporter)
    : start_daemon_(std::move(start_daemon)),
      settings_(std::move(settings)),
      reporter_(reporter),
      window_(WindowFor(settings_.workers)),
      client_(std::move(client)) {}

Scanner::~Scanner() = default;

RunSummary Scanner::Run(FileSource& source) {
  const InterruptScope scope([this] { finished_.Wake(); });
  source.OnReady();
  while (!IsDone()) {
    if (const auto reason = ReasonToStop()) {
      summary_.end = *reason;
      break;
    }
    const milliseconds wait = Advance(source);
    for (Finished& finished : finished_.Take(wait)) {
      TakeUp(std::move(finished));
    }
    KillIfOverdue();
    if (!death_.empty() && in_flight_.empty() && !IsDone() && !Replace()) {
      summary_.end = RunEnd::kDaemonFailed;
      break;
    }
    source.Tick();
    reporter_.Tick(in_flight_.empty() ? nullptr : &in_flight_.begin()->second.file.path);
  }
  client_.reset();  // what is still with it ends unheard
  if (told_to_end_ && summary_.end == RunEnd::kInterrupted) {
    again_.merge(in_flight_);
    GiveUpOnRest("vondctl was told to end and could not wait for its scan");
  }
  summary_.left_out = source.LeftOut();
  return summary_;
}

std::optional<RunEnd> Scanner::ReasonToStop() {
  if (InterruptSignal() != 0 && !MayWindUp()) {
    return RunEnd::kInterrupted;
  }
  if (reporter_.HasFailed()) {
    return RunEnd::kOutputFailed;
  }
  if (settings_.max_errors != 0 && reporter_.Errors() >= settings_.max_errors) {
    return RunEnd::kMaxErrors;
  }
  return std::nullopt;
}

bool Scanner::MayWindUp() {
  if (settings_.wind_up.count() == 0 || InterruptSignal() == SIGPIPE) {
    return false;
  }
  const auto now = steady_clock::now();
  told_to_end_ = told_to_end_.value_or(now);
  return now < *told_to_end_ + settings_.wind_up;
}

milliseconds Scanner::Advance(FileSource& source) {
  if (!death_.empty()) {
    return kTick;  // the rest of what was with it comes back now
  }
  if (!again_.empty()) {
    if (!in_flight_.empty()) {
      return kTick;
    }
    auto next = again_.extract(again_.begin());
    Send(std::move(next.mapped().file), true);
    return kTick;
  }
  if (walk_ended_ || in_flight_.size() >= window_) {
    return kTick;
  }
  std::optional<WalkedFile> file = source.NextFile(in_flight_.empty());
  if (!file) {
    walk_ended_ = true;
    return milliseconds(0);
  }
  switch (file->state) {
    case WalkedFile::State::kOpen:
      Send(std::move(*file), false);
      break;
    case WalkedFile::State::kWait:
      return kShortWait;
    case WalkedFile::State::kSkipped:
    case WalkedFile::State::kFailed:
      ReportUnopened(*file);
      break;
  }
  return milliseconds(0);
}

void Scanner::Send(WalkedFile file, bool tried_before) {
  const int fd = file.fd.Get();
  const std::uint64_t id = next_id_++;
  in_flight_[id] = {std::move(file), tried_before, false, std::nullopt};
  BeginWaiting();
  // The deadlines are ours: they count from when a file's turn comes.
  const auto never = steady_clock::now() + std::chrono::hours(24 * 365);
  client_->ScanAsync(fd, settings_.request, never, [this, id](agent::ScanAnswer answer) {
    finished_.Push({id, std::move(answer)});
  });
}

void Scanner::BeginWaiting() {
  for (auto it = in_flight_.begin(); it != in_flight_.end() && begun_ < settings_.workers; ++it) {
    if (!it->second.begun) {
      it->second.begun = steady_clock::now();
      ++begun_;
    }
  }
}

void Scanner::TakeUp(Finished finished) {
  const auto node = in_flight_.extract(finished.id);
  InFlight& scanned = node.mapped();
  begun_ -= scanned.begun ? 1 : 0;
  BeginWaiting();
  const bool died = finished.answer.error && finished.answer.error->Code() == agent::ErrorCode::kDaemonDied;
  if (!died) {
    deaths_in_a_row_ = 0;
    reporter_.File(Judge(scanned, finished.answer));
    return;
  }
  if (death_.empty()) {
    death_ = finished.answer.error->what();
  }
  if (scanned.overdue && scanned.tried_before) {
    ReportError(scanned.file, Outcome::kTimeout,
                fmt::format("no answer for {} s, twice; vond hung with it and was killed",
                            std::chrono::duration_cast<seconds>(settings_.deadline).count()));
  } else if (scanned.tried_before) {
    ReportError(scanned.file, Outcome::kError, "vond ended each of the two times it had this file: " + death_);
  } else {
    again_.emplace(finished.id, std::move(scanned));
  }
}

void Scanner::KillIfOverdue() {
  const auto now = steady_clock::now();
  bool hung = false;
  for (auto& [id, scanned] : in_flight_) {
    if (!scanned.begun || !death_.empty()) {
      break;  // nor has any behind it
    }
    if (!scanned.overdue && now - *scanned.begun > settings_.deadline) {
      scanned.overdue = true;
      hung = true;
    }
  }
  if (hung) {
    client_->Abandon();
    client_.reset();  // every file's end comes with that, even where the system can't end the process yet
    death_ = "vond did not answer in time and was killed";
  }
}

bool Scanner::Replace() {
  const std::string death = std::exchange(death_, "");
  if (++deaths_in_a_row_ > kMaxDeathsInARow) {
    reporter_.Notice("vondctl: " + EscapeForTerminal(death));
    GiveUpOnRest("vond ended again and again: " + death);
    return false;
  }
  reporter_.Notice(EscapeForTerminal(fmt::format("vondctl: {}; starting it again for {} file{}", death, again_.size(),
                                                 again_.size() == 1 ? "" : "s")));
  try {
    client_ = start_daemon_();
    ++summary_.restarts;
    return true;
  } catch (const agent::Error& e) {
    reporter_.Notice(EscapeForTerminal(fmt::format("vondctl: vond could not be started again: {}", e.what())));
    GiveUpOnRest(death);
    return false;
  }
}

void Scanner::GiveUpOnRest(const std::string& why) {
  for (const auto& [id, scanned] : again_) {
    ReportError(scanned.file, Outcome::kError, why);
  }
  again_.clear();
}

void Scanner::ReportUnopened(const WalkedFile& file) {
  ReportError(file, file.state == WalkedFile::State::kSkipped ? Outcome::kSkipped : Outcome::kError, file.reason);
}

void Scanner::ReportError(const WalkedFile& file, Outcome outcome, const std::string& error) {
  FileReport report;
  report.path = file.path;
  report.size = static_cast<std::uint64_t>(file.status.st_size);
  report.outcome = outcome;
  report.error = error;
  reporter_.File(report);
}

FileReport Scanner::Judge(const InFlight& scanned, const agent::ScanAnswer& answer) {
  FileReport report;
  report.path = scanned.file.path;
  report.size = static_cast<std::uint64_t>(scanned.file.status.st_size);
  if (scanned.begun) {
    report.time = steady_clock::now() - *scanned.begun;
  }
  if (answer.error) {
    JudgeError(*answer.error, report);
  } else {
    JudgeResponse(answer.response, report);
  }
  report.changed = HasChanged(scanned.file);
  if (report.outcome == Outcome::kClean && report.changed) {
    report.outcome = Outcome::kChanged;
    report.error = "the file changed while it was scanned";
  }
  return report;
}

void Scanner::JudgeError(const agent::Error& error, FileReport& report) const {
  report.error = error.what();
  switch (error.Code()) {
    case agent::ErrorCode::kDeadlineExceeded:
      report.outcome = Outcome::kTimeout;
      break;
    case agent::ErrorCode::kFileTooLarge:  // it has grown since the walk
    case agent::ErrorCode::kNotRegularFile:
      report.outcome = Outcome::kSkipped;
      break;
    default:
      report.outcome = Outcome::kError;
      break;
  }
}

// Any rule type without a result makes the file one that was not scanned, whatever the others found.
void Scanner::JudgeResponse(const ScanResponse& response, FileReport& report) {
  if (response.status() != static_pattern_matching_proto::ResponseStatus_Success) {
    report.outcome = Outcome::kError;
    report.error = fmt::format("vond answered with status {}", static_cast<int>(response.status()));
    return;
  }
  for (const int rule_type : settings_.request.rule_type()) {
    const auto entry = response.results().find(rule_type);
    if (entry == response.results().end() ||
        entry->second.status() != static_pattern_matching_proto::ScanStatus_Success) {
      report.outcome = Outcome::kError;
      report.error = "vond could not scan it; its log says: " + LastScanError();
      continue;
    }
    const yara_lib::YaraScanResult& result = entry->second.result();
    if (result.error() != 0) {
      report.outcome = result.error() == kEngineTimeout ? Outcome::kTimeout : Outcome::kError;
      report.engine_error = result.error();
      report.error = EngineErrorText(result.error(), settings_.timeout_in_seconds);
    }
    for (const auto& rule : result.matched_rules()) {
      if (settings_.private_rules || !rule.is_private_rule()) {
        report.matches.push_back({rule_type, rule});
      }
    }
  }
  if (report.outcome == Outcome::kClean && !report.matches.empty()) {
    report.outcome = Outcome::kMatch;
  }
}

std::string Scanner::LastScanError() {
  if (client_ != nullptr && client_->IsConnection()) {
    return "not here; \"vondctl start -v\" shows it";
  }
  // The line was written before the answer, but comes by another way.
  const auto until = steady_clock::now() + kLogLag;
  while (true) {
    if (client_ == nullptr) {
      return "nothing";
    }
    const std::vector<std::string> log = client_->RecentLog();
    const auto line = std::find_if(log.rbegin(), log.rend(),
                                   [](const std::string& text) { return text.starts_with(kScanErrorLine); });
    if (line != log.rend() || steady_clock::now() > until) {
      return line != log.rend() ? *line : "nothing";
    }
    std::this_thread::sleep_for(milliseconds(2));
  }
}

}  // namespace vond::vondctl
