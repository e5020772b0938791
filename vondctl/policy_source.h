#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/client.h"
#include "static_pattern_matching/proto/StaticPatternMatching.pb.h"
#include "utils/managed_fd.h"

namespace vond::vondctl {

/// The policy or its rules can't be read; the text names file and reason.
class PolicyError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// One rule file of a rule set.
struct RuleFile {
  std::string path;
  std::string content;  ///< as it stands on disk: source, or packed
};

/// One entry of the policy's rule sets, made of one file or of all the rule files of folders.
struct RuleSetSource {
  std::int32_t file_type = 0;
  static_pattern_matching_proto::RuleType rule_type = static_pattern_matching_proto::Block;
  std::vector<RuleFile> files;
};

/// A policy ready to be sent: the document, whose `fd_index` counts in `rule_set_fds`, and what it was made from.
/// Owns its descriptors, which are memfds.
struct PolicySource {
  static_pattern_matching_proto::UserConfigData document;
  std::string json;
  std::vector<RuleSetSource> rule_sets;  ///< in the document's order
  std::vector<auto_resources::ManagedFD> rule_set_fds;

  [[nodiscard]] agent::Policy ForAgent(std::uint32_t log_level) const;
};

/// The source that the daemon compiles for `rule_set`: a lone file as it stands, several decoded and joined, each
/// beginning on a line of its own. Throws PolicyError for a damaged packed file.
[[nodiscard]] std::string JoinedContent(const RuleSetSource& rule_set);

/// A policy of block rules for file type 0 from files and folders (their *.yar and *.yara files, at any depth). Throws
/// PolicyError.
[[nodiscard]] PolicySource PolicyFromRules(const std::vector<std::string>& paths, std::uint32_t timeout_in_seconds);

/// Reads a policy file: the daemon's own JSON document, in which each rule set has a "path" (a file or folder, relative
/// to the policy file) in place of the descriptor's index. Throws PolicyError.
[[nodiscard]] PolicySource PolicyFromFile(const std::string& path);

}  // namespace vond::vondctl
