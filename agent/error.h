#pragma once

#include <stdexcept>
#include <string>

namespace vond::agent {

/// Why a request has no answer, or was not sent.
enum class ErrorCode {
  kStartFailed,         ///< the daemon could not be started
  kDaemonDied,          ///< the daemon has ended or closed its channel; nothing will be answered any more
  kDeadlineExceeded,    ///< no answer in time; the daemon may still be at work on it
  kPacketTooLarge,      ///< the request is larger than the daemon's buffer (kMaxPacketSize); not sent
  kTooManyDescriptors,  ///< more descriptors than one packet carries (kMaxDescriptors); not sent
  kAnswerTooLarge,      ///< the answer did not fit into the daemon's socket buffer; the daemon dropped it
  kBadDescriptor,       ///< closed, write-only or path-only; not sent
  kNotRegularFile,      ///< a directory, pipe, socket or device, which would scan as an empty file; not sent
  kFileTooLarge,        ///< larger than the policy's max_sample_size; not sent
  kBadAnswer,           ///< the answer could not be parsed or is of another kind
  kPolicyRefused,       ///< the daemon refused the policy; its former one stays in force
  kSendFailed,          ///< the socket refused the packet, or the request is such that sending it would end the daemon
  kRelayFailed,         ///< the relay has no answer from its daemon to give
};

/// "packet_too_large" and so on.
[[nodiscard]] const char* ErrorName(ErrorCode code) noexcept;

/// A failure with its kind, a text for people (what failed, on what, what to do), and the errno behind it, if any.
class Error : public std::runtime_error {
 public:
  Error(ErrorCode code, const std::string& text, int sys_errno = 0)
      : std::runtime_error(text), code_(code), sys_errno_(sys_errno) {}
  [[nodiscard]] ErrorCode Code() const noexcept { return code_; }
  [[nodiscard]] int SysErrno() const noexcept { return sys_errno_; }

 private:
  ErrorCode code_;
  int sys_errno_;
};

}  // namespace vond::agent
