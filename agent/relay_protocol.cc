#include "agent/relay_protocol.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "agent/client.h"

namespace vond::agent {
namespace {

using auto_resources::ManagedFD;

constexpr const char* kStatusFunction = "vond.relay.status";
constexpr time_t kConnectSeconds = 10;

[[noreturn]] void FailToConnect(const std::string& path, int error) {
  std::string text = "no relay at " + path + ": " + std::generic_category().message(error);
  if (error == ENOENT || error == ECONNREFUSED) {
    text += "; \"vondctl start --listen " + path + "\" starts one";
  } else if (error == EACCES) {
    text += "; its socket's mode keeps this user out";
  } else if (error == EPROTOTYPE) {
    text += "; the socket belongs to something else";
  }
  throw Error(ErrorCode::kStartFailed, text, error);
}

}  // namespace

ManagedFD ConnectToRelay(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    FailToConnect(path, path.empty() ? ENOENT : ENAMETOOLONG);
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  ManagedFD fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  const timeval patience{kConnectSeconds, 0};
  if (!fd.IsValid() || ::setsockopt(fd.Get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) != 0 ||
      ::connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    FailToConnect(path, errno);
  }
  return fd;
}

vond_relay::Status AskForStatus(Client& client, std::chrono::milliseconds timeout) {
  korvo_daemon::Request request;
  request.mutable_plugin_request()->set_function_name(kStatusFunction);
  const Answer answer = client.Send(std::move(request), {}, timeout);
  if (answer.error) {
    throw Error(*answer.error);
  }
  vond_relay::Status status;
  if (!answer.response.has_plugin_response() || !status.ParseFromString(answer.response.plugin_response().data())) {
    throw Error(ErrorCode::kBadAnswer, "what answers there is no relay");
  }
  return status;
}

bool IsStatusRequest(const korvo_daemon::Request& request) {
  return request.has_plugin_request() && request.plugin_request().function_name() == kStatusFunction;
}

korvo_daemon::Response StatusResponse(const vond_relay::Status& status) {
  korvo_daemon::Response response;
  status.SerializeToString(response.mutable_plugin_response()->mutable_data());
  return response;
}

korvo_daemon::Response FailureResponse(const Error& error) {
  korvo_daemon::Response response;
  korvo_daemon::GenericResult& result = *response.mutable_generic_result();
  result.set_result_code(static_cast<std::uint32_t>(error.Code()) + 1);  // 0 would be none
  result.set_error_message(error.what());
  return response;
}

Error ErrorIn(const korvo_daemon::GenericResult& result) {
  const std::uint32_t last = static_cast<std::uint32_t>(ErrorCode::kRelayFailed) + 1;
  if (result.result_code() == 0 || result.result_code() > last) {
    return {ErrorCode::kBadAnswer, "an answer of an unknown kind: " + result.error_message()};
  }
  const auto code = static_cast<ErrorCode>(result.result_code() - 1);
  return {code == ErrorCode::kDaemonDied ? ErrorCode::kRelayFailed : code, result.error_message()};
}

}  // namespace vond::agent
