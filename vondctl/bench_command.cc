#include "vondctl/bench_command.h"

#include <fmt/format.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <iostream>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "agent/client.h"
#include "static_pattern_matching/rule_metadata.h"
#include "utils/assertion.h"
#include "utils/log.h"
#include "vondctl/announcer.h"
#include "vondctl/daemon_options.h"
#include "vondctl/exit_status.h"
#include "vondctl/file_walker.h"
#include "vondctl/json_lines.h"
#include "vondctl/policy_source.h"
#include "vondctl/raw_engine.h"
#include "vondctl/rule_merge.h"
#include "vondctl/rule_sections.h"
#include "vondctl/rule_set_judgement.h"
#include "vondctl/slow_rule_search.h"
#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

constexpr const char* kFooter =
    "A sample of the files is scanned again and again, in turn by vond and by libyara alone\n"
    "with as many threads, after a round that does not count. Rules that do not compile are left\n"
    "out, and what the daemon wants of a rule is added, so any rules can be measured. Latency is\n"
    "that of one file at a time per thread.\n"
    "\n"
    "Examples:\n"
    "  vondctl bench -r rules/ /usr/bin\n"
    "  vondctl bench -r rules/ --slowest 5 --seconds 30 /srv\n"
    "\n"
    "Exit status: 0 done, 2 some files could not be scanned, 3 the rules can't be used, 4 the\n"
    "daemon failed, 64 wrong usage.\n";

using korvo::static_pattern_matching_daemon::ActionFromWord;
using korvo::static_pattern_matching_daemon::RuleAction;
using nlohmann::ordered_json;
using std::chrono::steady_clock;

constexpr std::size_t kMaxSample = 1000;
constexpr std::size_t kMaxRounds = 15;
// Requests with the daemon at a time when it is to be fast: as `scan` does.
constexpr std::size_t kWindow = 16;
constexpr std::uint32_t kTimeoutInSeconds = 30;
constexpr std::chrono::minutes kPolicyDeadline{10};
// Parts of the time there is: for looking at the files, and for the round that decides how many are scanned per round.
constexpr double kWalkPart = 0.2;
constexpr double kWarmUpPart = 0.05;
constexpr double kMega = 1e6;

struct BenchArguments {
  std::vector<std::string> rules;
  std::vector<std::string> paths;
  double seconds = 10;
  std::size_t threads = 0;
  std::size_t slowest = 0;
  std::string executable;
  SandboxChoice sandbox;
};

steady_clock::time_point After(double seconds) {
  return steady_clock::now() +
         std::chrono::duration_cast<steady_clock::duration>(std::chrono::duration<double>(seconds));
}

double SecondsSince(steady_clock::time_point start) {
  return std::chrono::duration<double>(steady_clock::now() - start).count();
}

// The rules in a form that both the compiler and the daemon take.
MergedSource LoadableRules(const MergedSource& source, std::vector<RuleDecision>& decisions) {
  const MergedSource compiling = LeaveOutBroken(ResolveDuplicates(source, OnDuplicate::kRename, decisions), decisions);
  yara_source::Edits edits;
  for (const yara_source::RuleText& rule : yara_source::ParseSource(compiling.Text()).rules) {
    std::vector<std::string> items;
    const yara_source::MetaItem* const id = FindMeta(rule, "id");
    const yara_source::MetaItem* const action = FindMeta(rule, "action");
    if (id == nullptr) {
      items.push_back("id = " + yara_source::QuoteText(rule.name));
    }
    if (action == nullptr) {
      items.emplace_back(R"(action = "inform")");
    } else {
      const RuleAction meaning = ActionFromWord(MetaText(action->value));
      if (meaning == RuleAction::kInvalid || meaning == RuleAction::kDisable) {  // libyara would not know of either
        edits.Replace(action->value_range, R"("inform")");
      }
    }
    if (!items.empty()) {
      AddMetaItems(edits, compiling.Text(), rule, items);
    }
  }
  return compiling.Edited(edits);
}

// Files picked evenly from all that the paths have.
struct Sample {
  std::vector<SampleFile> files;
  std::size_t found = 0;
  std::size_t failed = 0;  // could not be opened
  bool all_seen = true;    // false if time was up
};

std::size_t MaxOpenFiles() {
  rlimit limit{};
  const bool known = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY;
  return known ? std::min<std::size_t>(kMaxSample, limit.rlim_cur / 2) : kMaxSample;
}

Sample TakeSample(const std::vector<std::string>& paths, steady_clock::time_point deadline) {
  Sample sample;
  const std::size_t most = std::max<std::size_t>(MaxOpenFiles(), 1);
  std::mt19937_64 random(1);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same files in each run
  FileWalker walker(paths, std::nullopt, {});
  while (std::optional<WalkedFile> file = walker.Next()) {
    if (steady_clock::now() >= deadline && !sample.files.empty()) {
      sample.all_seen = false;
      break;
    }
    if (file->state == WalkedFile::State::kWait && sample.files.size() > 1) {
      sample.files.pop_back();
    }
    sample.failed += file->state == WalkedFile::State::kFailed ? 1 : 0;
    if (file->state != WalkedFile::State::kOpen) {
      continue;
    }
    ++sample.found;
    SampleFile entry{std::move(file->fd), static_cast<std::uint64_t>(file->status.st_size)};
    if (sample.files.size() < most) {
      sample.files.push_back(std::move(entry));
    } else if (const std::size_t place = random() % sample.found; place < sample.files.size()) {
      sample.files[place] = std::move(entry);
    }
  }
  return sample;
}

// A daemon with the rules in force.
class DaemonEngine {
 public:
  DaemonEngine(PolicySource policy, std::size_t threads, const std::string& executable, SandboxChoice sandbox,
               const CommonOptions& common)
      : client_([&] {
          sandbox.magic = ImportsMagic(policy);
          return DaemonOptionsFor(executable, common, sandbox);
        }()) {
    policy.document.set_max_number_of_threads(static_cast<std::uint32_t>(threads));
    policy.document.set_yara_timeout_in_seconds(kTimeoutInSeconds);
    client_.ApplyPolicy(policy.ForAgent(DaemonLogLevel(common)), kPolicyDeadline);
    request_.add_rule_type(static_pattern_matching_proto::Block);
  }

  // Scans the sample once with `in_flight` requests at a time; no further file is begun after `deadline`. Throws
  // agent::Error when the daemon dies.
  SamplePass Pass(const std::vector<SampleFile>& sample, std::size_t in_flight, steady_clock::time_point deadline) {
    SamplePass pass;
    std::mutex mutex;
    std::condition_variable ended;
    std::size_t open = 0;
    std::optional<agent::Error> death;
    const auto start = steady_clock::now();
    for (; pass.files < sample.size() && steady_clock::now() < deadline; ++pass.files) {
      std::unique_lock lock(mutex);
      ended.wait(lock, [&] { return open < in_flight; });
      if (death) {
        break;
      }
      ++open;
      lock.unlock();
      const auto begin = steady_clock::now();
      client_.ScanAsync(sample[pass.files].fd.Get(), request_, begin + kPolicyDeadline,
                        [&, begin](const agent::ScanAnswer& answer) {
                          const double latency = SecondsSince(begin);
                          const std::lock_guard guard(mutex);
                          --open;
                          pass.latencies.push_back(latency);
                          Judge(answer, pass, death);
                          ended.notify_one();
                        });
    }
    std::unique_lock lock(mutex);
    ended.wait(lock, [&] { return open == 0; });
    pass.seconds = SecondsSince(start);
    if (death) {
      throw agent::Error(*death);
    }
    return pass;
  }

 private:
  static void Judge(const agent::ScanAnswer& answer, SamplePass& pass, std::optional<agent::Error>& death) {
    if (answer.error) {
      ++pass.failed;
      if (answer.error->Code() == agent::ErrorCode::kDaemonDied) {
        death = answer.error;
      }
      return;
    }
    const auto result = answer.response.results().find(static_pattern_matching_proto::Block);
    if (answer.response.status() != static_pattern_matching_proto::ResponseStatus_Success ||
        result == answer.response.results().end() || result->second.result().error() != 0) {
      ++pass.failed;
      return;
    }
    const auto& rules = result->second.result().matched_rules();
    // Private rules are none to libyara's callback.
    pass.matches += static_cast<std::size_t>(
        std::count_if(rules.begin(), rules.end(), [](const auto& rule) { return !rule.is_private_rule(); }));
  }

  agent::Client client_;
  static_pattern_matching_proto::ScanRequest request_;
};

// The middle of some values and how far they lie apart.
struct Spread {
  double median = 0;
  double low = 0;
  double high = 0;
};

Spread SpreadOf(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  const double median = values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
  return {median, values.front(), values.back()};
}

// The value below which `part` of the sorted values lie.
double Percentile(const std::vector<double>& sorted, double part) {
  if (sorted.empty()) {
    return 0;
  }
  return sorted[std::min(static_cast<std::size_t>(part * static_cast<double>(sorted.size())), sorted.size() - 1)];
}

// All rounds of one engine.
struct EngineRounds {
  const char* name;
  std::vector<double> seconds;    // of each round
  std::vector<double> latencies;  // of all rounds
  std::size_t matches = 0;        // of one round
  std::size_t failed = 0;         // of one round
};

struct Comparison {
  EngineRounds vond{"vond", {}, {}, 0, 0};
  EngineRounds raw{"libyara", {}, {}, 0, 0};
  std::vector<double> ratios;  // of each round's seconds
  std::uint64_t bytes = 0;     // of the sample
  std::size_t files = 0;       // likewise
};

void AddLatencies(EngineRounds& rounds, const SamplePass& pass) {
  rounds.latencies.insert(rounds.latencies.end(), pass.latencies.begin(), pass.latencies.end());
}

void AddRound(EngineRounds& rounds, const SamplePass& pass) {
  rounds.seconds.push_back(pass.seconds);
  rounds.matches = pass.matches;
  rounds.failed = pass.failed;
}

// Shortens the sample to what can be scanned several times, and compares.
Comparison Compare(std::vector<SampleFile>& sample, DaemonEngine& daemon, const RawEngine& raw, std::size_t threads,
                   double seconds) {
  constexpr auto kNever = steady_clock::time_point::max();
  const auto deadline = After(seconds);
  const std::size_t scanned = daemon.Pass(sample, kWindow, After(seconds * kWarmUpPart)).files;
  sample.resize(std::max<std::size_t>(scanned, 1));
  static_cast<void>(raw.Pass(sample, threads, kNever));

  Comparison comparison;
  comparison.files = sample.size();
  for (const SampleFile& file : sample) {
    comparison.bytes += file.size;
  }
  for (std::size_t round = 0; round < kMaxRounds && (round == 0 || steady_clock::now() < deadline); ++round) {
    std::optional<SamplePass> raw_pass;
    if (round % 2 == 0) {  // neither always profits from coming second
      raw_pass = raw.Pass(sample, threads, kNever);
    }
    AddRound(comparison.vond, daemon.Pass(sample, kWindow, kNever));
    if (!raw_pass) {
      raw_pass = raw.Pass(sample, threads, kNever);
    }
    AddRound(comparison.raw, *raw_pass);
    AddLatencies(comparison.raw, *raw_pass);
    AddLatencies(comparison.vond, daemon.Pass(sample, threads, kNever));
    comparison.ratios.push_back(comparison.vond.seconds.back() / comparison.raw.seconds.back());
  }
  std::sort(comparison.vond.latencies.begin(), comparison.vond.latencies.end());
  std::sort(comparison.raw.latencies.begin(), comparison.raw.latencies.end());
  return comparison;
}

// What the rounds of one engine come to.
struct EngineFigures {
  double files_per_second;
  double megabytes_per_second;
  double p50_ms;
  double p99_ms;
  double spread_percent;  // between slowest and fastest round, of the middle one
};

EngineFigures FiguresOf(const EngineRounds& rounds, const Comparison& comparison) {
  const Spread seconds = SpreadOf(rounds.seconds);
  constexpr double kMilli = 1e3;
  return {static_cast<double>(comparison.files) / seconds.median,
          static_cast<double>(comparison.bytes) / kMega / seconds.median, Percentile(rounds.latencies, 0.5) * kMilli,
          Percentile(rounds.latencies, 0.99) * kMilli, (seconds.high - seconds.low) / seconds.median * 100};
}

void WriteText(const Comparison& comparison, std::size_t threads, std::size_t rounds) {
  std::cout << fmt::format("{} files, {:.1f} MB; {} thread{}, {} round{}\n", comparison.files,
                           static_cast<double>(comparison.bytes) / kMega, threads, threads == 1 ? "" : "s", rounds,
                           rounds == 1 ? "" : "s");
  std::cout << fmt::format("{:<8} {:>10} {:>9} {:>9} {:>9} {:>8}\n", "", "files/s", "MB/s", "p50 ms", "p99 ms",
                           "spread");
  for (const EngineRounds* const engine : {&comparison.vond, &comparison.raw}) {
    const EngineFigures figures = FiguresOf(*engine, comparison);
    std::cout << fmt::format("{:<8} {:>10.0f} {:>9.1f} {:>9.3f} {:>9.3f} {:>7.1f}%\n", engine->name,
                             figures.files_per_second, figures.megabytes_per_second, figures.p50_ms, figures.p99_ms,
                             figures.spread_percent);
  }
  const Spread ratio = SpreadOf(comparison.ratios);
  std::cout << fmt::format("vond takes {:.2f} times as long as libyara alone ({:.2f} to {:.2f})\n", ratio.median,
                           ratio.low, ratio.high);
}

ordered_json EngineJson(const EngineRounds& rounds, const Comparison& comparison) {
  const EngineFigures figures = FiguresOf(rounds, comparison);
  return {{"files_per_second", figures.files_per_second},
          {"mb_per_second", figures.megabytes_per_second},
          {"p50_ms", figures.p50_ms},
          {"p99_ms", figures.p99_ms},
          {"spread_percent", figures.spread_percent},
          {"matches", rounds.matches},
          {"not_scanned", rounds.failed}};
}

void WriteJson(const Comparison& comparison, std::size_t threads, std::size_t rules, const Sample& sample) {
  const Spread ratio = SpreadOf(comparison.ratios);
  WriteJsonLine({{"type", "bench"},
                 {"rules", rules},
                 {"files_found", sample.found},
                 {"files", comparison.files},
                 {"bytes", comparison.bytes},
                 {"threads", threads},
                 {"rounds", comparison.ratios.size()},
                 {"vond", EngineJson(comparison.vond, comparison)},
                 {"libyara", EngineJson(comparison.raw, comparison)},
                 {"ratio", {{"median", ratio.median}, {"low", ratio.low}, {"high", ratio.high}}}});
}

void WriteSlowRules(const SlowRuleSearch& search, const CommonOptions& common) {
  for (const SlowRule& rule : search.rules) {
    if (common.format == Format::kJsonLines) {
      ordered_json json{{"type", "slow_rule"}, {"rule", rule.rule}};
      AddPath(json, "file", rule.place.file);
      json["line"] = rule.place.line;
      json["share"] = rule.share;
      json["seconds"] = rule.seconds;
      WriteJsonLine(json);
    } else {
      std::cout << fmt::format("{:>5.1f}% of the time: {} ({}:{})\n", rule.share * 100, EscapeForTerminal(rule.rule),
                               EscapeForTerminal(rule.place.file), rule.place.line);
    }
  }
  std::cout.flush();
  if (!common.quiet && common.format == Format::kText) {
    std::cerr << (search.complete ? fmt::format("{} rule{} above {:.0f}%, on {} files\n", search.rules.size(),
                                                search.rules.size() == 1 ? "" : "s", kLeastShare * 100, search.files)
                                  : fmt::format("time was up, there may be others; --seconds gives more\n"));
  }
}

void Say(const CommonOptions& common, const std::string& text) {
  if (!common.quiet) {
    std::cout.flush();
    std::cerr << text << '\n';
  }
}

int RunBench(const BenchArguments& arguments, const CommonOptions& common) {
  const Announcer announcer(common);
  std::vector<Problem> problems;
  const MergedSource merged = MergeRuleFiles(arguments.rules, problems);
  for (const Problem& problem : problems) {
    announcer.Say(problem);
  }
  std::vector<RuleDecision> decisions;
  const MergedSource source = LoadableRules(merged, decisions);
  for (const RuleDecision& decision : decisions) {
    if (decision.kind != RuleDecision::Kind::kTwin && decision.kind != RuleDecision::Kind::kRenamed) {
      announcer.Say(decision);
    }
  }
  const std::size_t rules = yara_source::ParseSource(source.Text()).rules.size();
  if (rules == 0) {
    Complain("there is no rule to measure");
    return kPolicyRefused;
  }

  Sample sample = TakeSample(arguments.paths, After(arguments.seconds * kWalkPart));
  if (sample.failed > 0) {
    Say(common, fmt::format("{} file{} or folder{} could not be opened", sample.failed, sample.failed == 1 ? "" : "s",
                            sample.failed == 1 ? "" : "s"));
  }
  if (sample.files.empty()) {
    Complain("there is no file to scan");
    return kNotScanned;
  }
  const std::size_t threads =
      arguments.threads != 0 ? arguments.threads : std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, 4);
  const RawEngine raw(source.Text());
  DaemonEngine daemon(PolicyFromRuleFile({"rules", source.Text()}), threads, arguments.executable, arguments.sandbox,
                      common);
  Say(common, fmt::format("{} rules, compiled in {:.2f} s; {}{} files found", rules, raw.CompileSeconds(),
                          sample.all_seen ? "" : "more than ", sample.found));

  const Comparison comparison = Compare(sample.files, daemon, raw, threads, arguments.seconds);
  if (common.format == Format::kJsonLines) {
    WriteJson(comparison, threads, rules, sample);
  } else {
    WriteText(comparison, threads, comparison.ratios.size());
  }
  if (comparison.vond.matches != comparison.raw.matches) {
    Say(common, fmt::format("vond had {} matches, libyara {}: did files change meanwhile?", comparison.vond.matches,
                            comparison.raw.matches));
  }
  if (arguments.slowest > 0) {
    WriteSlowRules(FindSlowRules(source, sample.files, arguments.slowest, After(arguments.seconds)), common);
  }
  const std::size_t failed = std::max(comparison.vond.failed, comparison.raw.failed);
  if (failed > 0) {
    Say(common, fmt::format("{} file{} could not be scanned", failed, failed == 1 ? "" : "s"));
    return kNotScanned;
  }
  return kClean;
}

}  // namespace

VerbRun AddBenchCommand(CLI::App& app, const CommonOptions& common) {
  const auto arguments = std::make_shared<BenchArguments>();
  app.add_option("-r,--rules", arguments->rules, "Rule file, or folder of *.yar and *.yara files; may be repeated")
      ->required()
      ->allow_extra_args(false)
      ->type_name("FILE|DIR");
  app.add_option("-j,--threads", arguments->threads, "Threads of either (default: one per processor, at most 4)")
      ->check(CLI::Range(1, 64).description(""))
      ->type_name("N");
  app.add_option("--seconds", arguments->seconds, "About how long to measure (default 10); as long again for --slowest")
      ->check(CLI::Range(0.1, 86400.0).description(""))
      ->type_name("N");
  app.add_option("--slowest", arguments->slowest, "Find the up to N rules that cost most on these files")
      ->check(CLI::Range(1, 1000).description(""))
      ->type_name("N");
  app.add_option("--vond", arguments->executable, "Path of the daemon's program")->type_name("FILE");
  AddSandboxOptions(app, arguments->sandbox);
  app.add_option("PATH", arguments->paths, "Files and folders to scan")->required()->type_name("");
  app.footer(kFooter);
  return [arguments, &common] {
    korvo::utils::SetLogLevel(0);
    korvo::utils::EnableAssertionLines(false);
    try {
      return RunBench(*arguments, common);
    } catch (const agent::Error& e) {
      Complain(e.what());
      return static_cast<int>(kDaemonFailed);
    }
  };
}

}  // namespace vond::vondctl
