#include "vondctl/prometheus_text.h"

#include <fmt/format.h>

#include <initializer_list>
#include <string_view>
#include <utility>

namespace vond::vondctl {
namespace {

// The format's own escapes; rule names could not have any of these, but that is the daemon's to say.
std::string EscapeLabel(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '\\':
        escaped += "\\\\";
        break;
      case '"':
        escaped += "\\\"";
        break;
      case '\n':
        escaped += "\\n";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

std::string TypeLabel(int rule_type) {
  return rule_type == 0 ? "block" : rule_type == 1 ? "allow" : std::to_string(rule_type);
}

class Text {
 public:
  using Labels = std::initializer_list<std::pair<const char*, std::string_view>>;

  void Begin(const char* name, const char* type, const char* help) {
    name_ = name;
    text_ += fmt::format("# HELP {0} {2}\n# TYPE {0} {1}\n", name, type, help);
  }
  template <typename Value>
  void Add(Value value, Labels labels = {}, const char* suffix = "") {
    text_ += name_;
    text_ += suffix;
    const char* before = "{";
    for (const auto& [label, text] : labels) {
      text_ += fmt::format("{}{}=\"{}\"", before, label, EscapeLabel(text));
      before = ",";
    }
    text_ += fmt::format("{} {}\n", labels.size() == 0 ? "" : "}", value);
  }
  template <typename Value>
  void Single(const char* name, const char* type, const char* help, Value value) {
    Begin(name, type, help);
    Add(value);
  }
  [[nodiscard]] std::string Take() { return std::move(text_); }

 private:
  std::string name_;
  std::string text_;
};

}  // namespace

std::string PrometheusText(const vond_relay::Status& status) {
  Text text;
  text.Single("vond_up", "gauge", "Whether a daemon is there with the policy in force.", status.alive() ? 1 : 0);
  text.Single("vond_uptime_seconds", "gauge", "How long the relay has been running.", status.uptime());
  text.Single("vond_restarts_total", "counter", "Daemons that were started in the place of a dead one.",
              status.restarts());
  text.Single("vond_policy_generation", "gauge", "Number of the policy in force, from 1.",
              status.policy().generation());
  text.Single("vond_policy_loaded_timestamp_seconds", "gauge", "When the policy came into force.",
              status.policy().loaded_at());
  text.Single("vond_policies_refused_total", "counter", "Policies that did not come into force.",
              status.policy().refused());
  text.Begin("vond_policy_info", "gauge", "The SHA-256 of the policy in force.");
  text.Add(1, {{"sha256", status.policy().sha256()}});

  text.Begin("vond_scans_total", "counter", "Scans by how they ended.");
  const vond_relay::Outcomes& scans = status.scans();
  text.Add(scans.match(), {{"outcome", "match"}});
  text.Add(scans.clean(), {{"outcome", "clean"}});
  text.Add(scans.timeout(), {{"outcome", "timeout"}});
  text.Add(scans.skipped(), {{"outcome", "skipped"}});
  text.Add(scans.error(), {{"outcome", "error"}});
  text.Single("vond_scans_retried_total", "counter", "Scans tried again after the daemon had died with them.",
              status.retried());
  text.Single("vond_scanned_bytes_total", "counter", "Bytes of the files that were sent to the daemon.",
              status.bytes());
  text.Begin("vond_scan_seconds", "histogram", "From a client's request for a scan to the daemon's answer.");
  for (const vond_relay::Bucket& bucket : status.latency().buckets()) {
    text.Add(bucket.count(), {{"le", fmt::format("{:g}", bucket.upper_bound())}}, "_bucket");
  }
  text.Add(status.latency().count(), {{"le", "+Inf"}}, "_bucket");
  text.Add(status.latency().sum(), {}, "_sum");
  text.Add(status.latency().count(), {}, "_count");

  text.Begin("vond_queue_requests", "gauge", "Requests of clients that have no answer yet.");
  text.Add(status.waiting(), {{"state", "waiting"}});
  text.Add(status.in_flight(), {{"state", "in_flight"}});
  text.Single("vond_clients", "gauge", "Clients that are connected.", status.clients().connected());
  text.Single("vond_clients_accepted_total", "counter", "Clients that have connected.", status.clients().accepted());
  text.Begin("vond_clients_rejected_total", "counter", "Clients that were not let in, or were closed by the relay.");
  text.Add(status.clients().refused(), {{"reason", "refused"}});
  text.Add(status.clients().malformed(), {{"reason", "malformed"}});
  text.Add(status.clients().stalled(), {{"reason", "stalled"}});

  text.Begin("vond_rule_hits_total", "counter",
             "Matches by rule; those of rules that are not counted alone under \"\".");
  for (const vond_relay::RuleHits& hits : status.rule_hits()) {
    text.Add(hits.hits(), {{"rule", hits.rule()}, {"type", TypeLabel(hits.rule_type())}});
  }
  text.Add(status.other_rule_hits(), {{"rule", ""}, {"type", ""}});
  return text.Take();
}

}  // namespace vond::vondctl
