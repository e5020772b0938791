#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>

#include "tests/support/test_support.h"
#include "utils/managed_fd.h"

namespace vond::test {
namespace {

using auto_resources::ManagedFD;

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

}  // namespace
}  // namespace vond::test
