#include "agent/error.h"

namespace vond::agent {

const char* ErrorName(ErrorCode code) noexcept {
  switch (code) {
    case ErrorCode::kStartFailed:
      return "start_failed";
    case ErrorCode::kDaemonDied:
      return "daemon_died";
    case ErrorCode::kDeadlineExceeded:
      return "deadline_exceeded";
    case ErrorCode::kPacketTooLarge:
      return "packet_too_large";
    case ErrorCode::kTooManyDescriptors:
      return "too_many_descriptors";
    case ErrorCode::kAnswerTooLarge:
      return "answer_too_large";
    case ErrorCode::kBadDescriptor:
      return "bad_descriptor";
    case ErrorCode::kNotRegularFile:
      return "not_regular_file";
    case ErrorCode::kFileTooLarge:
      return "file_too_large";
    case ErrorCode::kBadAnswer:
      return "bad_answer";
    case ErrorCode::kPolicyRefused:
      return "policy_refused";
    case ErrorCode::kSendFailed:
      return "send_failed";
    case ErrorCode::kRelayFailed:
      return "relay_failed";
  }
  return "unknown";
}

}  // namespace vond::agent
