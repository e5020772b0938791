#pragma once

#include <google/protobuf/message.h>

#include <cstddef>
#include <vector>

#include "utils/managed_fd.h"

namespace korvo::static_pattern_matching_daemon {

/// The daemon's end of the Unix sequenced-packet socket to the agent. One packet is one serialized message, nothing
/// around it, with up to kMaxDescriptors descriptors.
///
/// Owns the socket. One thread receives; callers serialise sends; Shutdown from any thread. Every operation returns 0
/// or a negated errno, logs its own failure, never throws (but for memory exhaustion) and never retries. Received
/// descriptors belong to the caller. Timeouts are in milliseconds, -1 waits without limit, 0 looks once. The five
/// error lines that end in ", " have nothing after the blank on purpose: the code is in the result.
class IpcChannel {
 public:
  static constexpr std::size_t kMaxDescriptors = 32;

  /// Takes ownership of a connected socket.
  explicit IpcChannel(int fd) : socket_(fd) {}

  /// One write. -EIO on a short one.
  [[nodiscard]] int Send(const void* buf, std::size_t len);
  /// -EINVAL when the message does not serialize.
  [[nodiscard]] int SendMessage(const google::protobuf::Message& message);
  /// The descriptors stay the caller's. -EINVAL for an empty list.
  [[nodiscard]] int SendWithFds(const void* buf, std::size_t len, const std::vector<int>& fds);
  [[nodiscard]] int SendMessageWithFds(const google::protobuf::Message& message, const std::vector<int>& fds);

  /// Receives one packet: `received` bytes into `buf`, and replaces `fds` by its descriptors. A longer packet is cut
  /// to `size`. -ETIMEDOUT, or -EIO when the peer closed or the read side was shut. On failure `fds` is untouched.
  [[nodiscard]] int Receive(void* buf, std::size_t size, std::size_t& received, std::vector<int>& fds, int timeout_ms);
  /// As above, but descriptors that came along are dropped without being closed: for peers that never send any.
  [[nodiscard]] int Receive(void* buf, std::size_t size, std::size_t& received, int timeout_ms);
  /// Receives and parses one message of at most `max_size` bytes. -EINVAL when it does not parse: its descriptors are
  /// then closed, but their numbers stay in `fds`.
  [[nodiscard]] int ReceiveMessage(google::protobuf::Message& message, std::size_t max_size, std::vector<int>& fds,
                                   int timeout_ms);
  /// As above, but descriptors that came with a good message are dropped without being closed.
  [[nodiscard]] int ReceiveMessage(google::protobuf::Message& message, std::size_t max_size, int timeout_ms);

  /// Shuts the read side: a thread blocked in Receive wakes with -EIO, responses can still be sent.
  void Shutdown();

 private:
  auto_resources::ManagedFD socket_;
};

}  // namespace korvo::static_pattern_matching_daemon
