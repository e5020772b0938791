#include "vondctl/policy_source.h"

#include <fmt/format.h>
#include <google/protobuf/util/json_util.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <utility>

#include "static_pattern_matching/rule_set_decoder.h"

namespace vond::vondctl {
namespace {

namespace fs = std::filesystem;
using auto_resources::ManagedFD;
using nlohmann::ordered_json;

std::string ReadWholeFile(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  std::string content;
  std::array<char, 65536> buffer{};
  while (stream.good()) {
    stream.read(buffer.data(), buffer.size());
    content.append(buffer.data(), static_cast<std::size_t>(stream.gcount()));
  }
  if (!stream.is_open() || stream.bad()) {  // the latter for what opens but can't be read, such as a folder
    throw PolicyError(fmt::format("{}: {}", path, std::strerror(errno)));
  }
  return content;
}

// `path` itself, or the rule files below it, in byte order.
std::vector<RuleFile> ReadRuleFiles(const std::string& path) {
  std::vector<std::string> paths;
  try {
    if (!fs::is_directory(path)) {
      paths.push_back(path);
    } else {
      for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path)) {
        const std::string extension = entry.path().extension();
        if (entry.is_regular_file() && (extension == ".yar" || extension == ".yara")) {
          paths.push_back(entry.path());
        }
      }
    }
  } catch (const fs::filesystem_error& e) {
    throw PolicyError(fmt::format("{}: {}", e.path1().string(), e.code().message()));
  }
  if (paths.empty()) {
    throw PolicyError(fmt::format("{}: holds no rule files (*.yar, *.yara)", path));
  }
  std::sort(paths.begin(), paths.end());
  std::vector<RuleFile> files;
  for (const std::string& file : paths) {
    files.push_back({file, ReadWholeFile(file)});
  }
  return files;
}

ManagedFD MemoryFile(const std::string& content) {
  ManagedFD fd(::memfd_create("vondctl-rules", MFD_CLOEXEC));
  std::size_t written = 0;
  while (fd.IsValid() && written < content.size()) {
    const ssize_t count = ::write(fd.Get(), content.data() + written, content.size() - written);
    if (count < 0) {
      fd.Reset();
    } else {
      written += static_cast<std::size_t>(count);
    }
  }
  if (!fd.IsValid()) {
    throw PolicyError(fmt::format("no memory for the rules: {}", std::strerror(errno)));
  }
  return fd;
}

// The member of `object` under either of its JSON names, null if absent.
ordered_json* FindMember(ordered_json& object, const char* name, const char* camel_name) {
  for (const char* key : {name, camel_name}) {
    const auto it = object.find(key);
    if (it != object.end()) {
      return &*it;
    }
  }
  return nullptr;
}

// Takes "path" out of a rule set's entry and puts the descriptor's index in.
std::string ExchangePath(ordered_json& entry, std::size_t index, const std::string& policy_path) {
  if (!entry.is_object() || !entry.contains("path") || !entry["path"].is_string()) {
    throw PolicyError(fmt::format("{}: rule_sets[{}] has no \"path\"", policy_path, index));
  }
  const fs::path path = entry["path"].get<std::string>();
  entry.erase("path");
  entry.erase("fdIndex");
  entry["fd_index"] = index;
  return path.is_absolute() ? path : fs::path(policy_path).parent_path() / path;
}

}  // namespace

agent::Policy PolicySource::ForAgent(std::uint32_t log_level) const {
  agent::Policy policy;
  policy.document = document;
  policy.json = json;
  policy.log_level = log_level;
  for (const ManagedFD& fd : rule_set_fds) {
    policy.rule_set_fds.push_back(fd.Get());
  }
  return policy;
}

std::string JoinedContent(const RuleSetSource& rule_set) {
  if (rule_set.files.size() == 1) {
    return rule_set.files.front().content;
  }
  std::string joined;
  for (const RuleFile& file : rule_set.files) {
    try {
      joined += korvo::static_pattern_matching_daemon::DecodeRuleSet(file.content);
    } catch (const std::exception& e) {
      throw PolicyError(fmt::format("{}: damaged packed rule file: {}", file.path, e.what()));
    }
    if (!joined.ends_with('\n')) {
      joined += '\n';
    }
  }
  return joined;
}

PolicySource PolicyFromRules(const std::vector<std::string>& paths, std::uint32_t timeout_in_seconds) {
  PolicySource policy;
  RuleSetSource rule_set;
  for (const std::string& path : paths) {
    std::vector<RuleFile> files = ReadRuleFiles(path);
    std::move(files.begin(), files.end(), std::back_inserter(rule_set.files));
  }
  policy.rule_set_fds.push_back(MemoryFile(JoinedContent(rule_set)));
  policy.rule_sets.push_back(std::move(rule_set));
  policy.document.add_rule_sets();  // block rules for file type 0 from descriptor 0
  policy.document.set_yara_timeout_in_seconds(timeout_in_seconds);
  return policy;
}

PolicySource PolicyFromFile(const std::string& path) {
  PolicySource policy;
  ordered_json document;
  try {
    document = ordered_json::parse(ReadWholeFile(path));
  } catch (const nlohmann::json::parse_error& e) {
    throw PolicyError(fmt::format("{}: not valid JSON: {}", path, e.what()));
  }
  if (!document.is_object()) {
    throw PolicyError(fmt::format("{}: a policy is a JSON object", path));
  }
  std::vector<std::vector<RuleFile>> files;
  ordered_json* const entries = FindMember(document, "rule_sets", "ruleSets");
  if (entries != nullptr && entries->is_array()) {
    for (std::size_t i = 0; i < entries->size(); ++i) {
      files.push_back(ReadRuleFiles(ExchangePath((*entries)[i], i, path)));
    }
  }
  policy.json = document.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
  google::protobuf::util::JsonParseOptions options;
  options.ignore_unknown_fields = true;
  const auto status = google::protobuf::util::JsonStringToMessage(policy.json, &policy.document, options);
  if (!status.ok()) {
    throw PolicyError(fmt::format("{}: {}", path, std::string(status.message())));
  }
  for (std::size_t i = 0; i < files.size(); ++i) {
    const auto& info = policy.document.rule_sets(static_cast<int>(i));
    policy.rule_sets.push_back({info.file_type(), info.rule_type(), std::move(files[i])});
    policy.rule_set_fds.push_back(MemoryFile(JoinedContent(policy.rule_sets.back())));
  }
  return policy;
}

}  // namespace vond::vondctl
