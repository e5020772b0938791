#include "vondctl/report.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <numeric>
#include <system_error>
#include <utility>

#include "vondctl/interrupt.h"
#include "vondctl/json_lines.h"
#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

using nlohmann::ordered_json;
using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kFlushInterval{200};
constexpr std::size_t kSlowest = 5;
// Faster ones are not worth a word to people.
constexpr std::chrono::seconds kSlow{1};

const char* OutcomeName(Outcome outcome) {
  switch (outcome) {
    case Outcome::kMatch:
      return "match";
    case Outcome::kClean:
      return "clean";
    case Outcome::kTimeout:
      return "timeout";
    case Outcome::kSkipped:
      return "skipped";
    case Outcome::kError:
      return "error";
    case Outcome::kChanged:
      return "changed";
  }
  return "error";
}

ordered_json MatchJson(const Match& match) {
  ordered_json id;
  ordered_json action;
  ordered_json meta = ordered_json::array();
  for (const auto& item : match.rule.metadata_items()) {
    if (item.key() == "id") {  // of several the last one counts, as for the daemon
      id = MetadataJson(item.value());
    } else if (item.key() == "action") {
      action = MetadataJson(item.value());
    } else {
      meta.push_back({{"key", item.key()}, {"value", MetadataJson(item.value())}});
    }
  }
  ordered_json tags = ordered_json::array();
  for (const std::string& tag : match.rule.tags()) {
    tags.push_back(tag);
  }
  return {{"rule", match.rule.name()},
          {"rule_type", RuleTypeJson(match.rule_type)},
          {"id", id},
          {"action", action},
          {"tags", tags},
          {"private", match.rule.is_private_rule()},
          {"meta", meta}};
}

ordered_json FileJson(const FileReport& file) {
  ordered_json json{{"type", "file"}};
  AddPath(json, "path", file.path);
  json["size"] = file.size;
  json["outcome"] = OutcomeName(file.outcome);
  if (file.changed && file.outcome != Outcome::kChanged) {
    json["changed"] = true;
  }
  if (file.engine_error) {
    json["engine_error"] = *file.engine_error;
  }
  if (!file.error.empty()) {
    json["error"] = file.error;
  }
  if (!file.matches.empty()) {
    ordered_json matches = ordered_json::array();
    for (const Match& match : file.matches) {
      matches.push_back(MatchJson(match));
    }
    json["matches"] = matches;
  }
  return json;
}

std::string JsonAsText(const ordered_json& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

double Seconds(std::chrono::nanoseconds time) { return std::chrono::duration<double>(time).count(); }

// To the millisecond.
double Rounded(double seconds) { return static_cast<double>(static_cast<std::int64_t>(seconds * 1000)) / 1000; }

const char* EndName(RunEnd end) {
  switch (end) {
    case RunEnd::kComplete:
      return "complete";
    case RunEnd::kMaxErrors:
      return "max-errors";
    case RunEnd::kInterrupted:
      return "interrupted";
    case RunEnd::kDaemonFailed:
      return "daemon-failed";
    case RunEnd::kOutputFailed:
      return "output-failed";
  }
  return "complete";
}

std::string Plural(std::uint64_t count, const char* word) {
  return fmt::format("{} {}{}", count, word, count == 1 ? "" : "s");
}

std::string WatchAsText(const WatchSummary& watch) {
  std::string text;
  if (watch.gone > 0) {
    text += fmt::format("{} gone before {} could be opened\n",
                        watch.gone == 1 ? "1 file was" : fmt::format("{} files were", watch.gone),
                        watch.gone == 1 ? "it" : "they");
  }
  if (watch.commands + watch.commands_failed > 0) {
    text += fmt::format("{} started, {} failed\n", Plural(watch.commands, "command"), watch.commands_failed);
  }
  if (watch.lost > 0) {
    text += fmt::format("events were lost {}: files may not have been scanned\n", Plural(watch.lost, "time"));
  }
  return text;
}

}  // namespace

Reporter::Reporter(Options options)
    : options_(std::move(options)),
      progress_(!options_.quiet && options_.progress),
      start_(steady_clock::now()),
      last_flush_(start_) {
  if (!options_.report.empty()) {
    report_file_.emplace(options_.report);
  }
}

void Reporter::WriteJson(const ordered_json& json, bool to_stdout) {
  to_stdout = to_stdout && options_.format == Format::kJsonLines;
  if (!to_stdout && (!report_file_ || !report_error_.empty())) {
    return;
  }
  const std::string line = JsonLine(json);
  if (to_stdout) {
    std::cout << line;
  }
  if (report_file_ && report_error_.empty()) {
    try {
      report_file_->Write(line);
    } catch (const std::system_error& e) {
      report_error_ = e.what();
    }
  }
}

void Reporter::Policy(const std::vector<RuleSetCount>& rule_sets) {
  start_ = steady_clock::now();
  ordered_json sets = ordered_json::array();
  for (const RuleSetCount& set : rule_sets) {
    sets.push_back({{"file_type", set.file_type}, {"rule_type", RuleTypeJson(set.rule_type)}, {"rules", set.rules}});
    if (options_.format == Format::kText && !options_.quiet) {
      Notice(fmt::format("{} for file type {}",
                         Plural(set.rules, (JsonAsText(RuleTypeJson(set.rule_type)) + " rule").c_str()),
                         set.file_type));
    }
  }
  WriteJson({{"type", "policy"}, {"rule_sets", sets}}, !options_.count);
}

void Reporter::File(const FileReport& file) {
  ++counts_[static_cast<std::size_t>(file.outcome)];
  if (file.outcome != Outcome::kSkipped) {
    bytes_ += file.size;
  }
  NoteTime(file);
  if (file.outcome == Outcome::kClean && !options_.all) {
    return;
  }
  const bool show = !options_.count;
  if (show) {
    progress_.Clear();
  }
  if (show && options_.format == Format::kText) {
    FileAsText(file);
  }
  if (report_file_ || options_.format == Format::kJsonLines) {
    WriteJson(FileJson(file), show);
  }
  if (options_.live) {
    std::cout.flush();
  }
  if (options_.on_match && !file.matches.empty()) {
    options_.on_match(JsonLine(FileJson(file)));
  }
}

void Reporter::NoteTime(const FileReport& file) {
  if (file.time.count() == 0 || (slowest_.size() == kSlowest && file.time <= slowest_.back().time)) {
    return;
  }
  const auto place =
      std::find_if(slowest_.begin(), slowest_.end(), [&](const Slow& slow) { return slow.time < file.time; });
  slowest_.insert(place, {file.time, file.path});
  slowest_.resize(std::min(slowest_.size(), kSlowest));
}

void Reporter::FileAsText(const FileReport& file) const {
  const std::string path = EscapeForTerminal(file.path);
  std::string text;
  for (const Match& match : file.matches) {
    const ordered_json json = MatchJson(match);
    text += fmt::format("{}: {} ({}, id {}, action {}", path,
                        Paint(EscapeForTerminal(match.rule.name()), Color::kRed, options_.color),
                        JsonAsText(json["rule_type"]), EscapeForTerminal(JsonAsText(json["id"])),
                        EscapeForTerminal(JsonAsText(json["action"])));
    if (options_.tags && !match.rule.tags().empty()) {
      text += fmt::format(", tags {}", fmt::join(match.rule.tags(), " "));
    }
    text += match.rule.is_private_rule() ? ", private)" : ")";
    text += file.changed ? " (the file changed meanwhile)\n" : "\n";
    for (const auto& item : match.rule.metadata_items()) {
      if (options_.meta) {
        text += fmt::format(
            "    {} = {}\n", EscapeForTerminal(item.key()),
            EscapeForTerminal(MetadataJson(item.value()).dump(-1, ' ', false, ordered_json::error_handler_t::replace)));
      }
    }
  }
  if (file.outcome == Outcome::kClean) {
    text += path + ": clean\n";
  } else if (file.outcome != Outcome::kMatch) {
    text += fmt::format("{}: {} ({}): {}\n", path, Paint("NOT SCANNED", Color::kYellow, options_.color),
                        OutcomeName(file.outcome), EscapeForTerminal(file.error));
  }
  std::cout << text;
}

void Reporter::Notice(const std::string& text) {
  progress_.Clear();
  std::cerr << text + '\n';
}

void Reporter::Tick(const std::string* in_hand) {
  const auto now = steady_clock::now();
  if (now - last_flush_ >= kFlushInterval) {
    last_flush_ = now;
    std::cout.flush();
  }
  if (progress_.IsDue()) {
    ProgressState state;
    state.files = Files();
    state.bytes = bytes_;
    state.found = Count(Outcome::kMatch);
    state.errors = state.files - state.found - Count(Outcome::kClean);
    if (total_ != nullptr) {
      state.total = total_->Get();
    }
    if (in_hand != nullptr) {
      state.in_hand = *in_hand;
    }
    progress_.Show(state);
  }
}

std::uint64_t Reporter::Files() const { return std::accumulate(counts_.begin(), counts_.end(), std::uint64_t{0}); }

bool Reporter::HasFailed() const { return !std::cout || !report_error_.empty(); }

bool Reporter::AnyNotScanned() const { return Files() > Count(Outcome::kMatch) + Count(Outcome::kClean); }

ordered_json Reporter::SummaryJson(const RunSummary& summary, double seconds) const {
  ordered_json slowest = ordered_json::array();
  for (const Slow& slow : slowest_) {
    ordered_json entry;
    AddPath(entry, "path", slow.path);
    entry["seconds"] = Rounded(Seconds(slow.time));
    slowest.push_back(entry);
  }
  ordered_json json{{"type", "summary"},
                    {"files", Files()},
                    {"match", Count(Outcome::kMatch)},
                    {"clean", Count(Outcome::kClean)},
                    {"timeout", Count(Outcome::kTimeout)},
                    {"skipped", Count(Outcome::kSkipped)},
                    {"error", Count(Outcome::kError)},
                    {"changed", Count(Outcome::kChanged)},
                    {"bytes", bytes_},
                    {"seconds", Rounded(seconds)},
                    {"slowest", slowest},
                    {"left_out", summary.left_out},
                    {"restarts", summary.restarts},
                    {"end", EndName(summary.end)},
                    {"exit", summary.exit_status}};
  if (summary.watch) {
    json["watch"] = {{"watcher", summary.watch->watcher},
                     {"lost", summary.watch->lost},
                     {"gone", summary.watch->gone},
                     {"commands", summary.watch->commands},
                     {"commands_failed", summary.watch->commands_failed}};
  }
  return json;
}

void Reporter::SummaryAsText(const RunSummary& summary, double seconds) const {
  std::string text =
      fmt::format("{} ({:.1f} MB) in {:.1f} s: {} matched, {} clean, {} timed out, {} skipped, {} failed, {} changed\n",
                  Plural(Files(), "file"), static_cast<double>(bytes_) / 1e6, seconds, Count(Outcome::kMatch),
                  Count(Outcome::kClean), Count(Outcome::kTimeout), Count(Outcome::kSkipped), Count(Outcome::kError),
                  Count(Outcome::kChanged));
  std::string slow_files;
  for (const Slow& slow : slowest_) {
    if (slow.time >= kSlow) {
      slow_files += fmt::format("  {:6.1f} s  {}\n", Seconds(slow.time), EscapeForTerminal(slow.path));
    }
  }
  if (!slow_files.empty()) {
    text += "slowest:\n" + slow_files;
  }
  if (summary.restarts > 0) {
    text += fmt::format("vond had to be started again {}\n", Plural(summary.restarts, "time"));
  }
  if (summary.watch) {
    text += WatchAsText(*summary.watch);
  }
  switch (summary.end) {
    case RunEnd::kComplete:
      break;
    case RunEnd::kMaxErrors:
      text += fmt::format("stopped after {}; the rest was not scanned\n", Plural(Errors(), "error"));
      break;
    case RunEnd::kInterrupted:
      text += "interrupted; the rest was not scanned\n";
      break;
    case RunEnd::kDaemonFailed:
    case RunEnd::kOutputFailed:
      text += "the rest was not scanned\n";
      break;
  }
  std::cerr << text;
}

bool Reporter::Summary(const RunSummary& summary) {
  progress_.Clear();
  const double seconds = Seconds(steady_clock::now() - start_);
  const bool text = options_.format == Format::kText;
  WriteJson(SummaryJson(summary, seconds), true);
  if (text && options_.count) {
    for (const Outcome outcome :
         {Outcome::kMatch, Outcome::kClean, Outcome::kTimeout, Outcome::kSkipped, Outcome::kError, Outcome::kChanged}) {
      std::cout << fmt::format("{} {}\n", OutcomeName(outcome), Count(outcome));
    }
  }
  std::cout.flush();
  const bool nobody_reads = InterruptSignal() == SIGPIPE;  // as behind `| head`, where nothing more is to be said
  if (text && !options_.quiet && !nobody_reads) {
    SummaryAsText(summary, seconds);
  }
  if (report_file_ && report_error_.empty()) {
    try {
      report_file_->Commit();
    } catch (const std::system_error& e) {
      report_error_ = e.what();
    }
  }
  if (!report_error_.empty()) {
    Notice("vondctl: the report could not be written: " + EscapeForTerminal(report_error_));
  }
  if (!std::cout && summary.end != RunEnd::kInterrupted) {
    Notice("vondctl: the results could not be written");
  }
  return !HasFailed();
}

}  // namespace vond::vondctl
