#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace korvo::static_pattern_matching_daemon {

/// What the agent asks for with the environment variable VOND_SANDBOX: "on" or "required", then with commas between
/// them "memory=BYTES", "descriptors=N", "cpu=SECONDS", "uid=N", "gid=N" and "magic", each of which may be missing.
struct SandboxSettings {
  bool required = false;          ///< a layer that can't be had ends the daemon before it serves
  bool magic = false;             ///< libmagic's database stays readable
  std::uint64_t memory = 0;       ///< bytes that the process may hold in private writable memory; 0: no limit
  std::uint64_t descriptors = 0;  ///< 0: no limit but the inherited one
  std::uint64_t cpu = 0;          ///< seconds of processor time; 0: no limit
  std::optional<uid_t> uid;       ///< whom a daemon that was started by root becomes
  std::optional<gid_t> gid;
};

/// Throws std::invalid_argument with what is wrong with `text`.
[[nodiscard]] SandboxSettings ParseSandboxSettings(std::string_view text);

/// Enters the sandbox that VOND_SANDBOX asks for; without that variable nothing happens and nothing is said. To be
/// called once, while the process has one thread, with everything open that it will ever need: afterwards it can open
/// nothing. A layer that can't be had is one line on standard error, beginning with "sandbox: ". False: the daemon must
/// not go on, since that layer is required, or since the variable makes no sense.
///
/// In builds with sanitizers, which open files and reserve terabytes, there is none: "on" is silently ignored, and
/// "required" fails.
[[nodiscard]] bool EnterSandbox();

/// What std::thread::hardware_concurrency() was when the sandbox was entered, since from inside it can't be asked for:
/// the C library reads it from /sys. Outside a sandbox it is asked for.
[[nodiscard]] unsigned ProcessorCount();

// The layers, in the order in which EnterSandbox takes them; public for tests that look at one of them alone. Each
// returns why it can't be had, or nothing.
[[nodiscard]] std::string LeaveNetwork();
[[nodiscard]] std::string LimitResources(const SandboxSettings& settings);
[[nodiscard]] std::string BecomeUser(const SandboxSettings& settings);
[[nodiscard]] std::string ForgoPrivileges();  ///< capabilities now, no_new_privs for good
[[nodiscard]] std::string LeaveFileSystem(const SandboxSettings& settings);  ///< Landlock; wants the one before
[[nodiscard]] std::string FilterSystemCalls(const SandboxSettings& settings);

}  // namespace korvo::static_pattern_matching_daemon
