#pragma once

#include <string>

namespace vond::agent {

/// Tells the service manager of a state, in the words of sd_notify(3) ("READY=1\nSTATUS=..."), if there is one
/// (NOTIFY_SOCKET). One datagram, without waiting; what can't be sent is lost. Any thread, as long as nobody changes
/// the environment. Returns whether it was sent.
bool NotifyServiceManager(const std::string& state);

}  // namespace vond::agent
