#include "vondctl/watch_command.h"

#include <fmt/format.h>
#include <poll.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "vondctl/announcer.h"
#include "vondctl/exit_status.h"
#include "vondctl/file_watcher.h"
#include "vondctl/interrupt.h"
#include "vondctl/match_commands.h"
#include "vondctl/policy_options.h"
#include "vondctl/scan_command.h"
#include "vondctl/scan_options.h"

namespace vond::vondctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr const char* kFooter = R"(Examples:
  vondctl watch --rules rules/ /srv/upload
  vondctl watch -p policy.json --format jsonl /srv /home > results.jsonl
  vondctl watch -r rules/ --on-match /usr/local/bin/quarantine /srv

Each file below the folders is scanned when somebody closes it after writing; nobody waits for that.
What lies there already is left to "vondctl scan". fanotify hands over the files themselves, also
those that are removed at once, but needs root's rights (CAP_SYS_ADMIN), and sees what is written
through the mounts at the start; where it is not permitted, inotify watches each folder, and files
are opened by their names, those too that have been moved in. Files that are gone by then are
counted. Where the kernel has lost events, that is said, counted, and makes the exit status 2.

The program of --on-match is started for each file with matches, four at most at the same time, never
through a shell. Its standard input is the file's line of --format jsonl, its output goes to standard
error. While 64 wait for it, the next files wait in the kernel.

It runs until Ctrl-C or SIGTERM, scans what has been closed until then, and sums up. What takes
longer than a few seconds more is given up, and the signal then shows as the exit status. A daemon
that dies or hangs is replaced, and the files it had are tried once more.

Exit status: 0 nothing matched, 1 something matched, 2 something was not scanned or events were lost
(whatever matched), 3 the policy was refused, 4 the daemon failed, 64 wrong usage.
)";

constexpr milliseconds kIdleWait{1000};
constexpr milliseconds kCommandWait{50};  // while a command runs, whose end has to be noticed
constexpr seconds kCommandWindUp{3};

enum class WatcherChoice { kAuto, kFanotify, kInotify };

struct WatchOptions {
  std::shared_ptr<const ScanOptions> scan;
  WatcherChoice watcher = WatcherChoice::kAuto;
  std::string on_match;
  std::vector<std::string> on_match_arguments;
  std::uint32_t on_match_timeout_in_seconds = 60;
};

class WatchSource : public LiveSource {
 public:
  WatchSource(const WatchOptions& options, bool quiet, const WalkOptions& walk)
      : watcher_(MakeWatcher(options, walk)), paths_(options.scan->paths), quiet_(quiet) {
    if (!options.on_match.empty()) {
      MatchCommands::Options commands{{options.on_match}, seconds(options.on_match_timeout_in_seconds)};
      commands.arguments.insert(commands.arguments.end(), options.on_match_arguments.begin(),
                                options.on_match_arguments.end());
      commands_.emplace(std::move(commands), &Complain);
    }
  }

  void OnReady() override {
    if (!quiet_) {
      Complain(fmt::format("{}watching {} with {}", why_, fmt::join(paths_, ", "), watcher_->Name()));
    }
  }

  [[nodiscard]] std::optional<WalkedFile> NextFile(bool idle) override {
    if (InterruptSignal() != 0) {
      WalkedFile file = watcher_->Next();
      return file.state == WalkedFile::State::kWait ? std::nullopt : std::optional(std::move(file));
    }
    if (commands_ && commands_->IsFull()) {
      return NoFileYet();
    }
    WalkedFile file = watcher_->Next();
    if (file.state == WalkedFile::State::kWait && idle) {
      Wait();
    }
    return file;
  }

  [[nodiscard]] std::uint64_t LeftOut() const noexcept override { return 0; }

  void Tick() override {
    if (commands_) {
      commands_->Poll();
    }
  }

  void OnMatch(const std::string& json_line) override {
    if (commands_) {
      commands_->Add(json_line);
    }
  }

  void OnEnd(RunSummary& summary) override {
    if (commands_) {
      commands_->Finish(steady_clock::now() + kCommandWindUp);
    }
    summary.watch = WatchSummary{watcher_->Name(), watcher_->Lost(), watcher_->Gone(),
                                 commands_ ? commands_->Started() : 0, commands_ ? commands_->Failed() : 0};
  }

 private:
  // Sets why_ where it is not the one that was wished for most.
  [[nodiscard]] std::unique_ptr<FileWatcher> MakeWatcher(const WatchOptions& options, const WalkOptions& walk) {
    const WatchedFolders folders(options.scan->paths, walk);
    if (options.watcher != WatcherChoice::kInotify) {
      try {
        return WatchWithFanotify(folders, &Complain);
      } catch (const std::system_error& e) {
        if (options.watcher == WatcherChoice::kFanotify) {
          throw;
        }
        why_ = fmt::format("fanotify can't be used ({}); ", e.what());
      }
    }
    return WatchWithInotify(folders, &Complain);
  }

  void Wait() {
    const bool command_runs = commands_ && !commands_->IsIdle();
    std::array<pollfd, 2> fds{pollfd{watcher_->Fd(), POLLIN, 0}, pollfd{InterruptFd(), POLLIN, 0}};
    ::poll(fds.data(), fds.size(), static_cast<int>((command_runs ? kCommandWait : kIdleWait).count()));
  }

  std::string why_;  // before watcher_, which is made with it
  std::unique_ptr<FileWatcher> watcher_;
  std::vector<std::string> paths_;
  bool quiet_;
  std::optional<MatchCommands> commands_;
};

// What parsing alone does not see.
void Complete(WatchOptions& options) {
  if (options.on_match.empty()) {
    if (!options.on_match_arguments.empty()) {
      throw CLI::RequiresError("--on-match-arg", "--on-match");
    }
    return;
  }
  const auto program = FindProgram(options.on_match);
  if (!program) {
    throw CLI::ValidationError("--on-match", "there is no program \"" + options.on_match + "\" that can be run");
  }
  options.on_match = *program;
}

}  // namespace

VerbRun AddWatchCommand(CLI::App& app, const CommonOptions& common) {
  const auto options = std::make_shared<WatchOptions>();
  options->scan = AddScanOptionsForWatch(app, [options = options.get()] { Complete(*options); });
  app.add_option("--watcher", options->watcher,
                 "How to learn of files: fanotify, inotify, or fanotify where it is permitted (auto, default)")
      ->transform(CLI::CheckedTransformer(std::map<std::string, WatcherChoice>{{"auto", WatcherChoice::kAuto},
                                                                               {"fanotify", WatcherChoice::kFanotify},
                                                                               {"inotify", WatcherChoice::kInotify}})
                      .description(""))
      ->type_name("auto|fanotify|inotify")
      ->group("Files");
  app.add_option("--on-match", options->on_match,
                 "Start this program for each file with matches, the result as JSON on its standard input")
      ->type_name("FILE")
      ->group("Matches");
  app.add_option("--on-match-arg", options->on_match_arguments, "An argument of that program; may be repeated")
      ->allow_extra_args(false)
      ->type_name("TEXT")
      ->group("Matches");
  app.add_option("--on-match-timeout", options->on_match_timeout_in_seconds,
                 "Seconds after which it is killed, with its process group (default 60)")
      ->check(CLI::Validator(CheckPositive, "", ""))
      ->type_name("SECONDS")
      ->group("Matches");
  app.footer(kFooter);
  return [options, &common] {
    return RunScan(*options->scan, common, [&](const WalkOptions& walk) {
      return std::make_unique<WatchSource>(*options, common.quiet, walk);
    });
  };
}

}  // namespace vond::vondctl
