#include "vondctl/rule_file.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <array>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "agent/rule_packer.h"
#include "static_pattern_matching/rule_set_decoder.h"
#include "utils/rule_set_file.h"
#include "vondctl/policy_source.h"
#include "vondctl/problem_codes.h"

namespace vond::vondctl {

using korvo::static_pattern_matching_daemon::DecodeRuleSet;

LoadedRuleFile LoadRuleFile(const std::string& path) {
  LoadedRuleFile file;
  file.path = path;
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) {
    throw PolicyError({MakeProblem("unreadable-file", path, 0, "is a folder")});
  }
  std::vector<RuleFile> files;
  std::vector<Problem> problems;
  ReadRuleFiles(path == "-" ? "/dev/stdin" : path, files, problems);
  if (!problems.empty()) {
    throw PolicyError(std::move(problems));
  }
  file.content = std::move(files.front().content);
  file.is_packed = file.content.starts_with(korvo::utils::kPackedRuleSetMark);
  file.source = DecodeRuleSet(file.content);
  return file;
}

std::string PackVerified(const std::string& source, bool plain) {
  std::string content = plain ? source : agent::PackRuleSet(source);
  if (DecodeRuleSet(content) != source) {
    throw std::runtime_error("the packed rules do not come out as they went in");
  }
  return content;
}

std::string Sha256(std::string_view content) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  if (::EVP_Digest(content.data(), content.size(), digest.data(), &size, ::EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("no SHA-256 to be had");
  }
  std::string text;
  for (unsigned i = 0; i < size; ++i) {
    text += fmt::format("{:02x}", digest.at(i));
  }
  return text;
}

}  // namespace vond::vondctl
