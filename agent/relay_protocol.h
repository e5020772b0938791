#pragma once

#include <chrono>
#include <string>

#include "agent/error.h"
#include "agent/proto/Relay.pb.h"
#include "korvo_common/proto/KorvoDaemon.pb.h"
#include "utils/managed_fd.h"

// What goes between a relay and its clients beyond the daemon's own protocol: the relay's status, and a scan's failure
// with its reason, in members of the envelope that the daemon itself never uses. Stateless; any thread.
namespace vond::agent {

class Client;

/// Connects to the relay that listens at `path`; waits a while if too many others do the same. Throws Error
/// kStartFailed that names the path and what to do.
[[nodiscard]] auto_resources::ManagedFD ConnectToRelay(const std::string& path);

/// What the relay behind `client` says of itself. Throws Error: kBadAnswer if it is none, or any other kind.
[[nodiscard]] vond_relay::Status AskForStatus(Client& client, std::chrono::milliseconds timeout);

/// Whether `request` asks for the relay's status.
[[nodiscard]] bool IsStatusRequest(const korvo_daemon::Request& request);
[[nodiscard]] korvo_daemon::Response StatusResponse(const vond_relay::Status& status);

/// The answer to a scan that has none from the daemon. To an agent that knows nothing of it, it is not the result of a
/// scan, and so the file is one that was not scanned.
[[nodiscard]] korvo_daemon::Response FailureResponse(const Error& error);
/// The way back. A kDaemonDied comes out as kRelayFailed, since the connection still stands.
[[nodiscard]] Error ErrorIn(const korvo_daemon::GenericResult& result);

}  // namespace vond::agent
