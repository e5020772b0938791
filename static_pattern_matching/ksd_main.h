#pragma once

namespace korvo::static_pattern_matching_daemon {

/// The whole program: start-up, serving until SIGTERM, orderly shut-down. Returns the exit status: 1 for bad arguments,
/// 2 when the cryptographic library does not initialise; an orderly stop gives 0, mostly through the reader thread's
/// _exit, and needs "requests" to be a socket: the read side of anything else can't be shut. A missing "requests"
/// channel or a daemon that can't be made throws.
int ksd_main(int argc, char** argv);

}  // namespace korvo::static_pattern_matching_daemon
