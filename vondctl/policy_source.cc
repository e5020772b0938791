#include "vondctl/policy_source.h"

#include <Poco/Exception.h>
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
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>
#include <utility>

#include "static_pattern_matching/rule_set_decoder.h"
#include "utils/rule_set_file.h"
#include "vondctl/json_places.h"
#include "vondctl/problem_codes.h"
#include "yara/yara_source/yara_source.h"

namespace vond::vondctl {
namespace {

namespace fs = std::filesystem;
using auto_resources::ManagedFD;
using nlohmann::ordered_json;
using static_pattern_matching_proto::UserConfigData;

// The content of a file; nothing, and errno, if it can't be read.
std::optional<std::string> ReadWholeFile(const std::string& path) {
  errno = 0;
  std::ifstream stream(path, std::ios::binary);
  std::string content;
  std::array<char, 65536> buffer{};
  while (stream.good()) {
    stream.read(buffer.data(), buffer.size());
    content.append(buffer.data(), static_cast<std::size_t>(stream.gcount()));
  }
  if (!stream.is_open() || stream.bad()) {  // the latter for what opens but can't be read, such as a folder
    return std::nullopt;
  }
  return content;
}

std::string WhyUnreadable(int error) {
  const std::string reason = std::strerror(error);
  return error == EACCES ? reason + " (to whoever runs vondctl; the daemon's rights do not count)" : reason;
}

// Files marked as packed come out of the daemon's own decoder whole, or with what is wrong.
std::optional<Problem> CheckPacked(const RuleFile& file) {
  using korvo::static_pattern_matching_daemon::DecodeRuleSet;
  std::string reason;
  try {
    static_cast<void>(DecodeRuleSet(file.content));
    return std::nullopt;
  } catch (const Poco::Exception& e) {
    reason = e.displayText();
  } catch (const std::exception& e) {
    reason = e.what();
  }
  const std::string_view rest = std::string_view(file.content).substr(korvo::utils::kPackedRuleSetMark.size());
  const bool is_text = std::all_of(rest.begin(), rest.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= ' ' || byte == '\n' || byte == '\r' || byte == '\t';
  });
  const bool is_ascii =
      std::all_of(rest.begin(), rest.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (is_text && is_ascii && !rest.empty()) {
    Problem problem = MakeProblem("looks-encrypted", file.path, 1,
                                  "begins with ENCY, the mark of packed rule files, but goes on with plain text");
    problem.fix = "remove the mark, or make the file again with vondctl pack";
    return problem;
  }
  Problem problem = MakeProblem("damaged-file", file.path, 0, fmt::format("damaged packed rule file: {}", reason));
  problem.fix = "make the file again with vondctl pack";
  return problem;
}

// The names of the rule files below `path`, in byte order, or `path` itself.
std::vector<std::string> RuleFileNames(const std::string& path, std::vector<Problem>& problems) {
  std::error_code error;
  if (!fs::is_directory(path, error)) {
    return {path};
  }
  std::vector<std::string> paths;
  try {
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path)) {
      const std::string extension = entry.path().extension();
      if (entry.is_regular_file() && (extension == ".yar" || extension == ".yara")) {
        paths.push_back(entry.path());
      }
    }
  } catch (const fs::filesystem_error& e) {
    problems.push_back(MakeProblem("unreadable-file", e.path1().empty() ? path : e.path1().string(), 0,
                                   WhyUnreadable(e.code().value())));
    return paths;
  }
  if (paths.empty()) {
    problems.push_back(MakeProblem("no-rule-files", path, 0, "holds no rule files (*.yar, *.yara)"));
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

}  // namespace

void ReadRuleFiles(const std::string& path, std::vector<RuleFile>& files, std::vector<Problem>& problems) {
  for (const std::string& name : RuleFileNames(path, problems)) {
    std::optional<std::string> content = ReadWholeFile(name);
    if (!content) {
      problems.push_back(MakeProblem("unreadable-file", name, 0, WhyUnreadable(errno)));
      continue;
    }
    RuleFile file{name, std::move(*content)};
    if (std::optional<Problem> problem = CheckPacked(file)) {
      problems.push_back(std::move(*problem));
      continue;
    }
    files.push_back(std::move(file));
  }
}

namespace {

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
    throw std::system_error(errno, std::generic_category(), "no memory for the rules");
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

// The words of protobuf's own complaint, "(rule_sets[0].file_type): invalid value", and the value that it is about.
std::pair<std::string, std::string> SplitComplaint(const std::string& text) {
  const std::size_t end = text.find("): ");
  if (!text.starts_with('(') || end == std::string::npos) {
    return {"", text};
  }
  std::string value;
  for (const char c : text.substr(1, end - 1)) {
    if (c != ']') {
      value += c == '[' || c == '.' ? '/' : c;
    }
  }
  return {value, fmt::format("{}: {}", text.substr(1, end - 1), text.substr(end + 3))};
}

// Reads a policy file's text and complains about what is wrong with the document itself.
class PolicyDocument {
 public:
  PolicyDocument(PolicySource& policy, std::vector<Problem>& problems) : policy_(policy), problems_(problems) {}

  // False if there is nothing to go on with.
  [[nodiscard]] bool Parse() {
    std::optional<std::string> text = ReadWholeFile(policy_.path);
    if (!text) {
      Add("unreadable-file", "", WhyUnreadable(errno));
      return false;
    }
    policy_.text = std::move(*text);
    try {
      json_ = ordered_json::parse(policy_.text);
    } catch (const nlohmann::json::parse_error& e) {
      const std::string_view what = e.what();
      const std::size_t behind_code = what.find("] ");  // "[json.exception.parse_error.101] parse error at ..."
      const std::size_t good = std::min(e.byte == 0 ? 0 : e.byte - 1, policy_.text.size());
      const auto end = policy_.text.begin() + static_cast<std::ptrdiff_t>(good);
      problems_.push_back(MakeProblem(
          "bad-json", policy_.path, 1 + std::count(policy_.text.begin(), end, '\n'),
          fmt::format("not valid JSON: {}", what.substr(behind_code == std::string_view::npos ? 0 : behind_code + 2))));
      problems_.back().excerpt = policy_.Excerpt(problems_.back().line);
      return false;
    }
    policy_.lines = PlacesOfJson(policy_.text);
    if (!json_.is_object()) {
      Add("bad-json", "", "a policy is a JSON object");
      return false;
    }
    return true;
  }

  void ReadRuleSets() {
    ordered_json* const entries = FindMember(json_, "rule_sets", "ruleSets");
    if (entries == nullptr || !entries->is_array()) {
      return;
    }
    for (std::size_t i = 0; i < entries->size(); ++i) {
      policy_.rule_sets.emplace_back();
      ordered_json& entry = (*entries)[i];
      if (!entry.is_object()) {
        continue;  // protobuf complains
      }
      const std::string place = fmt::format("rule_sets/{}", i);
      if (!entry.contains("path") || !entry["path"].is_string()) {
        Add("missing-path", place, fmt::format("rule_sets[{}] has no \"path\"", i));
      } else {
        const fs::path path = entry["path"].get<std::string>();
        ReadRuleFiles(path.is_absolute() ? path : fs::path(policy_.path).parent_path() / path,
                      policy_.rule_sets.back().files, problems_);
      }
      entry.erase("path");
      entry.erase("fdIndex");
      entry["fd_index"] = i;
      CheckRuleType(entry, place);
    }
  }

  void CheckKeys() { CheckKeys(json_, *UserConfigData::descriptor(), ""); }

  void Convert() {
    policy_.json = json_.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
    google::protobuf::util::JsonParseOptions options;
    options.ignore_unknown_fields = true;
    const auto status = google::protobuf::util::JsonStringToMessage(policy_.json, &policy_.document, options);
    const auto rule_sets = static_cast<std::size_t>(policy_.document.rule_sets_size());
    if (!status.ok()) {
      const auto [place, text] = SplitComplaint(std::string(status.message()));
      Add("bad-value", place, text);
    } else if (rule_sets != policy_.rule_sets.size()) {  // null, or no list, which protobuf takes
      Add("bad-value", "rule_sets", "rule_sets is one list of objects");
    }
    if (!status.ok() || rule_sets != policy_.rule_sets.size()) {
      // The rules can be looked at all the same, each set by itself.
      policy_.document.Clear();
      for (std::size_t i = 0; i < policy_.rule_sets.size(); ++i) {
        policy_.document.add_rule_sets()->set_file_type(static_cast<std::int32_t>(i));
      }
    }
    for (std::size_t i = 0; i < policy_.rule_sets.size(); ++i) {
      const auto& info = policy_.document.rule_sets(static_cast<int>(i));
      policy_.rule_sets[i].file_type = info.file_type();
      policy_.rule_sets[i].rule_type = info.rule_type();
      policy_.rule_set_fds.push_back(MemoryFile(JoinedContent(policy_.rule_sets[i])));
    }
  }

 private:
  void Add(const char* code, const std::string& place, std::string message) {
    problems_.push_back(MakeProblem(code, policy_.path, policy_.LineOf(place), std::move(message)));
    problems_.back().excerpt = policy_.Excerpt(problems_.back().line);
  }

  // The daemon's parser takes an unknown word for "Block", so it refuses any.
  void CheckRuleType(ordered_json& entry, const std::string& place) {
    const ordered_json* const rule_type = FindMember(entry, "rule_type", "ruleType");
    if (rule_type == nullptr || !rule_type->is_string()) {
      return;
    }
    const std::string word = rule_type->get<std::string>();
    const bool is_number = !word.empty() && word.find_first_not_of("0123456789") == std::string::npos;
    if (word != "Block" && word != "Allow" && !is_number) {
      Add("unknown-rule-type", place + "/rule_type",
          fmt::format("\"{}\" is not a rule type{}", word, QuotedSuggestion(word, {"Block", "Allow"})));
    }
  }

  // NOLINTNEXTLINE(misc-no-recursion): as deep as the schema, not as the document
  void CheckKeys(const ordered_json& object, const google::protobuf::Descriptor& type, const std::string& place) {
    if (!object.is_object()) {
      return;
    }
    std::vector<std::string> known;
    for (int i = 0; i < type.field_count(); ++i) {
      known.push_back(type.field(i)->name());
    }
    if (&type == UserConfigData::RuleSetFileInfo::descriptor()) {
      known.emplace_back("path");  // vondctl's own
    }
    for (const auto& [key, value] : object.items()) {
      const google::protobuf::FieldDescriptor* field = type.FindFieldByName(key);
      for (int i = 0; i < type.field_count() && field == nullptr; ++i) {
        field = type.field(i)->json_name() == key ? type.field(i) : nullptr;
      }
      const std::string here = place.empty() ? key : place + '/' + key;
      if (field == nullptr) {
        if (std::find(known.begin(), known.end(), key) == known.end()) {
          Add("unknown-key", here,
              fmt::format("the key \"{}\" means nothing here{}", key, QuotedSuggestion(key, known)));
        }
      } else if (field->message_type() != nullptr && field->is_repeated()) {
        for (std::size_t i = 0; value.is_array() && i < value.size(); ++i) {
          CheckKeys(value[i], *field->message_type(), fmt::format("{}/{}", here, i));
        }
      } else if (field->message_type() != nullptr) {
        CheckKeys(value, *field->message_type(), here);
      }
    }
  }

  PolicySource& policy_;
  std::vector<Problem>& problems_;
  ordered_json json_;
};

void ThrowIfErrors(std::vector<Problem> problems) {
  std::erase_if(problems, [](const Problem& problem) { return problem.severity != Severity::kError; });
  if (!problems.empty()) {
    throw PolicyError(std::move(problems));
  }
}

std::string TextOfProblems(const std::vector<Problem>& problems) {
  std::string text;
  for (const Problem& problem : problems) {
    text += text.empty() ? "" : "; ";
    text += problem.file.empty() ? "" : problem.file + (problem.line > 0 ? fmt::format(":{}: ", problem.line) : ": ");
    text += problem.message;
  }
  return text;
}

}  // namespace

PolicyError::PolicyError(std::vector<Problem> problems)
    : std::runtime_error(TextOfProblems(problems)), problems_(std::move(problems)) {}

long PolicySource::LineOf(const std::string& value) const {
  const auto it = lines.find(value);
  return it == lines.end() ? 0 : it->second;
}

std::string PolicySource::Excerpt(long line) const {
  std::size_t begin = 0;
  for (long at = 1; at < line && begin != std::string::npos; ++at) {
    begin = text.find('\n', begin);
    begin += begin == std::string::npos ? 0 : 1;
  }
  return line < 1 || begin == std::string::npos ? std::string() : ExcerptAt(text, begin);
}

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
    std::string text = korvo::static_pattern_matching_daemon::DecodeRuleSet(file.content);
    if (const auto open_end = yara_source::FindOpenEnd(text)) {
      text.resize(open_end->begin);
    }
    joined += text;
    if (!joined.ends_with('\n')) {
      joined += '\n';
    }
  }
  return joined;
}

std::string ExcerptAt(const std::string& text, std::size_t begin) {
  constexpr std::size_t kLongest = 160;
  std::string excerpt = text.substr(begin, std::min(text.find('\n', begin), text.size()) - begin);
  excerpt.erase(excerpt.find_last_not_of(" \t\r") + 1);
  if (excerpt.size() > kLongest) {
    std::size_t end = kLongest;
    while (end > 0 && (static_cast<unsigned char>(excerpt[end]) & 0xc0U) == 0x80) {  // not inside a character
      --end;
    }
    excerpt = excerpt.substr(0, end) + "...";
  }
  return excerpt;
}

PolicySource ReadRules(const std::vector<std::string>& paths, std::uint32_t timeout_in_seconds,
                       std::vector<Problem>& problems) {
  PolicySource policy;
  RuleSetSource rule_set;
  for (const std::string& path : paths) {
    ReadRuleFiles(path, rule_set.files, problems);
  }
  policy.rule_set_fds.push_back(MemoryFile(JoinedContent(rule_set)));
  policy.rule_sets.push_back(std::move(rule_set));
  policy.document.add_rule_sets();  // block rules for file type 0 from descriptor 0
  policy.document.set_yara_timeout_in_seconds(timeout_in_seconds);
  return policy;
}

PolicySource PolicyFromRuleFile(RuleFile file) {
  PolicySource policy;
  policy.rule_set_fds.push_back(MemoryFile(file.content));
  policy.rule_sets.emplace_back().files.push_back(std::move(file));
  policy.document.add_rule_sets();
  return policy;
}

PolicySource ReadPolicy(const std::string& path, std::vector<Problem>& problems) {
  PolicySource policy;
  policy.path = path;
  PolicyDocument document(policy, problems);
  if (document.Parse()) {
    document.CheckKeys();
    document.ReadRuleSets();
    document.Convert();
  }
  return policy;
}

PolicySource PolicyFromRules(const std::vector<std::string>& paths, std::uint32_t timeout_in_seconds) {
  std::vector<Problem> problems;
  PolicySource policy = ReadRules(paths, timeout_in_seconds, problems);
  ThrowIfErrors(std::move(problems));
  return policy;
}

PolicySource PolicyFromFile(const std::string& path) {
  std::vector<Problem> problems;
  PolicySource policy = ReadPolicy(path, problems);
  ThrowIfErrors(std::move(problems));
  return policy;
}

}  // namespace vond::vondctl
