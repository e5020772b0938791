#include "utils/ipc_channel.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>

#include "utils/log.h"
#include "utils/unix_fds.h"

namespace korvo::static_pattern_matching_daemon {
namespace {

// The serialized form of a message; null after the failure has been logged.
struct SerializedMessage {
  std::unique_ptr<char[]> bytes;
  std::size_t size = 0;
};

SerializedMessage Serialize(const google::protobuf::Message& message) {
  SerializedMessage result;
  result.size = message.ByteSizeLong();
  result.bytes = std::make_unique_for_overwrite<char[]>(result.size);
  if (!message.SerializeToArray(result.bytes.get(), static_cast<int>(result.size))) {
    LOG_ERROR("Failed to serialize message: ", message.ShortDebugString());
    result.bytes.reset();
  }
  return result;
}

}  // namespace

int IpcChannel::Send(const void* buf, std::size_t len) {
  const ssize_t sent = ::write(socket_.Get(), buf, len);
  if (sent == -1) {
    const int error = errno;
    LOG_ERROR("Failed to send data, ");
    return -error;
  }
  if (static_cast<std::size_t>(sent) != len) {
    LOG_ERROR("Failed to send data, buf_size=", len, ", sent=", sent);
    return -EIO;
  }
  return 0;
}

int IpcChannel::SendMessage(const google::protobuf::Message& message) {
  const SerializedMessage serialized = Serialize(message);
  return serialized.bytes ? Send(serialized.bytes.get(), serialized.size) : -EINVAL;
}

int IpcChannel::SendWithFds(const void* buf, std::size_t len, const std::vector<int>& fds) {
  if (unix_send_fds(socket_.Get(), fds.data(), fds.size(), buf, len) == -1) {
    const int error = errno;
    LOG_ERROR("Failed to send data with fds, ");
    return -error;
  }
  return 0;
}

int IpcChannel::SendMessageWithFds(const google::protobuf::Message& message, const std::vector<int>& fds) {
  const SerializedMessage serialized = Serialize(message);
  return serialized.bytes ? SendWithFds(serialized.bytes.get(), serialized.size, fds) : -EINVAL;
}

int IpcChannel::Receive(void* buf, std::size_t size, std::size_t& received, std::vector<int>& fds, int timeout_ms) {
  pollfd poll_fd{socket_.Get(), POLLIN, 0};
  const int ready = ::poll(&poll_fd, 1, timeout_ms);
  if (ready == 0) {
    return -ETIMEDOUT;
  }
  if (ready == -1) {
    const int error = errno;
    LOG_ERROR("poll failed, ");
    return -error;
  }

  std::array<int, kMaxDescriptors> arrived{};
  std::size_t length = size;
  const int count = unix_receive_fds(socket_.Get(), arrived.data(), arrived.size(), buf, &length);
  if (count == -1) {
    const int error = errno;
    LOG_ERROR("unix_receive_fds failed, ");
    return -error;
  }
  if (count < 0 || static_cast<std::size_t>(count) > arrived.size()) {
    LOG_ERROR("Received too many fds ", count);
    return -EIO;
  }
  if (count == 0 && length == 0) {
    LOG_INFO("socket closed by peer");
    return -EIO;
  }
  fds.assign(arrived.begin(), arrived.begin() + count);
  received = length;
  return 0;
}

int IpcChannel::Receive(void* buf, std::size_t size, std::size_t& received, int timeout_ms) {
  std::vector<int> dropped;
  return Receive(buf, size, received, dropped, timeout_ms);
}

int IpcChannel::ReceiveMessage(google::protobuf::Message& message, std::size_t max_size, std::vector<int>& fds,
                               int timeout_ms) {
  const auto buffer = std::make_unique_for_overwrite<char[]>(max_size);
  std::size_t received = 0;
  const int result = Receive(buffer.get(), max_size, received, fds, timeout_ms);
  if (result != 0) {
    return result;
  }
  if (!message.ParseFromArray(buffer.get(), static_cast<int>(received))) {
    LOG_ERROR("Failed to parse message, data_size=", received);
    for (const int fd : fds) {
      ::close(fd);
    }
    return -EINVAL;
  }
  return 0;
}

int IpcChannel::ReceiveMessage(google::protobuf::Message& message, std::size_t max_size, int timeout_ms) {
  std::vector<int> dropped;
  return ReceiveMessage(message, max_size, dropped, timeout_ms);
}

void IpcChannel::Shutdown() {
  if (::shutdown(socket_.Get(), SHUT_RD) != 0) {
    LOG_ERROR("shutdown failed, ");
  }
}

}  // namespace korvo::static_pattern_matching_daemon
