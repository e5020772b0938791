#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <csignal>

#include "tests/support/test_support.h"
#include "utils/managed_fd.h"

namespace vond::test {
namespace {

using auto_resources::ManagedFD;

const std::string kStarting = "INFO vond is starting\n";
const std::string kReady =
    "INFO Creating StaticPatternMatchingDaemon..\nINFO StaticPatternMatchingDaemon is ready, waiting for requests\n";
const std::string kClosed =
    "INFO socket closed by peer\nERROR Exception in main loop: Failed to read request: Input/output error\nINFO "
    "Exiting\n";
const std::string kRefused = "ERROR Failed to parse arguments\n";

struct CommandLine {
  const char* name;
  std::vector<std::string> arguments;  // "@" stands for the number of a socket whose peer has closed
  int exit_status;                     // -1: ends by SIGABRT
  std::string out;
};

void PrintTo(const CommandLine& row, std::ostream* stream) { *stream << row.name; }

std::string InvalidPair(const std::string& argument) {
  return "ERROR Invalid <fd>:<id> pair - " + argument + "\nERROR Couldn't parse ipc arg - " + argument + "\n" +
         kRefused;
}

class CommandLines : public testing::TestWithParam<CommandLine> {};

TEST_P(CommandLines, EndAsTheyShould) {
  std::array<int, 2> pair{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()), 0);
  const ManagedFD socket(pair[0]);
  ManagedFD(pair[1]).Reset();

  std::vector<std::string> arguments = GetParam().arguments;
  for (std::string& argument : arguments) {
    if (argument.starts_with('@')) {
      argument.replace(0, 1, std::to_string(socket.Get()));
    }
  }
  arguments.insert(arguments.begin(), VOND_PATH);
  const ChildResult result = RunChild(arguments, {}, std::chrono::seconds(30), {socket.Get()});

  EXPECT_FALSE(result.timed_out);
  EXPECT_EQ(result.exit_status, GetParam().exit_status);
  EXPECT_EQ(result.out, kStarting + GetParam().out);
  if (GetParam().exit_status == -1) {
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_NE(result.err.find("Dumping backtrace\n"), std::string::npos);
  }
}

const std::string kMissing = "ERROR Communications channel is missing: requests\n";

INSTANTIATE_TEST_SUITE_P(
    Table, CommandLines,
    testing::Values(
        CommandLine{"peer_already_closed", {"-c", "@:requests"}, 0, kReady + kClosed},
        CommandLine{"name_is_ignored", {"-n", "some name", "-c", "@:requests"}, 0, kReady + kClosed},
        CommandLine{"blank_ends_the_id", {"-c", "@:requests and more"}, 0, kReady + kClosed},
        CommandLine{"non_option_arguments", {"-c", "@:requests", "def"}, 0, kReady + kClosed},
        CommandLine{"other_channels_too", {"-c", "@:requests", "-c", "999:other"}, 0, kReady + kClosed},
        CommandLine{"closed_descriptor",
                    {"-c", "999:requests"},
                    0,
                    kReady + "ERROR unix_receive_fds failed, \nERROR Exception in main loop: Failed to read request: "
                             "Bad file descriptor\nINFO Exiting\n"},
        CommandLine{"no_id", {"-c", "7:"}, 1, InvalidPair("7:")},
        CommandLine{"no_descriptor", {"-c", "requests"}, 1, InvalidPair("requests")},
        CommandLine{"blank_id", {"-c", "7: "}, 1, InvalidPair("7: ")},
        CommandLine{"unknown_option", {"-x"}, 1, "ERROR Invalid argument(s)\n" + kRefused},
        CommandLine{"missing_argument", {"-c"}, 1, "ERROR Invalid argument(s)\n" + kRefused},
        CommandLine{"no_arguments", {}, -1, kMissing}, CommandLine{"name_alone", {"-n", "anything"}, -1, kMissing},
        CommandLine{"long_id_is_cut", {"-c", "@:" + std::string(100, 'r') + std::string(50, 's')}, -1, kMissing}),
    [](const auto& row) { return row.param.name; });

TEST(CommandLine, ARepeatedChannelReplacesAndClosesTheFirst) {
  std::array<int, 2> first{};
  std::array<int, 2> second{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, first.data()), 0);
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, second.data()), 0);
  const ManagedFD first_peer(first[1]);
  const ManagedFD second_peer(second[1]);
  ManagedFD first_end(first[0]);
  ManagedFD second_end(second[0]);
  // One byte is no envelope: the daemon ends once it has read it, which it does only from the second socket.
  ASSERT_EQ(::send(second_peer.Get(), "x", 1, 0), 1);
  ASSERT_EQ(::send(first_peer.Get(), "x", 1, 0), 1);
  const ChildResult result = RunChild({VOND_PATH, "-c", std::to_string(first_end.Get()) + ":requests", "-c",
                                       std::to_string(second_end.Get()) + ":requests"},
                                      {}, std::chrono::seconds(30), {first_end.Get(), second_end.Get()});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(Lines(result.out)[3], "ERROR Failed to parse message, data_size=1");
  char byte = 0;
  EXPECT_EQ(::recv(first_end.Get(), &byte, 1, MSG_DONTWAIT), 1) << "the first socket was read";
  EXPECT_EQ(::recv(second_end.Get(), &byte, 1, MSG_DONTWAIT), -1);
}

TEST(CommandLine, FailingCryptographyEndsWithTwo) {
  const ChildResult result =
      RunChild({VOND_PATH, "-c", "9:requests"},
               {"LD_PRELOAD=" VOND_FAILING_CRYPTO_PATH, "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0"});
  EXPECT_EQ(result.exit_status, 2) << result.err;
  EXPECT_EQ(result.out, kStarting +
                            "ERROR Failed to initialize OpenSSL with error 0 (error:00000000:lib(0)::reason(0)), "
                            "exception: no entropy\n");
}

}  // namespace
}  // namespace vond::test
