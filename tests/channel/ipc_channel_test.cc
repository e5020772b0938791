#include "utils/ipc_channel.h"

#include <fcntl.h>
#include <google/protobuf/empty.pb.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <thread>
#include <tuple>

#include "korvo_common/proto/KorvoDaemon.pb.h"
#include "korvo_common/signal_dispatcher.h"
#include "tests/support/test_support.h"
#include "utils/unix_fds.h"

namespace {

using auto_resources::ManagedFD;
using korvo::static_pattern_matching_daemon::IpcChannel;
using korvo::static_pattern_matching_daemon::unix_receive_fds;
using korvo::static_pattern_matching_daemon::unix_send_fds;
using vond::test::CaptureOutput;
using vond::test::MakeFile;
using vond::test::OpenDescriptors;

std::array<int, 2> MakePair(int type) {
  korvo_common::SignalDispatcher::Block(SIGPIPE);
  std::array<int, 2> fds{};
  EXPECT_EQ(::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds.data()), 0);
  return fds;
}

// Both ends of a connection, and what one Receive needs.
struct Ends {
  explicit Ends(int type = SOCK_SEQPACKET) : pair(MakePair(type)), channel(pair[0]), peer(new IpcChannel(pair[1])) {}
  Ends& Hangup() { return peer.reset(), *this; }
  Ends& Put(const std::string& packet, const std::vector<int>& files = {}) {
    EXPECT_EQ(files.empty() ? peer->Send(packet.data(), packet.size())
                            : peer->SendWithFds(packet.data(), packet.size(), files),
              0);
    return *this;
  }
  int Send(const std::string& text) { return channel.Send(text.data(), text.size()); }
  int SendFds(const std::vector<int>& files) { return channel.SendWithFds("x", 1, files); }
  int Receive(int timeout_ms = 0) { return channel.Receive(buffer.data(), buffer.size(), received, fds, timeout_ms); }
  int ReceiveMessage() { return channel.ReceiveMessage(message, buffer.size(), fds, 0); }
  void CloseReceived() { std::for_each(fds.begin(), fds.end(), &::close); }

  std::array<int, 2> pair;
  IpcChannel channel;
  std::unique_ptr<IpcChannel> peer;
  std::array<char, 100> buffer{};
  std::size_t received = 7;
  std::vector<int> fds{-7};
  korvo_daemon::Request message;
};

// Changes between the measuring and the writing.
class GrowingMessage : public google::protobuf::Message {
 public:
  Message* New(google::protobuf::Arena* /*arena*/) const override { return new GrowingMessage; }
  google::protobuf::Metadata GetMetadata() const override {
    return google::protobuf::Empty::default_instance().GetMetadata();
  }
  std::size_t ByteSizeLong() const override { return ++size_; }
  int GetCachedSize() const override { return 0; }

 private:
  mutable std::size_t size_ = 0;
};

// With 0 no descriptor may be polled.
int WithDescriptorLimit(rlim_t limit, const std::function<int()>& action) {
  rlimit before{};
  ::getrlimit(RLIMIT_NOFILE, &before);
  const rlimit lowered{limit, before.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &lowered);
  const int result = action();
  ::setrlimit(RLIMIT_NOFILE, &before);
  return result;
}

int FillWithFds(Ends& ends) {
  int result = 0;
  while (result == 0) {
    result = ends.SendFds({0});
  }
  return result;
}

int UseFileAsChannel(Ends& ends) {
  IpcChannel file(MakeFile("").Release());
  file.Shutdown();
  return file.Receive(ends.buffer.data(), ends.buffer.size(), ends.received, ends.fds, 0);
}

TEST(IpcChannel, FailuresReturnTheirCodeAndLogTheirLine) {
  const std::string send = "ERROR Failed to send data, \n";
  const std::string send_fds = "ERROR Failed to send data with fds, \n";
  const std::string serialize = "ERROR Failed to serialize message: \n";
  const std::string receive = "ERROR unix_receive_fds failed, \n";
  const std::string closed = "INFO socket closed by peer\n";
  struct {
    std::function<int(Ends&)> action;
    int result;
    std::string log;
  } const rows[] = {
      {[](Ends& e) { return e.Hangup().Send("x"); }, -EPIPE, send},
      {[](Ends& e) { return e.Send(std::string(1 << 20, 'x')); }, -EMSGSIZE, send},
      {[](Ends& e) { return e.Hangup().channel.SendMessage(e.message); }, -EPIPE, send},
      {[](Ends& e) { return e.Hangup().SendFds({0}); }, -EPIPE, send_fds},
      {[](Ends& e) { return e.SendFds({}); }, -EINVAL, send_fds},
      {[](Ends& e) { return e.SendFds(std::vector<int>{-1}); }, -EINVAL, send_fds},
      {[](Ends& e) { return e.SendFds(std::vector<int>{1000}); }, -EINVAL, send_fds},  // not open
      {[](Ends& e) { return e.SendFds(std::vector<int>(254)); }, -EINVAL, send_fds},
      {[](Ends& e) { return e.channel.SendMessageWithFds(e.message, {}); }, -EINVAL, send_fds},
      {[](Ends& e) { return FillWithFds(e); }, -EAGAIN, send_fds},
      {[](Ends& e) { return e.channel.SendMessage(GrowingMessage()); }, -EINVAL, serialize},
      {[](Ends& e) { return e.channel.SendMessageWithFds(GrowingMessage(), {0}); }, -EINVAL, serialize},
      {[](Ends& e) { return e.Receive(0); }, -ETIMEDOUT, ""},
      {[](Ends& e) { return e.Receive(20); }, -ETIMEDOUT, ""},
      {[](Ends& e) { return e.Hangup().Receive(-1); }, -EIO, closed},
      {[](Ends& e) { return e.Hangup().ReceiveMessage(); }, -EIO, closed},
      {[](Ends& e) { return e.Put("").Receive(); }, -EIO, closed},
      {[](Ends& e) { return e.channel.Shutdown(), e.Receive(-1); }, -EIO, closed},
      {[](Ends& e) { return e.Send("unread") != 0 ? 0 : e.Hangup().Receive(); }, -ECONNRESET, receive},
      {[](Ends& e) { return WithDescriptorLimit(0, [&e] { return e.Receive(); }); }, -EINVAL, "ERROR poll failed, \n"},
      {[](Ends& e) { return UseFileAsChannel(e); }, -ENOTSOCK, "ERROR shutdown failed, \n" + receive}};
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    const std::set<int> before = OpenDescriptors();
    {
      Ends ends;
      int result = 0;
      EXPECT_EQ(CaptureOutput(STDOUT_FILENO, [&] { result = row.action(ends); }), row.log);
      EXPECT_EQ(result, row.result);
      EXPECT_EQ(ends.fds, std::vector<int>{-7}) << "untouched";
      EXPECT_EQ(ends.received, 7U) << "untouched";
    }
    EXPECT_EQ(OpenDescriptors(), before);
  }
}

TEST(IpcChannel, ShortWriteIsAnError) {
  Ends ends(SOCK_STREAM);
  ::fcntl(ends.pair[0], F_SETFL, O_NONBLOCK);
  std::string text(1 << 20, 'x');
  int result = 0;
  const std::string log = CaptureOutput(STDOUT_FILENO, [&] { result = ends.Send(text); });
  EXPECT_EQ(result, -EIO);
  const std::string sent = std::to_string(::recv(ends.pair[1], text.data(), text.size(), 0));
  EXPECT_EQ(log, "ERROR Failed to send data, buf_size=1048576, sent=" + sent + "\n");
  EXPECT_EQ(ends.channel.SendWithFds(text.data(), text.size(), {0}), 0) << "not noticed when descriptors go along";
}

TEST(IpcChannel, PacketsArriveWholeWithTheirDescriptors) {
  Ends ends;
  const ManagedFD file = MakeFile("content");
  const std::set<int> before = OpenDescriptors();
  // What is sent, with how many descriptors, and how many arrive.
  for (const auto& [text, count, arrive] : std::vector<std::tuple<std::string, int, std::size_t>>{
           {"a", 1, 1}, {"", 1, 1}, {std::string(100, 'b'), 31, 31}, {"c", 0, 0}, {"d", 32, 32}, {"e", 33, 32}}) {
    ASSERT_EQ(ends.Put(text, std::vector<int>(static_cast<std::size_t>(count), file.Get())).Receive(-1), 0) << text;
    EXPECT_EQ(std::string(ends.buffer.data(), ends.received), text);
    EXPECT_EQ(ends.fds.size(), arrive);
    std::set<int> expected = before;
    expected.insert(ends.fds.begin(), ends.fds.end());
    EXPECT_EQ(OpenDescriptors(), expected);
    for (const int fd : ends.fds) {
      char byte = 0;
      EXPECT_TRUE(::pread(fd, &byte, 1, 6) == 1 && byte == 't');
      EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
    }
    ends.CloseReceived();
    EXPECT_EQ(OpenDescriptors(), before);
  }
}

TEST(IpcChannel, MessagesArriveAsTheyWere) {
  Ends ends;
  const std::set<int> before = OpenDescriptors();
  ends.message.mutable_header()->set_id(5);
  ASSERT_EQ(ends.peer->SendMessage(ends.message), 0);
  ASSERT_EQ(ends.peer->SendMessageWithFds(ends.message, {0, 1}), 0);
  ASSERT_EQ(ends.peer->SendMessageWithFds(korvo_daemon::Request(), {0}), 0);
  ASSERT_EQ(ends.Receive(), 0);
  EXPECT_EQ(std::string(ends.buffer.data(), ends.received), "\x0a\x02\x10\x05") << "nothing around the message";
  ends.message.Clear();
  for (const bool is_empty : {false, true}) {
    ASSERT_EQ(ends.ReceiveMessage(), 0);
    EXPECT_EQ(ends.message.header().id(), is_empty ? 0U : 5U);
    EXPECT_EQ(ends.fds.size(), is_empty ? 1U : 2U);
    ends.CloseReceived();
  }
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST(IpcChannel, MessagesThatDoNotParseLoseTheirDescriptors) {
  korvo_daemon::Request large;
  large.mutable_generic_data_request()->set_data(std::string(200, 'x'));
  for (const std::string& packet : {std::string("\xff\xff\xff"), large.SerializeAsString()}) {
    Ends ends;
    const std::set<int> before = OpenDescriptors();
    const std::string size = packet.size() == 3 ? "3" : "100";  // cut to the buffer
    for (const bool with_list : {true, false}) {
      ends.Put(packet, {0, 1});
      int result = 0;
      const std::string log = CaptureOutput(STDOUT_FILENO, [&] {
        result = with_list ? ends.ReceiveMessage() : ends.channel.ReceiveMessage(ends.message, 100, 0);
      });
      EXPECT_EQ(log, "ERROR Failed to parse message, data_size=" + size + "\n");
      EXPECT_EQ(result, -EINVAL);
      EXPECT_EQ(ends.fds.size(), 2U) << "the closed numbers stay";
      EXPECT_EQ(OpenDescriptors(), before);
    }
  }
}

TEST(IpcChannel, ReceivingWithoutAListDropsDescriptorsUnclosed) {
  Ends ends;
  const std::size_t before = OpenDescriptors().size();
  ends.Put("x", {0, 1}).Put("", {0});
  EXPECT_EQ(ends.channel.Receive(ends.buffer.data(), 100, ends.received, 0), 0);
  EXPECT_EQ(OpenDescriptors().size(), before + 2);
  EXPECT_EQ(ends.channel.ReceiveMessage(ends.message, 100, 0), 0);
  EXPECT_EQ(OpenDescriptors().size(), before + 3);
}

TEST(IpcChannel, ShutdownWakesTheReceiverAndLeavesSending) {
  Ends ends;
  ends.Put("pending");
  std::thread receiver([&ends] { EXPECT_EQ(ends.Receive(-1) + ends.Receive(-1), -EIO); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ends.channel.Shutdown();
  receiver.join();
  EXPECT_EQ(ends.Send("answer"), 0);
  EXPECT_EQ(ends.peer->Receive(ends.buffer.data(), 100, ends.received, 0), 0);
}

TEST(UnixFds, LimitsOfTheHelpers) {
  Ends ends;
  std::array<int, 4> fds{-7, -7, -7, -7};
  std::size_t size = 0;
  const auto receive = [&](std::size_t max) {
    size = ends.buffer.size();
    return unix_receive_fds(ends.pair[0], fds.data(), max, ends.buffer.data(), &size);
  };
  const auto fails = [](int result, int error) { return result == -1 && errno == error; };
  EXPECT_TRUE(fails(unix_send_fds(ends.pair[0], nullptr, 1, "x", 1), EINVAL));
  EXPECT_TRUE(fails(unix_send_fds(ends.pair[0], ends.pair.data(), 0, "x", 1), EINVAL));
  EXPECT_TRUE(fails(unix_send_fds(-1, ends.pair.data(), 1, "x", 1), EINVAL));
  EXPECT_TRUE(fails(unix_receive_fds(ends.pair[0], nullptr, 1, nullptr, &size), EINVAL));
  EXPECT_TRUE(fails(unix_receive_fds(-1, fds.data(), 1, nullptr, &size), EINVAL));
  EXPECT_TRUE(fails(receive(0), EINVAL));
  EXPECT_TRUE(fails(receive(4), EAGAIN)) << "never waits";

  const std::set<int> before = OpenDescriptors();
  for (const std::size_t odd : {1U, 3U}) {  // padding in the control buffer lets one more in
    ends.Put("x", std::vector<int>(odd + 1));
    EXPECT_TRUE(fails(receive(odd), EBADMSG)) << odd;
    EXPECT_EQ(OpenDescriptors(), before);
  }
  EXPECT_EQ(fds[0], -7);

  // A process at its limit gets what fits.
  const auto lowest_free = static_cast<rlim_t>(ManagedFD(::dup(0)).Get());
  ends.Put("x", {0, 1, 0});
  EXPECT_EQ(WithDescriptorLimit(lowest_free + 1, [&] { return receive(4); }), 1);
  ::close(fds[0]);
  EXPECT_EQ(OpenDescriptors(), before);

  const int on = 1;
  ::setsockopt(ends.pair[0], SOL_SOCKET, SO_PASSCRED, &on, sizeof(on));
  ends.Put("credentials", {0});  // the first control message, the only one looked at, is now the sender's credentials
  EXPECT_EQ(receive(4), 0);
  EXPECT_EQ(size, 11U);
}

}  // namespace
