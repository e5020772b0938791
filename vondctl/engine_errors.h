#pragma once

#include <cstdint>
#include <string>

namespace vond::vondctl {

/// The engine's result for a scan that ran into its time-out.
inline constexpr int kEngineTimeout = 26;

/// What an engine error (anything but 0) says about a scan, in words for people. `timeout_in_seconds` is the policy's.
[[nodiscard]] std::string EngineErrorText(int code, std::uint32_t timeout_in_seconds);

}  // namespace vond::vondctl
