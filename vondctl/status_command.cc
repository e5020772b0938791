#include "vondctl/status_command.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>

#include "agent/client.h"
#include "agent/relay_protocol.h"
#include "vondctl/announcer.h"
#include "vondctl/exit_status.h"
#include "vondctl/interrupt.h"
#include "vondctl/json_lines.h"
#include "vondctl/policy_check.h"
#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

using nlohmann::ordered_json;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kPause{50};
constexpr milliseconds kTimeout{10'000};  // for an answer
constexpr int kRulesShown = 10;
constexpr double kKilo = 1000;

constexpr const char* kFooter = R"(Examples:
  vondctl status --connect /run/vond.sock
  vondctl status --connect /run/vond.sock --wait 30 --json

Shows whether the daemon is alive, which policy is in force, how scans ended, how long they took from
a client's request to the answer, what waits, and which rules matched.

Exit status: 0 alive, 4 no relay there or its daemon is not alive, 64 wrong usage.
)";

struct StatusOptions {
  std::string connect;
  double wait_in_seconds = 0;
  bool json = false;
};

ordered_json PolicyJson(const vond_relay::Policy& policy) {
  ordered_json rule_sets = ordered_json::array();
  for (const vond_relay::RuleSet& rule_set : policy.rule_sets()) {
    ordered_json entry{{"file_type", rule_set.file_type()}, {"rule_type", RuleTypeJson(rule_set.rule_type())}};
    if (rule_set.has_rules()) {
      entry["rules"] = rule_set.rules();
    }
    rule_sets.push_back(std::move(entry));
  }
  return {{"generation", policy.generation()}, {"sha256", policy.sha256()},   {"origin", policy.origin()},
          {"loaded_at", policy.loaded_at()},   {"refused", policy.refused()}, {"rule_sets", rule_sets}};
}

ordered_json StatusJson(const vond_relay::Status& status) {
  const vond_relay::Outcomes& scans = status.scans();
  const vond_relay::Latency& latency = status.latency();
  const vond_relay::Clients& clients = status.clients();
  ordered_json rules = ordered_json::array();
  for (const vond_relay::RuleHits& hits : status.rule_hits()) {
    rules.push_back({{"rule", hits.rule()}, {"rule_type", RuleTypeJson(hits.rule_type())}, {"hits", hits.hits()}});
  }
  ordered_json json{{"type", "status"}, {"alive", status.alive()}};
  json["daemon_pid"] = status.daemon_pid();
  json["uptime"] = status.uptime();
  json["restarts"] = status.restarts();
  json["policy"] = PolicyJson(status.policy());
  json["scans"] = {{"match", scans.match()},     {"clean", scans.clean()}, {"timeout", scans.timeout()},
                   {"skipped", scans.skipped()}, {"error", scans.error()}, {"retried", status.retried()}};
  json["bytes"] = status.bytes();
  json["latency"] = {{"count", latency.count()}, {"p50", latency.p50()}, {"p90", latency.p90()},
                     {"p99", latency.p99()},     {"max", latency.max()}, {"sum", latency.sum()}};
  json["queue"] = {{"waiting", status.waiting()}, {"in_flight", status.in_flight()}};
  json["clients"] = {{"connected", clients.connected()},
                     {"accepted", clients.accepted()},
                     {"refused", clients.refused()},
                     {"malformed", clients.malformed()},
                     {"stalled", clients.stalled()}};
  json["rules"] = rules;
  json["other_rule_hits"] = status.other_rule_hits();
  return json;
}

std::string Duration(double seconds) {
  if (seconds < 1) {
    return fmt::format("{:.3g} ms", seconds * kKilo);
  }
  return fmt::format("{:.3g} s", seconds);
}

std::string Uptime(double seconds) {
  const auto whole = static_cast<std::uint64_t>(std::max(seconds, 0.0));
  return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

void WriteText(const vond_relay::Status& status) {
  const auto line = [](const char* name, const std::string& text) {
    std::cout << fmt::format("{:<9} {}\n", name, EscapeForTerminal(text));
  };
  const vond_relay::Policy& policy = status.policy();
  line("alive",
       status.alive() ? fmt::format("yes, vond has pid {}", status.daemon_pid()) : "no, vond is being started");
  line("up", fmt::format("{}, {} restart{} of vond", Uptime(status.uptime()), status.restarts(),
                         status.restarts() == 1 ? "" : "s"));
  line("policy",
       fmt::format("generation {} from {}, sha256 {}", policy.generation(), policy.origin(), policy.sha256()));
  for (const vond_relay::RuleSet& rule_set : policy.rule_sets()) {
    line("",
         fmt::format("{}{} rule{} for file type {}", rule_set.has_rules() ? fmt::format("{} ", rule_set.rules()) : "",
                     RuleTypeName(rule_set.rule_type()), rule_set.has_rules() && rule_set.rules() == 1 ? "" : "s",
                     rule_set.file_type()));
  }
  if (policy.refused() > 0) {
    line("", fmt::format("{} refused since", policy.refused()));
  }
  const vond_relay::Outcomes& scans = status.scans();
  line("scans", fmt::format("{}: {} matched, {} clean, {} timed out, {} skipped, {} failed",
                            scans.match() + scans.clean() + scans.timeout() + scans.skipped() + scans.error(),
                            scans.match(), scans.clean(), scans.timeout(), scans.skipped(), scans.error()));
  line("bytes", fmt::format("{}", status.bytes()));
  const vond_relay::Latency& latency = status.latency();
  line("latency", fmt::format("p50 {}, p90 {}, p99 {}, max {}", Duration(latency.p50()), Duration(latency.p90()),
                              Duration(latency.p99()), Duration(latency.max())));
  line("queue", fmt::format("{} waiting, {} with vond", status.waiting(), status.in_flight()));
  const vond_relay::Clients& clients = status.clients();
  line("clients", fmt::format("{} connected of {} so far; {} refused, {} malformed, {} stalled", clients.connected(),
                              clients.accepted(), clients.refused(), clients.malformed(), clients.stalled()));
  const int shown = std::min(status.rule_hits_size(), kRulesShown);
  for (int i = 0; i < shown; ++i) {
    const vond_relay::RuleHits& hits = status.rule_hits(i);
    line(i == 0 ? "rules" : "", fmt::format("{} {} ({})", hits.hits(), hits.rule(), RuleTypeName(hits.rule_type())));
  }
  if (status.rule_hits_size() > shown) {
    line("", fmt::format("and {} more", status.rule_hits_size() - shown));
  }
}

vond_relay::Status Ask(const StatusOptions& options, milliseconds timeout) {
  agent::Client client(agent::ConnectToRelay(options.connect));
  return agent::AskForStatus(client, timeout);
}

int RunStatus(const StatusOptions& options, const CommonOptions& common) {
  const auto until = steady_clock::now() +
                     std::chrono::duration_cast<milliseconds>(std::chrono::duration<double>(options.wait_in_seconds));
  std::optional<vond_relay::Status> status;
  std::string problem;
  while (InterruptSignal() == 0) {
    try {
      // While there is time to wait, a relay that still loads its policy may take all of it.
      const auto left = std::chrono::ceil<milliseconds>(until - steady_clock::now());
      status = Ask(options, std::max(left, kTimeout));
    } catch (const agent::Error& e) {
      status.reset();
      problem = e.what();
    }
    if ((status && status->alive()) || steady_clock::now() >= until) {
      break;
    }
    std::this_thread::sleep_for(kPause);
  }
  if (!status) {
    Complain(problem);
    return kDaemonFailed;
  }
  if (options.json || common.format == Format::kJsonLines) {
    WriteJsonLine(StatusJson(*status));
  } else {
    WriteText(*status);
  }
  return status->alive() ? kClean : kDaemonFailed;
}

std::string CheckSeconds(const std::string& text) {
  constexpr double kMost = 1e6;
  try {
    std::size_t end = 0;
    const double seconds = std::stod(text, &end);
    return end == text.size() && std::isfinite(seconds) && seconds >= 0 && seconds <= kMost
               ? ""
               : "\"" + text + "\" is not a number of seconds";
  } catch (const std::exception&) {
    return "\"" + text + "\" is not a number of seconds";
  }
}

}  // namespace

VerbRun AddStatusCommand(CLI::App& app, const CommonOptions& common) {
  const auto options = std::make_shared<StatusOptions>();
  app.add_option("--connect", options->connect, "Where the relay listens")->type_name("SOCKET")->required();
  app.add_option("--wait", options->wait_in_seconds, "Wait up to SECONDS until it is there and alive")
      ->check(CLI::Validator(CheckSeconds, "", ""))
      ->type_name("SECONDS");
  app.add_flag("--json", options->json, "One JSON document, as --format jsonl");
  app.footer(kFooter);
  return [options, &common] { return RunStatus(*options, common); };
}

}  // namespace vond::vondctl
