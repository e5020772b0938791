#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
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
// Runs into a time-out of any length, punctually.
const std::string kSlowRule =
    "rule Slow { meta: id = \"s\" action = \"block\" condition: for all i in (0..1099511627776) : (i >= 0) }\n";

// Of an idle daemon: standard streams, channel, the signal dispatcher's pipe.
const std::set<int> kOwnDescriptors = {0, 1, 2, 3, 4, 5};

TEST(Daemon, DebugAndTraceShowRequestsWhole) {
  RunningDaemon daemon;
  ASSERT_TRUE(daemon.SetRules({kRuleA}, "", 8));
  ASSERT_TRUE(daemon.WaitForLog("INFO Processing new configuration.."));
  EXPECT_EQ(daemon.Log().at(3), "INFO Processing new configuration..") << "after the lines of the start";
  EXPECT_TRUE(daemon.WaitForLog("DEBUG UserConfig.data was read successfully from policy"));
  EXPECT_TRUE(daemon.WaitForLog("TRACE UserConfig.data: {\"rule_sets\":[{\"file_type\":0,\"fd_index\":0}]}"));
  EXPECT_TRUE(daemon.WaitForLog("TRACE Iterating all rules..."));
  EXPECT_TRUE(daemon.WaitForLog("TRACE File type: 0, ruleset type: 0, rule name: A"));
  const ManagedFD file = MakeFile("x");
  const Response response = daemon.Ask(MakeScan(0, {}), {file.Get()});
  const std::string id = std::to_string(response.header().id());
  EXPECT_TRUE(daemon.WaitForLog("DEBUG Got request with 1 fds: header { id: " + id + " } generic_data_request { }"));
  EXPECT_TRUE(daemon.WaitForLog("DEBUG Sending response header { id: " + id + " } generic_data_response { }"));
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
      daemon.Client().ScanAsync(file.Get(), BlockScan(), std::chrono::steady_clock::now() + seconds(60),
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
    ASSERT_TRUE(daemon.WaitForLog("INFO Stopping"));
  }
}

}  // namespace
}  // namespace vond::test
