#pragma once

#include <string>

namespace vond::agent {

/// Packs YARA source into the encrypted form of a rule-set file: the mark "ENCY", then AES-128-ECB of a gzip stream.
/// Throws the libraries' exceptions. Any thread.
[[nodiscard]] std::string PackRuleSet(const std::string& source);

}  // namespace vond::agent
