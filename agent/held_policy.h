#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "agent/client.h"
#include "agent/proto/Relay.pb.h"
#include "utils/managed_fd.h"

namespace vond::agent {

/// A policy that can be sent again and again, whatever becomes of the files it was made from: it owns copies of its
/// rule files, as memfds that nobody can change.
struct HeldPolicy {
  Policy policy;  ///< its descriptors are those of `files`
  std::vector<auto_resources::ManagedFD> files;
  static_pattern_matching_proto::UserConfigData document;
  vond_relay::Policy description;  ///< without generation, time and refusals
};

/// Copies the rule files. `origin` is for people. Throws Error: kNotRegularFile, kBadDescriptor, or kPolicyRefused for
/// rule files of more than 1 GiB together or ones that can't be read or copied.
[[nodiscard]] HeldPolicy HoldPolicy(const Policy& policy, const std::string& origin);

/// How long the scan of one file may take until the daemon counts as hung: what the policy's time-outs add up to, and
/// more, since the engine looks at its clock only now and then.
[[nodiscard]] std::chrono::seconds DefaultDeadline(const static_pattern_matching_proto::UserConfigData& policy,
                                                   int rule_types);

/// How many scans the daemon has under way at once with this policy, on this machine.
[[nodiscard]] std::size_t WorkerCount(const static_pattern_matching_proto::UserConfigData& policy);

}  // namespace vond::agent
