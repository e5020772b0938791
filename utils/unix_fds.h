#pragma once

#include <cstddef>

namespace korvo::static_pattern_matching_daemon {

/// Sends `len` bytes of `buf` (none when null) and copies of the `count` descriptors as one packet, without blocking.
/// Returns 0, or -1 with `errno`: EINVAL for a missing or empty list, a negative `sock` or a descriptor that is not
/// open. The descriptors stay the caller's. `extra_flags` is added to the flags of sendmsg. Any thread.
[[nodiscard]] int unix_send_fds(int sock, const int* fds, std::size_t count, const void* buf, std::size_t len,
                                int extra_flags = 0);

/// Receives one packet without blocking: at most `*len` bytes into `buf` (none when null) and at most `max`
/// descriptors into `fds`, which become the caller's and are close-on-exec. Sets `*len` to the bytes received and
/// returns the number of descriptors, or -1 with `errno`: EINVAL for a missing array, `max` 0 or a negative `sock`,
/// EBADMSG when more than `max` arrived (those are closed). Only the first control message is looked at, and a packet
/// or list that was cut is not reported.
[[nodiscard]] int unix_receive_fds(int sock, int* fds, std::size_t max, void* buf, std::size_t* len);

}  // namespace korvo::static_pattern_matching_daemon
