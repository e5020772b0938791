#include "tests/support/running_daemon.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "tests/support/test_support.h"

namespace vond::test {
namespace {

using auto_resources::ManagedFD;
using korvo::utils::MutexLock;

constexpr std::chrono::seconds kAnswerTimeout{60};

}  // namespace

korvo_daemon::Request MakeScan(std::int32_t file_type, const std::vector<int>& rule_types) {
  static_pattern_matching_proto::ScanRequest scan;
  scan.set_file_type(file_type);
  for (const int rule_type : rule_types) {
    scan.add_rule_type(static_cast<static_pattern_matching_proto::RuleType>(rule_type));
  }
  korvo_daemon::Request request;
  request.mutable_generic_data_request()->set_data(scan.SerializeAsString());
  return request;
}

static_pattern_matching_proto::ScanRequest BlockScan() {
  static_pattern_matching_proto::ScanRequest request;
  request.add_rule_type(static_pattern_matching_proto::Block);
  return request;
}

std::string Verdict(const agent::ScanAnswer& answer) {
  if (answer.error) {
    return answer.error->what();
  }
  const auto entry = answer.response.results().find(0);
  if (entry == answer.response.results().end()) {
    return "status " + std::to_string(answer.response.status());
  }
  if (entry->second.status() != 0) {
    return "status " + std::to_string(entry->second.status());
  }
  if (entry->second.result().error() != 0) {
    return "error " + std::to_string(entry->second.result().error());
  }
  std::string names;
  for (const auto& rule : entry->second.result().matched_rules()) {
    names += (names.empty() ? "" : " ") + rule.name();
  }
  return names;
}

static_pattern_matching_proto::ScanResponse ParseScan(const korvo_daemon::Response& response) {
  static_pattern_matching_proto::ScanResponse scan;
  EXPECT_TRUE(response.has_generic_data_response());
  EXPECT_TRUE(scan.ParseFromString(response.generic_data_response().data()));
  return scan;
}

std::map<std::string, std::string> Preloading(const std::string& library) {
  const char* const options = std::getenv("ASAN_OPTIONS");
  return {{"LD_PRELOAD", library},
          {"ASAN_OPTIONS", (options == nullptr ? "" : options) + std::string(":verify_asan_link_order=0")}};
}

RunningDaemon::RunningDaemon(std::map<std::string, std::string> environment, const agent::SandboxOptions& sandbox)
    : client_([&] {
        agent::DaemonOptions options;
        options.executable = VOND_PATH;
        options.environment = std::move(environment);
        options.sandbox = sandbox;
        options.on_output = [this](agent::OutputStream stream, const std::string& line) {
          if (stream == agent::OutputStream::kStdout) {
            const MutexLock lock(mutex_);
            log_.push_back(line);
          }
        };
        return options;
      }()) {}

korvo_daemon::Response RunningDaemon::Ask(const korvo_daemon::Request& request, const std::vector<int>& fds) {
  const agent::Answer answer = client_.Send(request, fds, kAnswerTimeout);
  EXPECT_FALSE(answer.error) << answer.error->what();
  return answer.response;
}

bool RunningDaemon::SetRules(const std::vector<std::string>& rules, const std::string& json, std::uint32_t log_level) {
  korvo_daemon::Request request;
  std::vector<ManagedFD> files;
  std::vector<int> fds;
  std::string sets;
  for (std::size_t i = 0; i < rules.size(); ++i) {
    files.push_back(MakeFile(rules[i]));
    fds.push_back(files.back().Get());
    const std::string number = std::to_string(i);
    sets += (i == 0 ? "" : ",") + ("{\"file_type\":" + number + ",\"fd_index\":" + number + "}");
  }
  request.mutable_config()->set_log_level(log_level);
  request.mutable_config()->mutable_user_config()->set_data("{" + json + "\"rule_sets\":[" + sets + "]}");
  return Ask(request, fds).config_result().success();
}

std::string RunningDaemon::Verdict(std::string_view content) { return Verdict(MakeFile(content).Get()); }

std::string RunningDaemon::Verdict(int fd) { return test::Verdict(client_.Scan(fd, BlockScan(), kAnswerTimeout)); }

std::vector<std::string> RunningDaemon::Log() {
  const MutexLock lock(mutex_);
  return log_;
}

bool RunningDaemon::WaitForLog(const std::string& line) {
  return WaitUntil([&] {
    const std::vector<std::string> log = Log();
    return std::find(log.begin(), log.end(), line) != log.end();
  });
}

}  // namespace vond::test
