#include "agent/held_policy.h"

#include <Poco/DigestEngine.h>
#include <Poco/SHA2Engine.h>
#include <fcntl.h>
#include <google/protobuf/util/json_util.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <system_error>
#include <thread>

#include "agent/error.h"

namespace vond::agent {
namespace {

using auto_resources::ManagedFD;
using static_pattern_matching_proto::UserConfigData;
using std::chrono::seconds;

constexpr off_t kMostBytes = off_t{1} << 30;
constexpr std::size_t kPiece = 1U << 20;
constexpr seconds kDeadlineSlack{60};
constexpr seconds kNoTimeoutDeadline{3600};  // where the policy has no time-out
constexpr seconds kLongestDeadline{2'592'000};
constexpr std::uint32_t kDefaultWorkers = 4;  // the daemon's, where the policy has no number

[[noreturn]] void Fail(const std::string& what, int error) {
  throw Error(ErrorCode::kPolicyRefused, "a rule file " + what + ": " + std::generic_category().message(error), error);
}

// Copies the file behind `fd`, at most `most` bytes of it, into a sealed one, and its bytes into `digest`.
ManagedFD Copy(int fd, off_t& most, Poco::DigestEngine& digest) {
  ManagedFD copy(::memfd_create("rules", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!copy.IsValid()) {
    Fail("can't be copied", errno);
  }
  std::vector<char> buffer(kPiece);
  for (off_t at = 0;;) {
    const ssize_t count = ::pread(fd, buffer.data(), buffer.size(), at);
    if (count == 0) {
      break;
    }
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      Fail("can't be read", errno);
    }
    most -= count;
    if (most < 0) {
      Fail("is too large to be kept", EFBIG);
    }
    const auto size = static_cast<std::size_t>(count);
    digest.update(buffer.data(), size);
    if (::write(copy.Get(), buffer.data(), size) != count) {
      Fail("can't be copied", errno);
    }
    at += count;
  }
  if (::fcntl(copy.Get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) != 0) {
    Fail("can't be copied", errno);
  }
  return copy;
}

UserConfigData Document(const std::string& json) {
  UserConfigData document;
  google::protobuf::util::JsonParseOptions options;
  options.ignore_unknown_fields = true;
  // Whether it is good is the daemon's to say, and what it takes is parsed alike here.
  if (!google::protobuf::util::JsonStringToMessage(json, &document, options).ok()) {
    document.Clear();
  }
  return document;
}

}  // namespace

HeldPolicy HoldPolicy(const Policy& policy, const std::string& origin) {
  HeldPolicy held;
  held.policy.json = PolicyRequest(policy).config().user_config().data();
  held.policy.log_level = policy.log_level;
  held.document = Document(held.policy.json);
  Poco::SHA2Engine digest(Poco::SHA2Engine::SHA_256);
  digest.update(held.policy.json);
  off_t most = kMostBytes;
  for (const int fd : policy.rule_set_fds) {
    if (const std::optional<Error> error = CheckScannable(fd, 0)) {
      throw Error(*error);
    }
    held.files.push_back(Copy(fd, most, digest));
    held.policy.rule_set_fds.push_back(held.files.back().Get());
  }

  vond_relay::Policy& description = held.description;
  description.set_sha256(Poco::DigestEngine::digestToHex(digest.digest()));
  description.set_origin(origin);
  for (const auto& info : held.document.rule_sets()) {
    vond_relay::RuleSet& rule_set = *description.add_rule_sets();
    rule_set.set_file_type(info.file_type());
    rule_set.set_rule_type(info.rule_type());
  }
  description.set_max_sample_size(held.document.max_sample_size());
  description.set_max_number_of_threads(held.document.max_number_of_threads());
  description.set_yara_timeout_in_seconds(held.document.yara_timeout_in_seconds());
  description.set_yara_retries_on_match(held.document.yara_retries_on_match());
  return held;
}

seconds DefaultDeadline(const UserConfigData& policy, int rule_types) {
  const std::uint64_t timeout = policy.yara_timeout_in_seconds();
  if (timeout == 0) {
    return kNoTimeoutDeadline;
  }
  const std::uint64_t scans =
      static_cast<std::uint64_t>(rule_types) * (std::uint64_t{policy.yara_retries_on_match()} + 1);
  const auto longest = static_cast<std::uint64_t>(kLongestDeadline.count());
  return seconds(std::min(timeout * std::min(scans, longest), longest)) + kDeadlineSlack;
}

std::size_t WorkerCount(const UserConfigData& policy) {
  const std::uint32_t threads = policy.max_number_of_threads();
  return std::min(std::max(std::thread::hardware_concurrency(), 1U), threads == 0 ? kDefaultWorkers : threads);
}

}  // namespace vond::agent
