#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/client.h"
#include "static_pattern_matching/proto/StaticPatternMatching.pb.h"
#include "utils/managed_fd.h"
#include "vondctl/problem.h"

namespace vond::vondctl {

/// The policy or its rules can't be read; the text names each file and reason, a line each.
class PolicyError : public std::runtime_error {
 public:
  explicit PolicyError(std::vector<Problem> problems);
  [[nodiscard]] const std::vector<Problem>& Problems() const noexcept { return problems_; }

 private:
  std::vector<Problem> problems_;
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
  std::string path;                   ///< of the policy file; empty for a policy made of rules alone
  std::string text;                   ///< of the policy file
  std::map<std::string, long> lines;  ///< of the policy file; see json_places.h

  /// The line of a value of the policy file ("rule_sets/0/path"), 0 if not known.
  [[nodiscard]] long LineOf(const std::string& value) const;
  /// A line of the policy file, for people to find a place by; empty for 0.
  [[nodiscard]] std::string Excerpt(long line) const;
  [[nodiscard]] agent::Policy ForAgent(std::uint32_t log_level) const;
};

/// Adds the file `path`, or the rule files (*.yar, *.yara) at any depth of a folder, in byte order of their paths, to
/// `files`; what can't be read or unpacked goes to `problems`.
void ReadRuleFiles(const std::string& path, std::vector<RuleFile>& files, std::vector<Problem>& problems);

/// The source that the daemon compiles for `rule_set`: a lone file as it stands, several decoded and joined, each
/// beginning on a line of its own, and none inside what the one before leaves open (FindOpenEnd). Throws the decoder's
/// exceptions for a damaged packed file.
[[nodiscard]] std::string JoinedContent(const RuleSetSource& rule_set);

/// The line of `text` that begins at `begin`, for people to find a place by: without its newline, cut where it is long.
[[nodiscard]] std::string ExcerptAt(const std::string& text, std::size_t begin);

/// A policy of block rules for file type 0 from files and folders (their *.yar and *.yara files, at any depth). Adds
/// what can't be read or unpacked to `problems` and leaves it out: such a policy is to be looked at, not sent.
[[nodiscard]] PolicySource ReadRules(const std::vector<std::string>& paths, std::uint32_t timeout_in_seconds,
                                     std::vector<Problem>& problems);

/// The same of a file that need not exist.
[[nodiscard]] PolicySource PolicyFromRuleFile(RuleFile file);

/// Reads a policy file: the daemon's own JSON document, in which each rule set has a "path" (a file or folder, relative
/// to the policy file) in place of the descriptor's index. Adds errors, and warnings about the document, to `problems`;
/// what can't be had is left out, and a policy with an error is to be looked at, not sent.
[[nodiscard]] PolicySource ReadPolicy(const std::string& path, std::vector<Problem>& problems);

/// ReadRules and ReadPolicy for a policy that is to be sent. Throw PolicyError with all errors.
[[nodiscard]] PolicySource PolicyFromRules(const std::vector<std::string>& paths, std::uint32_t timeout_in_seconds);
[[nodiscard]] PolicySource PolicyFromFile(const std::string& path);

}  // namespace vond::vondctl
