#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <future>
#include <thread>

#include "tests/support/running_daemon.h"
#include "tests/support/test_support.h"
#include "utils/unix_fds.h"

namespace vond::test {
namespace {

using auto_resources::ManagedFD;
using korvo_daemon::Request;
using korvo_daemon::Response;
using std::chrono::milliseconds;
using std::chrono::seconds;

const std::string kRuleA = "rule A { meta: id = \"a\" action = \"block\" strings: $a = \"alpha\" condition: $a }\n";
const std::string kRuleB = "rule B { meta: id = \"b\" action = \"block\" strings: $b = \"beta\" condition: $b }\n";
// Runs into a time-out of any length, punctually.
const std::string kSlowRule =
    "rule Slow { meta: id = \"s\" action = \"block\" condition: for all i in (0..1099511627776) : (i >= 0) }\n";

// Of an idle daemon: standard streams, channel, the signal dispatcher's pipe.
const std::set<int> kOwnDescriptors = {0, 1, 2, 3, 4, 5};

std::vector<std::string> WithoutDebug(std::vector<std::string> lines) {
  std::erase_if(lines, [](const std::string& line) { return line.starts_with("DEBUG "); });
  return lines;
}

Request ConfigRequest(const std::string& document, std::uint32_t log_level = 6) {
  Request request;
  request.mutable_config()->set_log_level(log_level);
  request.mutable_config()->mutable_user_config()->set_data(document);
  return request;
}

TEST(Daemon, AnswersEveryKindOfRequestWithItsHeader) {
  RunningDaemon daemon;
  struct Row {
    const char* name;
    Request request;
    Response::DataCase answer;
    std::string log;
  };
  std::vector<Row> rows(5);
  rows[0] = {"no data", {}, Response::DATA_NOT_SET, "ERROR Invalid data case request: 0"};
  rows[1] = {"file_scan", {}, Response::DATA_NOT_SET, "ERROR Invalid data case request: 3"};
  rows[1].request.mutable_file_scan()->set_path("/etc/passwd");
  rows[2] = {"plugin_request", {}, Response::DATA_NOT_SET, "ERROR Invalid data case request: 6"};
  rows[2].request.mutable_plugin_request();
  rows[3] = {"stats", {}, Response::kStats, ""};
  rows[3].request.mutable_stats()->set_get_stats(true);
  rows[4] = {"config without document",
             {},
             Response::kConfigResult,
             "ERROR ProcessConfig failed with error: Failed to read config from policy"};
  rows[4].request.mutable_config()->set_log_level(6);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    daemon.ClearLog();
    Request request = row.request;
    request.mutable_header()->set_version(77);
    const Response response = daemon.Ask(request);
    EXPECT_EQ(response.data_case(), row.answer);
    EXPECT_EQ(response.header().version(), 77U);
    EXPECT_EQ(response.stats().entries_size(), 0);
    EXPECT_FALSE(response.config_result().success());
    EXPECT_TRUE(row.log.empty() || daemon.WaitForLog(row.log));
  }
}

TEST(Daemon, AnswersBadScansWithAStatus) {
  RunningDaemon daemon;
  const ManagedFD file = MakeFile("alpha");
  Request garbage;
  garbage.mutable_generic_data_request()->set_data("\xff\xff");
  struct Row {
    const char* name;
    Request request;
    std::vector<int> fds;
    int status;
    std::vector<std::pair<int, int>> entries;  // rule type, scan status
    std::string log;
  };
  const std::vector<Row> before_policy = {
      {"no policy",
       MakeScan(0, {0, 1}),
       {file.Get()},
       0,
       {{0, 2}, {1, 2}},
       "ERROR ScanFile failed with error: no policy has been installed yet"},
      {"nothing asked", MakeScan(0, {}), {file.Get()}, 0, {}, ""},
  };
  const std::vector<Row> with_policy = {
      {"allow rules missing",
       MakeScan(0, {0, 1}),
       {file.Get()},
       0,
       {{0, 0}, {1, 2}},
       "ERROR ScanFile failed with error: _Map_base::at"},
      {"file type missing",
       MakeScan(9, {0}),
       {file.Get()},
       0,
       {{0, 2}},
       "ERROR ScanFile failed with error: _Map_base::at"},
      {"unknown rule type",
       MakeScan(0, {7}),
       {file.Get()},
       0,
       {{7, 2}},
       "ERROR ScanFile failed with error: _Map_base::at"},
      {"no descriptor",
       MakeScan(0, {0}),
       {},
       1,
       {},
       "ERROR ProcessFileScan failed with error: vector::_M_range_check: __n (which is 0) >= this->size() (which is "
       "0)"},
      {"not a scan request",
       garbage,
       {file.Get()},
       2,
       {},
       "ERROR ProcessFileScan failed with status: 2 and error: Failed to parse request"},
  };
  const auto check = [&](const std::vector<Row>& rows) {
    for (const Row& row : rows) {
      SCOPED_TRACE(row.name);
      daemon.ClearLog();
      const auto response = ParseScan(daemon.Ask(row.request, row.fds));
      EXPECT_EQ(response.status(), row.status);
      ASSERT_EQ(response.results_size(), static_cast<int>(row.entries.size()));
      for (const auto& [rule_type, status] : row.entries) {
        ASSERT_EQ(response.results().count(rule_type), 1U);
        EXPECT_EQ(response.results().at(rule_type).status(), status);
        EXPECT_EQ(response.results().at(rule_type).has_result(), status == 0);
      }
      EXPECT_TRUE(row.log.empty() || daemon.WaitForLog(row.log));
    }
  };
  check(before_policy);
  ASSERT_TRUE(daemon.SetRules({kRuleA}));
  check(with_policy);
  EXPECT_EQ(daemon.Verdict("alpha"), "A");
}

TEST(Daemon, AFailedPolicyLeavesTheOldRulesDeciding) {
  RunningDaemon daemon;
  ASSERT_TRUE(daemon.SetRules({kRuleA}));
  const std::string other_rule = "rule C { meta: id = \"c\" condition: true }";
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"rule {", "Yara compilation error(s)."},
      {other_rule, "_Map_base::at"},
      {"rule C { meta: id = \"\" action = \"block\" condition: true }", "Invalid id for rule name: C"},
      {"rule C { meta: id = \"c\" action = \"Block\" condition: true }", "Invalid action for rule id: c"},
      {"include \"/etc/passwd\"", "Yara compilation error(s)."},
      {kRuleA + std::string(1, '\0') + kRuleB, "Yara compilation error(s)."},
      {"rule P1 { meta: id = \"p\" action = \"disable\" condition: true }\n"
       "rule Q { meta: id = \"q\" action = \"block\" condition: any of (P*) }",
       "Rule P1 is disabled but belongs to a rule set in the condition of rule Q"},
  };
  for (const auto& [rules, error] : bad) {
    SCOPED_TRACE(rules);
    daemon.ClearLog();
    EXPECT_FALSE(daemon.SetRules({kRuleB, rules}));
    EXPECT_TRUE(daemon.WaitForLog("ERROR YaraConfig configuration load failed with error: " + error));
    EXPECT_TRUE(daemon.WaitForLog("ERROR ProcessConfig failed with error: " + error));
    EXPECT_EQ(daemon.Verdict("alpha beta"), "A");
  }
  EXPECT_TRUE(daemon.SetRules({kRuleB}));
  EXPECT_EQ(daemon.Verdict("alpha beta"), "B");
}

TEST(Daemon, LogsAPolicyInOrder) {
  RunningDaemon daemon;
  ASSERT_TRUE(daemon.SetRules({kRuleA}));
  ASSERT_TRUE(daemon.WaitForLog("INFO New configuration loaded successfully"));
  EXPECT_EQ(daemon.Log(), (std::vector<std::string>{
                              "INFO vond is starting", "INFO Creating StaticPatternMatchingDaemon..",
                              "INFO StaticPatternMatchingDaemon is ready, waiting for requests",
                              "INFO Processing new configuration..", "INFO Updating YaraScanner's configuration..",
                              "INFO YaraConfig is loading the configuration..", "INFO Compiling rules...",
                              "INFO Compiling ruleset with file type: 0 rule type: 0",
                              "INFO Compiled ruleset successfully", "INFO Compiled rules successfully",
                              "INFO Disabling rules that were marked to be disabled...", "INFO Done disabling rules",
                              "INFO YaraConfig loaded successfully", "INFO New configuration loaded successfully"}));
}

TEST(Daemon, TheLogLevelChangesFirstAndStays) {
  RunningDaemon daemon;
  const auto logged = [&](const std::string& line) {
    const std::vector<std::string> log = daemon.Log();
    return std::find(log.begin(), log.end(), line) != log.end();
  };
  // The daemon answers after it has logged, but the log takes its own way to us: a later line shows that it is all
  // here.
  const auto set_level = [&](std::uint32_t level, const std::string& document = "{}") {
    daemon.ClearLog();
    const bool success = daemon.Ask(ConfigRequest(document, level)).config_result().success();
    Request marker;
    static_cast<void>(daemon.Ask(marker));
    EXPECT_TRUE(level < 3 || daemon.WaitForLog("ERROR Invalid data case request: 0"));
    return success;
  };
  EXPECT_TRUE(set_level(6));
  EXPECT_FALSE(logged("INFO New log level: 6"));
  EXPECT_TRUE(set_level(7));
  EXPECT_TRUE(logged("INFO New log level: 7"));
  EXPECT_TRUE(set_level(3));
  EXPECT_TRUE(logged("INFO New log level: 3"));
  EXPECT_FALSE(set_level(7, "nonsense"));  // silent, since the old level does not admit it
  EXPECT_FALSE(logged("INFO New log level: 7"));
  EXPECT_TRUE(set_level(7));
  EXPECT_FALSE(logged("INFO New log level: 7"));  // the failed policy had set it
  EXPECT_TRUE(logged("DEBUG UserConfig.data was read successfully from policy"));
  EXPECT_TRUE(set_level(2));
  EXPECT_TRUE(daemon.WaitForLog("INFO New log level: 2"));
  EXPECT_EQ(WithoutDebug(daemon.Log()).back(), "INFO New log level: 2");
}

TEST(Daemon, DebugAndTraceShowRequestsWhole) {
  RunningDaemon daemon;
  ASSERT_TRUE(daemon.SetRules({kRuleA}, "", 8));
  EXPECT_TRUE(daemon.WaitForLog("TRACE UserConfig.data: {\"rule_sets\":[{\"file_type\":0,\"fd_index\":0}]}"));
  EXPECT_TRUE(daemon.WaitForLog("TRACE Iterating all rules..."));
  EXPECT_TRUE(daemon.WaitForLog("TRACE File type: 0, ruleset type: 0, rule name: A"));
  const ManagedFD file = MakeFile("x");
  const Response response = daemon.Ask(MakeScan(0, {}), {file.Get()});
  const std::string id = std::to_string(response.header().id());
  EXPECT_TRUE(daemon.WaitForLog("DEBUG Got request with 1 fds: header { id: " + id + " } generic_data_request { }"));
  EXPECT_TRUE(daemon.WaitForLog("DEBUG Sending response header { id: " + id + " } generic_data_response { }"));
}

TEST(Daemon, ReportsEveryMatchWithItsMetadata) {
  RunningDaemon daemon;
  ASSERT_TRUE(
      daemon.SetRules({"rule First : zeta alpha { meta: id = 42 action = \"inform\" score = -5 seen = true text = "
                       "\"a\\xffb\" score = 9\n"
                       "  condition: true }\n"
                       "private rule Hidden { meta: id = \"h\" action = \"silent\" condition: true }\n"
                       "rule Off { meta: id = \"o\" action = \"disabled\" condition: true }\n"
                       "rule Forced { meta: id = \"f\" action = \"block\" condition: true }\n"},
                      R"("rule_overrides":[{"rule_id":"f","item":{"key":"action","value":{"string_value":"disable"}}},
                           {"rule_id":"42","item":{"key":"extra","value":{"int_value":"7"}}}],)"));
  const auto result = daemon.ScanText("anything").result();
  ASSERT_EQ(result.matched_rules_size(), 2);
  EXPECT_EQ(result.matched_rules(0).ShortDebugString(),
            "name: \"First\" tags: \"zeta\" tags: \"alpha\" "
            "metadata_items { key: \"id\" value { int_value: 42 } } "
            "metadata_items { key: \"action\" value { string_value: \"inform\" } } "
            "metadata_items { key: \"score\" value { int_value: -5 } } "
            "metadata_items { key: \"seen\" value { bool_value: true } } "
            "metadata_items { key: \"text\" value { string_value: \"a\\357\\277\\275b\" } } "
            "metadata_items { key: \"score\" value { int_value: 9 } } "
            "metadata_items { key: \"extra\" value { int_value: 7 } }");
  EXPECT_EQ(result.matched_rules(1).name(), "Hidden");
  EXPECT_TRUE(result.matched_rules(1).is_private_rule());
}

struct RawEnd {
  const char* name;
  std::size_t size;  // of the packet; 0 closes instead
  std::vector<std::string> log;
};

TEST(Daemon, EndsWithZeroWhenItCantRead) {
  const std::vector<RawEnd> rows = {
      {"close",
       0,
       {"INFO socket closed by peer", "ERROR Exception in main loop: Failed to read request: Input/output error"}},
      {"garbage",
       3,
       {"ERROR Failed to parse message, data_size=3",
        "ERROR Exception in main loop: Failed to read request: Invalid argument"}},
      {"cut",
       131073,
       {"ERROR Failed to parse message, data_size=131072",
        "ERROR Exception in main loop: Failed to read request: Invalid argument"}},
  };
  for (const RawEnd& row : rows) {
    SCOPED_TRACE(row.name);
    RunningDaemon daemon;
    ASSERT_TRUE(daemon.WaitForLog("INFO StaticPatternMatchingDaemon is ready, waiting for requests"));
    daemon.ClearLog();
    const int channel = daemon.Client().Process().ChannelFd();
    if (row.size == 0) {
      ASSERT_EQ(::shutdown(channel, SHUT_RDWR), 0);
    } else {
      const std::string packet(row.size, '\xff');
      ASSERT_EQ(::send(channel, packet.data(), packet.size(), MSG_NOSIGNAL), static_cast<ssize_t>(packet.size()));
    }
    const auto status = daemon.Client().Process().Wait(seconds(20));
    ASSERT_TRUE(status);
    EXPECT_FALSE(status->signaled);
    EXPECT_EQ(status->status, 0);
    EXPECT_TRUE(daemon.WaitForLog("INFO Exiting"));
    std::vector<std::string> expected = row.log;
    expected.emplace_back("INFO Exiting");
    EXPECT_EQ(daemon.Log(), expected);
  }
}

TEST(Daemon, ClosesTheDescriptorsOfEveryRequest) {
  RunningDaemon daemon;
  ASSERT_TRUE(daemon.SetRules({kRuleA}));
  ASSERT_EQ(daemon.Verdict("alpha"), "A");
  const ManagedFD file = MakeFile("alpha");
  Request garbage;
  garbage.mutable_generic_data_request()->set_data("\xff\xff");
  for (int i = 0; i < 300; ++i) {
    static_cast<void>(daemon.Ask(MakeScan(0, {0, 1}), std::vector<int>(32, file.Get())));
    static_cast<void>(daemon.Ask(garbage, {file.Get(), file.Get()}));
    static_cast<void>(daemon.Ask({}, {file.Get()}));
    static_cast<void>(daemon.Ask(ConfigRequest("nonsense", 3), {file.Get(), file.Get()}));
  }
  // The answer goes out before the descriptors are closed.
  EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors(daemon.Pid()) == kOwnDescriptors; }));
}

TEST(Daemon, DropsWhatComesWhile200WaitAndLeavesItsDescriptors) {
  RunningDaemon daemon;
  ASSERT_TRUE(daemon.SetRules({kSlowRule}, "\"yara_timeout_in_seconds\":3,\"max_number_of_threads\":1,"));
  ASSERT_TRUE(WaitUntil([&] { return OpenDescriptors(daemon.Pid()) == kOwnDescriptors; }));
  // Past the client, which would never send so many.
  const int channel = daemon.Client().Process().ChannelFd();
  const ManagedFD file = MakeFile("x");
  const auto send = [&](const Request& request, int count) {
    const std::string packet = request.SerializeAsString();
    const int fd = file.Get();
    for (int i = 0; i < count; ++i) {
      while (korvo::static_pattern_matching_daemon::unix_send_fds(channel, &fd, 1, packet.data(), packet.size(),
                                                                  MSG_NOSIGNAL) != 0) {
        ASSERT_EQ(errno, EAGAIN);
        std::this_thread::sleep_for(milliseconds(1));
      }
    }
  };
  send(MakeScan(0, {0}), 1);  // occupies the one worker
  // The limit is for idle threads too: before it took effect others may have been started.
  ASSERT_TRUE(WaitUntil([&] { return OpenDescriptors(daemon.Pid()).size() == kOwnDescriptors.size() + 1; }));
  std::this_thread::sleep_for(milliseconds(200));
  send(MakeScan(0, {}), 200 + 25);
  ASSERT_TRUE(WaitUntil([&] { return OpenDescriptors(daemon.Pid()).size() == kOwnDescriptors.size() + 1 + 225; }));
  EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors(daemon.Pid()).size() == kOwnDescriptors.size() + 25; }));
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_EQ(OpenDescriptors(daemon.Pid()).size(), kOwnDescriptors.size() + 25);
}

TEST(Daemon, StopsOnSigtermWithScansRunning) {
#ifdef VOND_SANITIZED
  constexpr int kTimes = 30;  // each takes much longer
#else
  constexpr int kTimes = 200;
#endif
  for (int i = 0; i < kTimes; ++i) {
    RunningDaemon daemon;
    ASSERT_TRUE(daemon.SetRules({kSlowRule}, "\"yara_timeout_in_seconds\":30,"));
    const ManagedFD file = MakeFile("x");
    std::atomic<int> ends{0};
    for (int scan = 0; scan < 3; ++scan) {
      daemon.Client().ScanAsync(
          file.Get(),
          [] {
            static_pattern_matching_proto::ScanRequest request;
            request.add_rule_type(static_pattern_matching_proto::Block);
            return request;
          }(),
          std::chrono::steady_clock::now() + seconds(60),
          [&ends](const agent::ScanAnswer& answer) {
            EXPECT_TRUE(answer.error && answer.error->Code() == agent::ErrorCode::kDaemonDied);
            ++ends;
          });
    }
    ASSERT_TRUE(daemon.Client().Process().Kill(SIGTERM));
    const auto status = daemon.Client().Process().Wait(seconds(20));
    ASSERT_TRUE(status);
    ASSERT_FALSE(status->signaled) << status->signal;
    ASSERT_EQ(status->status, 0);
    ASSERT_TRUE(WaitUntil([&] { return ends == 3; }));
  }
}

TEST(Daemon, APolicySwapDoesNotTouchRunningScans) {
  RunningDaemon daemon;
  ASSERT_TRUE(daemon.SetRules({kRuleA + kSlowRule}, "\"yara_timeout_in_seconds\":2,"));
  auto slow = std::async(std::launch::async, [&] { return daemon.Verdict("alpha beta"); });
  std::this_thread::sleep_for(milliseconds(300));
  ASSERT_TRUE(daemon.SetRules({kRuleB}));
  EXPECT_EQ(daemon.Verdict("alpha beta"), "B");
  EXPECT_EQ(slow.get(), "error 26");
}

TEST(Daemon, FilesCutShortUnderScansNeverEndIt) {
  RunningDaemon daemon;
  // Matches a file of the full length only, and reads every page on the way.
  ASSERT_TRUE(
      daemon.SetRules({"rule Whole { meta: id = \"w\" action = \"block\" strings: $end = \"the end\"\n"
                       "  condition: $end at filesize - 7 }"}));
  const std::string content = std::string(1 << 20, 'x') + "the end";
  constexpr int kFaults = 20;
  std::vector<ManagedFD> files;
  for (int i = 0; i < 4; ++i) {
    files.push_back(MakeFile(content));
  }
  std::atomic<bool> stop{false};
  std::thread cutter([&] {
    while (!stop) {
      for (const ManagedFD& file : files) {
        ASSERT_EQ(::ftruncate(file.Get(), 4096), 0);
        ASSERT_EQ(::pwrite(file.Get(), content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
      }
    }
  });
  std::atomic<int> faults{0};
  std::atomic<int> ends{0};
  int scans = 0;
  static_pattern_matching_proto::ScanRequest request;
  request.add_rule_type(static_pattern_matching_proto::Block);
  const auto deadline = std::chrono::steady_clock::now() + seconds(60);
  for (; faults < kFaults && std::chrono::steady_clock::now() < deadline; ++scans) {
    daemon.Client().ScanAsync(files[static_cast<std::size_t>(scans) % files.size()].Get(), request, deadline,
                              [&](const agent::ScanAnswer& answer) {
                                ++ends;
                                ASSERT_FALSE(answer.error) << answer.error->what();
                                const auto& result = answer.response.results().at(0).result();
                                faults += result.error() == 4;
                                EXPECT_TRUE(result.error() == 0 || result.error() == 4) << result.error();
                                EXPECT_TRUE(result.error() == 0 || result.matched_rules_size() == 0);
                              });
  }
  EXPECT_TRUE(WaitUntil([&] { return ends == scans; }, seconds(60)));
  stop = true;
  cutter.join();
  EXPECT_GE(faults, kFaults) << "of " << scans << " scans";
  EXPECT_EQ(daemon.Verdict(content), "Whole");
  // Our own handlers are still in place.
  ASSERT_TRUE(daemon.Client().Process().Kill(SIGSEGV));
  const auto status = daemon.Client().Process().Wait(seconds(20));
  ASSERT_TRUE(status);
  EXPECT_EQ(status->signal, SIGABRT);
  EXPECT_TRUE(WaitUntil([&] {
    const auto err = daemon.Client().Process().RecentOutput(agent::OutputStream::kStderr);
    return std::find(err.begin(), err.end(), "Dumping backtrace") != err.end();
  }));
}

}  // namespace
}  // namespace vond::test
