#include "bench/soak.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "agent/client.h"
#include "agent/rule_packer.h"
#include "bench/process_figures.h"
#include "bench/real_inputs.h"
#include "bench/run.h"
#include "bench/workload.h"
#include "utils/managed_fd.h"
#include "utils/mutex.h"

namespace vond::bench {
namespace {

using auto_resources::ManagedFD;
using korvo::utils::MutexLock;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr std::uint32_t kSeed = 20260101;
constexpr std::size_t kClients = 4;
constexpr std::size_t kMarks = 200;
constexpr std::size_t kGenerated = 300;  // rules beside those of marks, where no others are given
constexpr std::size_t kPage = 4096;
constexpr seconds kSwapInterval{5};
constexpr seconds kAnswerTimeout{60};

ManagedFD MakeFile(std::string_view content) {
  ManagedFD fd(::memfd_create("soak", MFD_CLOEXEC));
  if (!fd.IsValid() || ::write(fd.Get(), content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
    throw std::runtime_error("memfd failed");
  }
  return fd;
}

std::string Mark(std::size_t number) { return fmt::format("soak mark {};", number); }

std::string MarkRule(std::size_t number) {
  return fmt::format(
      "rule Mark_{0} : soak {{ meta: id = \"mark {0}\" action = \"inform\" strings: $mark = \"{1}\" condition: $mark "
      "}}\n",
      number, Mark(number));
}

// One of the two policies that take turns, and raw libyara with the same rules.
struct Variant {
  Variant(const std::string& source, bool packed)
      : raw(source), file(MakeFile(packed ? agent::PackRuleSet(source) : source)) {}
  RawYara raw;
  ManagedFD file;
};

struct Sample {
  std::string content;
  ManagedFD file;
  std::array<std::string, 2> verdicts;  // of each variant
};

std::string MakeContent(std::minstd_rand& random) {
  // Some are large enough to be mapped for their scan, the others are copied.
  std::string content(1024 + random() % (random() % 16 == 0 ? 4U << 20 : 256U << 10), '\0');
  for (char& byte : content) {
    byte = static_cast<char>(random() % 4 == 0 ? random() % 256 : 0);
  }
  for (std::size_t marks = random() % 8; marks > 0; --marks) {
    const std::string mark = Mark(random() % kMarks);
    content.replace(random() % (content.size() - mark.size()), mark.size(), mark);
  }
  return content;
}

std::string VerdictOf(const static_pattern_matching_proto::ScanResponse& response) {
  const auto entry = response.results().find(0);
  if (response.status() != 0 || entry == response.results().end()) {
    return fmt::format("response status {}", static_cast<int>(response.status()));
  }
  if (entry->second.status() != 0) {
    return fmt::format("scan status {}", static_cast<int>(entry->second.status()));
  }
  if (entry->second.result().error() != 0) {
    return fmt::format("error {}", entry->second.result().error());
  }
  std::string names;
  for (const auto& rule : entry->second.result().matched_rules()) {
    names += rule.is_private_rule() ? "" : rule.name() + " ";
  }
  return names;
}

static_pattern_matching_proto::ScanRequest BlockScan(std::int32_t file_type = 0) {
  static_pattern_matching_proto::ScanRequest request;
  request.set_file_type(file_type);
  request.add_rule_type(static_pattern_matching_proto::Block);
  return request;
}

agent::DaemonOptions VondOptions() {
  agent::DaemonOptions options;
  options.executable = VOND_PATH;
  return options;
}

agent::Policy MakePolicy(int rule_set_fd) {
  agent::Policy policy;
  policy.document.add_rule_sets();
  policy.document.set_yara_timeout_in_seconds(30);
  policy.rule_set_fds = {rule_set_fd};
  policy.log_level = 3;
  return policy;
}

class SoakRun {
 public:
  explicit SoakRun(const SoakOptions& options) : options_(options), client_(VondOptions()) {
    std::array<std::string, 2> sources;
    for (std::size_t i = 0; i < kMarks; ++i) {
      sources[0] += MarkRule(i);
      sources[1] += i % 2 == 0 ? MarkRule(i) : "";
    }
    if (options.rules.empty()) {
      sources[0] += MakeRules(kGenerated, kSeed);
      sources[1] += MakeRules(kGenerated / 2, kSeed);
    } else {
      std::size_t number = 0;
      for (const auto& path : FilesUnder(options.rules)) {
        if (IsRuleFile(path)) {
          const std::string rules = Adopt(ReadWhole(path), adopted_rules_);
          sources[0] += rules;
          sources[1] += ++number % 2 == 0 ? rules : "";
        }
      }
    }
    for (std::size_t i = 0; i < 2; ++i) {
      variants_.push_back(std::make_unique<Variant>(sources[i], i == 1));
    }
    const std::string packed = agent::PackRuleSet(sources[1]);
    damaged_ = MakeFile(packed.substr(0, packed.size() / 2));
    std::minstd_rand random(kSeed);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same files in every run
    for (int i = 0; i < 300; ++i) {
      AddSample(MakeContent(random));
    }
    if (!options.files.empty()) {
      std::size_t taken = 0;
      for (const auto& path : FilesUnder(options.files)) {
        if (std::filesystem::file_size(path) <= (1 << 20) && taken < 200) {
          AddSample(ReadWhole(path));
          ++taken;
        }
      }
    }
  }

  void Run(VerdictTable& table) {
    client_.ApplyPolicy(MakePolicy(variants_[0]->file.Get()), kAnswerTimeout);
    const std::size_t idle_descriptors = Settled();
    const auto start = steady_clock::now();
    const auto end = start + options_.duration;
    // After what time memory is taken as the base, and over how long it is looked at.
    const auto warm_up = std::min<seconds>(seconds(300), options_.duration / 4);
    const auto window = std::min<seconds>(seconds(60), options_.duration / 4);

    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kClients; ++i) {
      threads.emplace_back([this, i, end] { ScanUntil(end, static_cast<std::uint32_t>(i)); });
    }
    threads.emplace_back([this, end] { SwapUntil(end); });
    std::vector<std::size_t> early;
    std::vector<std::size_t> late;
    std::size_t most_threads = 0;
    std::size_t most_descriptors = 0;
    while (steady_clock::now() < end) {
      std::this_thread::sleep_for(milliseconds(500));
      const ProcessFigures figures = ReadFigures(client_.Process().Pid());
      const auto now = steady_clock::now();
      if (now >= start + warm_up && now < start + warm_up + window) {
        early.push_back(figures.resident_kib);
      }
      if (now >= end - window) {
        late.push_back(figures.resident_kib);
      }
      most_threads = std::max(most_threads, figures.threads);
      most_descriptors = std::max(most_descriptors, figures.descriptors);
    }
    for (std::thread& thread : threads) {
      thread.join();
    }

    const std::size_t most_workers = std::min(4U, std::max(1U, std::thread::hardware_concurrency()));
    const auto median = [](std::vector<std::size_t>& values) {
      std::sort(values.begin(), values.end());
      return values.empty() ? 1 : values[values.size() / 2];
    };
    const std::size_t base = median(early);
    const double growth = static_cast<double>(median(late)) / static_cast<double>(base);
    table.Note("soak: seconds, files", fmt::format("{}, {}", options_.duration.count(), samples_.size()));
    table.Note("soak: rules generated, adopted",
               fmt::format("{}, {}", kMarks + (adopted_rules_ == 0 ? kGenerated : 0), adopted_rules_));
    table.Note("soak: scans, bad requests, files cut, swaps",
               fmt::format("{}, {}, {} ({} as error 4), {}", scans_.load(), bad_requests_.load(), cuts_.load(),
                           faults_.load(), finished_swaps_.load()));
    const MutexLock lock(first_wrong_mutex_);
    table.Add("soak: verdicts that differ from raw libyara", "0",
              fmt::format("{}{}", wrong_.load(), first_wrong_.empty() ? "" : " (first: " + first_wrong_ + ")"),
              wrong_ == 0 && scans_ > 0);
    table.Add(fmt::format("soak: resident at the end / after {} s", warm_up.count()), "under 1.10",
              fmt::format("{:.3f} ({} KiB)", growth, median(late)), growth < 1.10 && !early.empty() && !late.empty());
    const std::size_t descriptors = Settled();
    table.Add("soak: open descriptors, at the end and at rest before", "equal",
              fmt::format("{}, {} (most {})", descriptors, idle_descriptors, most_descriptors),
              descriptors == idle_descriptors);
    table.Add("soak: threads", fmt::format("at most {}", most_workers + 2), std::to_string(most_threads),
              most_threads > 0 && most_threads <= most_workers + 2);
  }

 private:
  void AddSample(std::string content) {
    Sample sample{std::move(content), {}, {}};
    sample.file = MakeFile(sample.content);
    for (std::size_t i = 0; i < 2; ++i) {
      sample.verdicts[i] = variants_[i]->raw.Verdict(sample.content);
    }
    samples_.push_back(std::move(sample));
  }

  // The number of descriptors of the daemon once nothing is under way; they are closed after the answer.
  std::size_t Settled() {
    std::this_thread::sleep_for(milliseconds(300));
    return ReadFigures(client_.Process().Pid()).descriptors;
  }

  void Judge(const std::string& what, const std::string& verdict, const std::vector<std::string>& allowed) {
    if (std::find(allowed.begin(), allowed.end(), verdict) == allowed.end()) {
      ++wrong_;
      const MutexLock lock(first_wrong_mutex_);
      if (first_wrong_.empty()) {
        first_wrong_ = fmt::format("{}: \"{}\" instead of \"{}\"", what, verdict, allowed.front());
      }
    }
  }

  // Both lie within [first swap that may have been in force, last one]; swaps take turns.
  template <typename Verdict>
  std::vector<std::string> Allowed(std::uint64_t first_swap, const Verdict& verdict_of_variant) {
    std::vector<std::string> allowed{verdict_of_variant(first_swap % 2)};
    if (started_swaps_ != first_swap) {
      allowed.push_back(verdict_of_variant((first_swap + 1) % 2));
    }
    return allowed;
  }

  void ScanUntil(steady_clock::time_point end, std::uint32_t number) {
    std::minstd_rand random(kSeed + number);
    while (steady_clock::now() < end) {
      const auto choice = random() % 100;
      Sample& sample = samples_[random() % samples_.size()];
      if (choice == 0) {
        AskBadly(random() % 7);
      } else if (choice == 1) {
        ScanAndCut(sample, random);
      } else {
        const std::uint64_t swap = finished_swaps_;
        const agent::ScanAnswer answer = client_.Scan(sample.file.Get(), BlockScan(), kAnswerTimeout);
        Judge("scan", answer.error ? answer.error->what() : VerdictOf(answer.response),
              Allowed(swap, [&](std::size_t variant) { return sample.verdicts[variant]; }));
        ++scans_;
      }
    }
  }

  void ScanAndCut(const Sample& sample, std::minstd_rand& random) {
    const ManagedFD file = MakeFile(sample.content);
    // At the end of a page: within one, the scan would see zeros behind the cut without a fault.
    const std::size_t keep = random() % (sample.content.size() / kPage + 1) * kPage;
    const std::uint64_t swap = finished_swaps_;
    std::atomic<bool> done{false};
    std::string verdict;
    client_.ScanAsync(file.Get(), BlockScan(), steady_clock::now() + kAnswerTimeout,
                      [&](const agent::ScanAnswer& answer) {
                        verdict = answer.error ? answer.error->what() : VerdictOf(answer.response);
                        done = true;
                        done.notify_one();
                      });
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 400));
    if (::ftruncate(file.Get(), static_cast<off_t>(keep)) != 0) {
      throw std::runtime_error("ftruncate failed");
    }
    done.wait(false);
    std::vector<std::string> allowed = Allowed(swap, [&](std::size_t variant) { return sample.verdicts[variant]; });
    const std::string_view kept = std::string_view(sample.content).substr(0, keep);
    for (std::string& cut : Allowed(swap, [&](std::size_t variant) { return variants_[variant]->raw.Verdict(kept); })) {
      allowed.push_back(std::move(cut));
    }
    allowed.emplace_back("error 4");
    Judge("file cut to " + std::to_string(keep), verdict, allowed);
    faults_ += verdict == "error 4" ? 1 : 0;
    ++cuts_;
  }

  void AskBadly(std::size_t kind) {
    ++bad_requests_;
    const int file = samples_[0].file.Get();
    const auto scan = [&](const korvo_daemon::Request& request, const std::vector<int>& fds, const char* expected) {
      const agent::Answer answer = client_.Send(request, fds, kAnswerTimeout);
      static_pattern_matching_proto::ScanResponse response;
      const bool parsed = response.ParseFromString(answer.response.generic_data_response().data());
      Judge(fmt::format("bad request {}", kind),
            answer.error ? answer.error->what() : (parsed ? VerdictOf(response) : "unparsable"), {expected});
    };
    korvo_daemon::Request request;
    BlockScan(kind == 2 ? 77 : 0).SerializeToString(request.mutable_generic_data_request()->mutable_data());
    switch (kind) {
      case 0:
        request.mutable_generic_data_request()->set_data("\xff\xff");
        return scan(request, {file}, "response status 2");
      case 1:
        return scan(request, {}, "response status 1");
      case 2:
        return scan(request, {file}, "scan status 2");
      case 3:
        return scan(request, {ManagedFD(::open("/", O_RDONLY | O_CLOEXEC)).Get()}, "error 3");
      case 4: {
        const agent::Answer answer = client_.Send({}, {file}, kAnswerTimeout);
        return Judge("request without data",
                     answer.error ? answer.error->what() : std::to_string(answer.response.data_case()), {"0"});
      }
      default: {
        std::string end = "accepted";
        try {
          agent::Policy policy = MakePolicy(damaged_.Get());
          policy.json = kind == 5 ? "{" : "";
          client_.ApplyPolicy(policy, kAnswerTimeout);
        } catch (const agent::Error& e) {
          end = agent::ErrorName(e.Code());
        }
        return Judge("damaged policy", end, {"policy_refused"});
      }
    }
  }

  void SwapUntil(steady_clock::time_point end) {
    while (steady_clock::now() + kSwapInterval < end) {
      std::this_thread::sleep_for(kSwapInterval);
      const std::uint64_t swap = ++started_swaps_;
      try {
        client_.ApplyPolicy(MakePolicy(variants_[swap % 2]->file.Get()), kAnswerTimeout);
      } catch (const agent::Error& e) {
        Judge("swap", e.what(), {"accepted"});
      }
      ++finished_swaps_;
    }
  }

  const SoakOptions options_;
  agent::Client client_;
  std::size_t adopted_rules_ = 0;
  std::vector<std::unique_ptr<Variant>> variants_;
  ManagedFD damaged_;
  std::vector<Sample> samples_;
  std::atomic<std::uint64_t> started_swaps_{0};
  std::atomic<std::uint64_t> finished_swaps_{0};
  std::atomic<std::uint64_t> scans_{0};
  std::atomic<std::uint64_t> bad_requests_{0};
  std::atomic<std::uint64_t> cuts_{0};
  std::atomic<std::uint64_t> faults_{0};
  std::atomic<std::uint64_t> wrong_{0};
  korvo::utils::Mutex first_wrong_mutex_;
  std::string first_wrong_ GUARDED_BY(first_wrong_mutex_);
};

}  // namespace

void Soak(const SoakOptions& options, VerdictTable& table) { SoakRun(options).Run(table); }

void MeasureSwap(VerdictTable& table) {
  constexpr std::size_t kRules = 10'000;
  agent::Client client(VondOptions());
  const pid_t pid = client.Process().Pid();
  const ManagedFD small = MakeFile(MarkRule(0));
  const ManagedFD large = MakeFile(MakeRules(kRules, kSeed));
  const auto apply = [&](const ManagedFD& file) {
    ResetPeak(pid);
    client.ApplyPolicy(MakePolicy(file.Get()), std::chrono::minutes(5));
    std::this_thread::sleep_for(milliseconds(500));  // memory goes back after the answer
    return ReadFigures(pid);
  };
  const auto mib = [](std::size_t kib) { return static_cast<double>(kib) / 1024; };
  const ProcessFigures before = apply(small);
  const ProcessFigures first = apply(large);
  ProcessFigures last = first;
  for (int i = 0; i < 10; ++i) {
    last = apply(large);
  }
  const ProcessFigures after = apply(small);
  table.Note("swap: resident with one rule, MiB", fmt::format("{:.0f}", mib(before.resident_kib)));
  table.Note(fmt::format("swap: resident with {} rules, MiB (peak)", kRules),
             fmt::format("{:.0f} ({:.0f})", mib(first.resident_kib), mib(first.peak_resident_kib)));
  table.Note("swap: after ten more swaps of the same, MiB (peak)",
             fmt::format("{:.0f} ({:.0f})", mib(last.resident_kib), mib(last.peak_resident_kib)));
  const double left = static_cast<double>(after.resident_kib) / static_cast<double>(before.resident_kib);
  table.Add("swap: resident with one rule again / before", "under 1.50",
            fmt::format("{:.2f} ({:.0f} MiB)", left, mib(after.resident_kib)), left < 1.5);
}

}  // namespace vond::bench
