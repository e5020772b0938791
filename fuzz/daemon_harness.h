#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "static_pattern_matching/static_pattern_matching_daemon.h"
#include "utils/ipc_channel.h"
#include "utils/managed_fd.h"

namespace vond::fuzz {

struct Packet {
  std::string bytes;
  std::vector<auto_resources::ManagedFD> fds;
};

/// The daemon object at the other end of a socket pair; one for all inputs, never destroyed, since its end would be the
/// process's. What a policy has set thus stays for later inputs. One thread.
class DaemonHarness {
 public:
  /// To be called while no descriptor of the input is open: those that are open now are what must remain.
  [[nodiscard]] static DaemonHarness& ForNextInput();

  /// Sends the packets one after the other and requires of the daemon: one good answer for each, `stats` still served
  /// after them, no descriptor left open, and no end of the process. Leaves out the packets that do end it, and
  /// policies that permit long scans. At most 16 packets: their descriptors are open all at once.
  void Serve(std::vector<Packet> packets);

 private:
  DaemonHarness();
  void Send(const std::string& bytes, const std::vector<auto_resources::ManagedFD>& fds);
  // What identifies an answer: its header and kind.
  [[nodiscard]] std::string ReceiveAnswer();

  auto_resources::ManagedFD peer_;
  std::vector<char> buffer_;
  korvo::static_pattern_matching_daemon::IpcChannel* channel_ = nullptr;
  korvo::static_pattern_matching_daemon::StaticPatternMatchingDaemon* daemon_ = nullptr;
  std::uint64_t last_id_ = 1ULL << 63;
  std::size_t open_descriptors_ = 0;
};

}  // namespace vond::fuzz
