#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace vond::agent {

enum class SandboxMode {
  kOff,       ///< the daemon has its agent's rights
  kOn,        ///< each layer that can be had; a line on standard error, "sandbox: ...", for each that can't
  kRequired,  ///< all layers, or no daemon
};

/// What a daemon may do once it has started: docs/sandbox.md has the layers. It enters them by itself, before its first
/// request, so that its program and libraries may lie where only the agent can read. Without effect on programs other
/// than vond.
struct SandboxOptions {
  SandboxMode mode = SandboxMode::kOn;
  /// Bytes of private writable memory; 0: no limit. Scanned files, which are mapped, do not count. Compiling 10,000
  /// rules takes about 800 MB for the moment.
  std::uint64_t memory_limit = std::uint64_t{4} << 30;
  std::uint64_t descriptor_limit = 1024;  ///< what is inherited counts where it is lower; 0: that alone
  std::uint64_t cpu_seconds = 0;          ///< of the daemon's whole life; 0: no limit
  /// Whom a daemon becomes that was started by root; 0: it stays root, without capabilities.
  uid_t uid = 65534;
  gid_t gid = 65534;
  /// Leaves libmagic's database readable. Rules with `import "magic"` need it: without, the first scan by one ends the
  /// daemon with SIGSYS.
  bool magic_database = false;
};

/// The name and value of the environment variable that tells the daemon; the value is empty for kOff.
inline constexpr const char* kSandboxVariable = "VOND_SANDBOX";
[[nodiscard]] std::string SandboxVariable(const SandboxOptions& options);

/// Whether the process `pid` is confined: no new privileges, system calls filtered. By what /proc says of it, not by
/// its own word.
[[nodiscard]] bool IsConfined(pid_t pid);

}  // namespace vond::agent
