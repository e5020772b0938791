#include "vondctl/start_command.h"

#include <fmt/format.h>
#include <malloc.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "agent/held_policy.h"
#include "agent/relay.h"
#include "agent/service_notifier.h"
#include "agent/unix_listener.h"
#include "utils/assertion.h"
#include "utils/log.h"
#include "utils/mutex.h"
#include "vondctl/announcer.h"
#include "vondctl/daemon_options.h"
#include "vondctl/exit_status.h"
#include "vondctl/interrupt.h"
#include "vondctl/metrics_file.h"
#include "vondctl/policy_explainer.h"
#include "vondctl/policy_options.h"
#include "vondctl/policy_source.h"
#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

using agent::HeldPolicy;
using agent::NotifyServiceManager;
using agent::UnixListener;
using korvo::utils::MutexLock;
using std::chrono::seconds;

constexpr const char* kServiceManager = "systemd";
constexpr mode_t kOwnersMode = 0600;
constexpr mode_t kEverybodysMode = 0666;
constexpr rlim_t kEnoughDescriptors = 65536;

constexpr const char* kFooter = R"(Examples:
  vondctl start --listen /run/vond.sock --policy policy.json
  vondctl start --listen ./s --rules rules/ --mode 0660 --prometheus vond.prom
  vondctl scan --connect /run/vond.sock /srv
  kill -HUP PID

Runs in the foreground until SIGTERM or Ctrl-C, which let the scans that are under way end. SIGHUP reads
the policy again and puts it in force without dropping a scan; one that is refused leaves the former in
force. A daemon that dies or hangs is started again with the last good policy; what it had is tried once
more. The fifth crash within a minute is the end. Who may connect is the socket's mode; with --allow-uid
or --allow-gid (and then mode 0666 by default) of other users only those that are named. Only the user
that start runs as may send a policy. --listen systemd takes the socket that a service manager passes.

Exit status: 0 after a signal, 2 the socket can't be had, 3 the policy was refused, 4 the daemon failed,
64 wrong usage.
)";

struct StartOptions : PolicyOptions {
  std::string listen;
  std::string mode_text;
  mode_t mode = kOwnersMode;
  std::vector<uid_t> uids;
  std::vector<gid_t> gids;
  std::uint32_t max_clients = 128;
  std::uint32_t client_timeout_in_seconds = 30;
  std::uint32_t deadline_in_seconds = 0;  // 0: follows from the time-outs
  std::string prometheus;
  std::string executable;
  SandboxChoice sandbox;
};

std::optional<mode_t> ParseMode(const std::string& text) {
  if (text.empty() || text.size() > 4 || text.find_first_not_of("01234567") != std::string::npos) {
    return std::nullopt;
  }
  constexpr mode_t kPermissions = 0777;
  const auto mode = static_cast<mode_t>(std::stoul(text, nullptr, 8));
  return mode <= kPermissions ? std::optional(mode) : std::nullopt;
}

std::string CheckMode(const std::string& text) {
  return ParseMode(text) ? "" : "\"" + text + "\" is not a mode, such as 0660";
}

// What happens, on standard error; nothing with -q. Failures are said in any case. Any thread.
class Log {
 public:
  explicit Log(bool quiet) : quiet_(quiet) {}
  void operator()(const std::string& text) const {
    if (!quiet_) {
      Complain(text);
    }
  }

 private:
  bool quiet_;
};

// For people; as valid UTF-8, which a message's text has to be.
std::string Origin(const PolicyOptions& options) {
  std::string origin = options.policy;
  for (const auto* const paths : {&options.rules, &options.allow_rules}) {
    for (const std::string& path : *paths) {
      origin += (origin.empty() ? "" : " ") + path;
    }
  }
  return EscapeForTerminal(origin);
}

struct ReadPolicy {
  HeldPolicy held;
  bool imports_magic = false;
};

// Reads the policy's files and judges it. Throws PolicyError with all its errors.
ReadPolicy ReadPolicyFiles(const PolicyOptions& options, const CommonOptions& common) {
  ReadPolicy read;
  HeldPolicy& held = read.held;
  {
    const PolicySource source = MakePolicy(options);
    PolicyJudgement judgement = JudgePolicy(source);
    if (!judgement.problems.empty()) {
      throw PolicyError(std::move(judgement.problems));
    }
    read.imports_magic = ImportsMagic(source);
    held = agent::HoldPolicy(source.ForAgent(DaemonLogLevel(common)), Origin(options));
    held.description.clear_rule_sets();
    for (const RuleSetCount& count : judgement.rule_sets) {
      vond_relay::RuleSet& rule_set = *held.description.add_rule_sets();
      rule_set.set_file_type(count.file_type);
      rule_set.set_rule_type(count.rule_type);
      rule_set.set_rules(count.rules);
    }
  }
  ::malloc_trim(0);  // a compiler's memory is of no more use to a process that stays
  return read;
}

void RaiseLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < kEnoughDescriptors) {
    limit.rlim_cur = std::min(kEnoughDescriptors, limit.rlim_max);
    static_cast<void>(::setrlimit(RLIMIT_NOFILE, &limit));  // fewer clients then wait longer
  }
}

std::uint64_t MonotonicMicroseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

agent::RelayOptions MakeRelayOptions(const StartOptions& options, const SandboxChoice& sandbox,
                                     const CommonOptions& common) {
  agent::RelayOptions relay;
  relay.daemon = DaemonOptionsFor(options.executable, common, sandbox);
  relay.access.uids.insert(options.uids.begin(), options.uids.end());
  relay.access.gids.insert(options.gids.begin(), options.gids.end());
  relay.max_clients = options.max_clients;
  relay.stall_timeout = seconds(options.client_timeout_in_seconds);
  relay.scan_deadline = seconds(options.deadline_in_seconds);
  relay.say = Log(common.quiet);
  return relay;
}

// Reads the policy again when asked, and has the relay put it in force. On a thread of its own, so that a daemon that
// dies meanwhile need not wait for the compiler. What its sandbox leaves open was decided when it was started first.
class PolicyReloader {
 public:
  PolicyReloader(agent::Relay& relay, const StartOptions& options, const SandboxChoice& sandbox,
                 const CommonOptions& common)
      : relay_(relay), options_(options), sandbox_(sandbox), common_(common), thread_(&PolicyReloader::Work, this) {}
  ~PolicyReloader() {
    {
      const MutexLock lock(mutex_);
      stop_ = true;
      condition_.notify_one();
    }
    thread_.join();
  }
  PolicyReloader(const PolicyReloader&) = delete;
  PolicyReloader& operator=(const PolicyReloader&) = delete;

  // Asking again before it has begun is asking once.
  void Request() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    wanted_ = true;
    condition_.notify_one();
  }

 private:
  void Work() EXCLUDES(mutex_) {
    while (true) {
      {
        const MutexLock lock(mutex_);
        while (!wanted_ && !stop_) {
          condition_.wait(mutex_);
        }
        if (stop_) {
          return;
        }
        wanted_ = false;
      }
      NotifyServiceManager(fmt::format("RELOADING=1\nMONOTONIC_USEC={}", MonotonicMicroseconds()));
      std::optional<std::string> problem;
      auto policy = std::make_shared<HeldPolicy>();
      try {
        ReadPolicy read = ReadPolicyFiles(options_, common_);
        *policy = std::move(read.held);
        if (read.imports_magic && !sandbox_.magic && !sandbox_.off) {
          problem = "it imports \"magic\", whose database the sandbox keeps from a daemon that was started without";
        }
      } catch (const PolicyError& e) {
        WriteRefusal(e.Problems(), 0, common_);
        problem = "it has errors";
      } catch (const std::exception& e) {
        problem = e.what();
      }
      relay_.ReloadAsync(
          [policy, problem] {
            if (problem) {
              throw std::runtime_error(*problem);  // counted as every other refusal
            }
            return std::move(*policy);
          },
          [log = Log(common_.quiet)](const std::optional<std::string>& refusal) {
            if (refusal) {
              Complain("the policy was not put in force, the former one stays: " + *refusal);
            } else {
              log("the policy was read again and is in force");
            }
            NotifyServiceManager(refusal ? "READY=1\nSTATUS=The policy was refused; the former one is in force"
                                         : "READY=1\nSTATUS=The policy was read again");
          });
    }
  }

  agent::Relay& relay_;
  const StartOptions& options_;
  const SandboxChoice& sandbox_;
  const CommonOptions& common_;
  korvo::utils::Mutex mutex_;
  std::condition_variable_any condition_;
  bool wanted_ GUARDED_BY(mutex_) = false;
  bool stop_ GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

int Serve(const StartOptions& options, const CommonOptions& common) {
  RaiseLimit();
  UnixListener listener = options.listen == kServiceManager ? UnixListener::FromServiceManager()
                                                            : UnixListener(options.listen, options.mode);
  ReadPolicy policy = ReadPolicyFiles(options, common);
  SandboxChoice sandbox = options.sandbox;
  sandbox.magic = policy.imports_magic;
  agent::RelayOptions relay_options = MakeRelayOptions(options, sandbox, common);
  std::optional<MetricsFile> metrics;
  if (!options.prometheus.empty()) {
    metrics.emplace(options.prometheus);
    relay_options.publish = [&metrics](const vond_relay::Status& status) { metrics->Put(status); };
  }
  agent::Relay relay(std::move(listener), std::move(policy.held), std::move(relay_options));
  const InterruptScope stop([&relay] {
    NotifyServiceManager("STOPPING=1");
    relay.Stop();
  });
  PolicyReloader reloader(relay, options, sandbox, common);
  const HangupScope reload([&reloader] { reloader.Request(); });
  Log(common.quiet)("ready at " + options.listen);
  NotifyServiceManager("READY=1\nSTATUS=Relaying scans");
  const std::optional<std::string> failure = relay.Run();
  if (failure) {
    Complain("given up: " + *failure);
    NotifyServiceManager("STATUS=Given up: " + failure->substr(0, failure->find('\n')));
    return kDaemonFailed;
  }
  SettleInterrupt();
  return kClean;
}

int RunStart(const StartOptions& options, const CommonOptions& common) {
  // The policy is also judged in this process, by the daemon's code; results go where that would log.
  korvo::utils::SetLogLevel(0);
  korvo::utils::EnableAssertionLines(false);
  try {
    return Serve(options, common);
  } catch (const PolicyError& e) {
    WriteRefusal(e.Problems(), 0, common);
    return kPolicyRefused;
  } catch (const agent::Error& e) {
    Complain(e.what());
    return e.Code() == agent::ErrorCode::kPolicyRefused || e.Code() == agent::ErrorCode::kPacketTooLarge ||
                   e.Code() == agent::ErrorCode::kTooManyDescriptors
               ? kPolicyRefused
               : kDaemonFailed;
  } catch (const std::system_error& e) {  // the socket
    Complain(e.what());
    return kNotScanned;
  }
}

}  // namespace

VerbRun AddStartCommand(CLI::App& app, const CommonOptions& common) {
  const auto options = std::make_shared<StartOptions>();
  app.add_option("--listen", options->listen, "Where to make the socket; systemd: the one that is passed")
      ->type_name("SOCKET")
      ->required()
      ->group("Clients");
  app.add_option("--mode", options->mode_text, "Mode of the socket's file (default 0600)")
      ->check(CLI::Validator(CheckMode, "", ""))
      ->type_name("MODE")
      ->group("Clients");
  app.add_option("--allow-uid", options->uids, "A user that may connect besides this one and root; may be repeated")
      ->allow_extra_args(false)
      ->type_name("UID")
      ->group("Clients");
  app.add_option("--allow-gid", options->gids, "A group whose members may connect; may be repeated")
      ->allow_extra_args(false)
      ->type_name("GID")
      ->group("Clients");
  app.add_option("--max-clients", options->max_clients, "Connections at once (default 128)")
      ->check(CLI::Validator(CheckPositive, "", ""))
      ->type_name("N")
      ->group("Clients");
  app.add_option("--client-timeout", options->client_timeout_in_seconds,
                 "Seconds after which a client that reads none of its answers is closed (default 30)")
      ->check(CLI::Validator(CheckPositive, "", ""))
      ->type_name("SECONDS")
      ->group("Clients");
  AddPolicyOptions(app, *options);
  app.add_option("--deadline", options->deadline_in_seconds,
                 "Seconds that one file may take before the daemon counts as hung and is replaced (default: what the "
                 "time-outs add up to, and 60 more)")
      ->check(CLI::Validator(CheckPositive, "", ""))
      ->type_name("SECONDS")
      ->group("Run");
  app.add_option("--prometheus", options->prometheus, "Keep FILE up to date with metrics in the format of Prometheus")
      ->type_name("FILE")
      ->group("Run");
  app.add_option("--vond", options->executable, "Path of the daemon's program")->type_name("FILE")->group("Run");
  AddSandboxOptions(app, options->sandbox, "Run");
  app.footer(kFooter);
  app.parse_complete_callback([options] {
    RequirePolicy(*options);
    const bool by_name = !options->uids.empty() || !options->gids.empty();
    options->mode = ParseMode(options->mode_text).value_or(by_name ? kEverybodysMode : kOwnersMode);
  });
  return [options, &common] { return RunStart(*options, common); };
}

}  // namespace vond::vondctl
