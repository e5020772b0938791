#include "vondctl/policy_explainer.h"

#include <Poco/Exception.h>
#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <optional>
#include <utility>

#include "static_pattern_matching/rule_set_decoder.h"
#include "static_pattern_matching/yara_config.h"
#include "yara/yara_lib/yara_exceptions.h"
#include "yara/yara_lib/yara_lib.h"

namespace vond::vondctl {
namespace {

using auto_resources::ManagedFD;
using korvo::static_pattern_matching_daemon::DecodeRuleSet;
using korvo::static_pattern_matching_daemon::YaraConfig;
using korvo::static_pattern_matching_daemon::YaraConfigLoadFailure;
using korvo::yara::yara_lib::CompilerMessage;
using korvo::yara::yara_lib::YaraCompilationException;
using korvo::yara::yara_lib::YaraLib;

constexpr std::size_t kMaxProblems = 20;

// A place in the rule files.
struct Place {
  std::string file;
  long line = 0;
};

std::string Problem(const Place& place, const std::string& message) {
  return fmt::format("{}:{}: error: {}", place.file, place.line, message);
}

long CountLines(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

// The file and line behind line `line` of the joined source. libyara says 0 when the source ends too early.
Place PlaceOfLine(const RuleSetSource& rule_set, long line) {
  if (line < 1) {
    const RuleFile& last = rule_set.files.back();
    return {last.path, CountLines(DecodeRuleSet(last.content)) + 1};
  }
  long first = 1;
  for (std::size_t i = 0; i + 1 < rule_set.files.size(); ++i) {
    const std::string source = DecodeRuleSet(rule_set.files[i].content);
    const long lines = CountLines(source) + (source.ends_with('\n') || source.empty() ? 0 : 1);
    if (line < first + lines) {
      return {rule_set.files[i].path, line - first + 1};
    }
    first += lines;
  }
  return {rule_set.files.back().path, line - first + 1};
}

bool IsIdentifierPart(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; }

// Position of `name` behind the word "rule" in `source`; npos if there is none.
std::size_t FindDeclaration(const std::string& source, const std::string& name) {
  for (std::size_t at = source.find(name); at != std::string::npos; at = source.find(name, at + 1)) {
    const std::size_t end = at + name.size();
    const std::size_t before = at == 0 ? std::string::npos : source.find_last_not_of(" \t\r\n", at - 1);
    const bool whole = end == source.size() || !IsIdentifierPart(source[end]);
    if (whole && before != std::string::npos && before + 1 < at && before >= 3 &&
        source.compare(before - 3, 4, "rule") == 0 && (before == 3 || !IsIdentifierPart(source[before - 4]))) {
      return at;
    }
  }
  return std::string::npos;
}

// Where the rule is declared; line 0 of the set's first file when the text does not show it.
Place PlaceOfRule(const RuleSetSource& rule_set, const std::string& rule_name) {
  for (const RuleFile& file : rule_set.files) {
    const std::string source = DecodeRuleSet(file.content);
    const std::size_t at = FindDeclaration(source, rule_name);
    if (at != std::string::npos) {
      return {file.path, CountLines(source.substr(0, at)) + 1};
    }
  }
  return {rule_set.files.front().path, 0};
}

std::string MessageText(const CompilerMessage& message) {
  return message.rule_name.empty() ? message.message : fmt::format("rule {}: {}", message.rule_name, message.message);
}

std::vector<std::string> CompilerProblems(const std::vector<CompilerMessage>& messages, const RuleSetSource& rule_set) {
  std::vector<std::string> problems;
  for (const CompilerMessage& message : messages) {
    if (message.level == 0) {
      problems.push_back(Problem(PlaceOfLine(rule_set, message.line_number), MessageText(message)));
    }
  }
  return problems;
}

// Compiles each file alone, where a file that ends inside a comment or rule does not shift the blame to the next one.
// Nothing when each is fine by itself.
std::vector<std::string> ProblemsFileByFile(const RuleSetSource& rule_set) {
  std::vector<std::string> problems;
  for (const RuleFile& file : rule_set.files) {
    try {
      static_cast<void>(YaraLib::Instance().Compile(DecodeRuleSet(file.content), false));
    } catch (const YaraCompilationException& e) {
      RuleSetSource alone;
      alone.files.push_back(file);
      for (std::string& problem : CompilerProblems(e.messages, alone)) {
        problems.push_back(std::move(problem));
      }
    }
  }
  return problems;
}

// Which of the mandatory items a rule lacks; a rule is found by its id, so no override can supply that.
std::string MissingItem(const RuleSetSource& rule_set, const std::string& rule_name) {
  const auto rules = YaraLib::Instance().CompileAndLoad(DecodeRuleSet(JoinedContent(rule_set)), "id", false, {});
  for (std::size_t i = 0; i < rules->size(); ++i) {
    if (rules->GetRule(i).name == rule_name && rules->GetRule(i).FindMetadata("id") == nullptr) {
      return "id";
    }
  }
  return "action";
}

std::string RuleProblem(const RuleSetSource& rule_set, const std::string& rule_name, const std::string& what) {
  std::string message;
  if (what == "_Map_base::at") {
    message = fmt::format("rule {} has no \"{}\" among its metadata", rule_name, MissingItem(rule_set, rule_name));
  } else if (what.starts_with("Invalid action")) {
    message =
        fmt::format("the \"action\" of rule {} is none of disable, internal, silent, inform, block, allow", rule_name);
  } else {
    message = what;
  }
  return Problem(PlaceOfRule(rule_set, rule_name), message);
}

std::vector<std::string> Explain(const PolicySource& policy, const YaraConfigLoadFailure& failure,
                                 const std::string& what) {
  const auto index = static_cast<std::size_t>(failure.rule_set);
  if (failure.rule_set < 0 || index >= policy.rule_sets.size()) {
    return {fmt::format("error: {}", what)};
  }
  const RuleSetSource& rule_set = policy.rule_sets[index];
  std::vector<std::string> problems;
  if (!failure.compiler_messages.empty()) {
    problems = ProblemsFileByFile(rule_set);
    if (problems.empty()) {
      problems = CompilerProblems(failure.compiler_messages, rule_set);
    }
  } else if (!failure.rule_name.empty()) {
    problems.push_back(RuleProblem(rule_set, failure.rule_name, what));
  }
  if (problems.empty()) {
    problems.push_back(fmt::format("{}: error: {}", rule_set.files.front().path, what));
  }
  if (problems.size() > kMaxProblems) {
    const std::size_t more = problems.size() - kMaxProblems;
    problems.resize(kMaxProblems);
    problems.push_back(fmt::format("... and {} more", more));
  }
  return problems;
}

// A descriptor of the same file with a position of its own: the daemon reads through the one it was sent.
ManagedFD Reopen(const ManagedFD& fd) {
  return ManagedFD(::open(fmt::format("/proc/self/fd/{}", fd.Get()).c_str(), O_RDONLY | O_CLOEXEC));
}

std::vector<RuleSetCount> CountRules(const PolicySource& policy, const YaraConfig& config) {
  std::vector<RuleSetCount> counts;
  for (std::size_t i = 0; i < policy.rule_sets.size(); ++i) {
    const RuleSetSource& rule_set = policy.rule_sets[i];
    const bool replaced =
        std::any_of(policy.rule_sets.begin() + static_cast<std::ptrdiff_t>(i) + 1, policy.rule_sets.end(),
                    [&](const RuleSetSource& later) {
                      return later.file_type == rule_set.file_type && later.rule_type == rule_set.rule_type;
                    });
    if (!replaced) {
      counts.push_back({rule_set.file_type, rule_set.rule_type,
                        config.GetRuleSets().at(rule_set.file_type).at(rule_set.rule_type)->size()});
    }
  }
  return counts;
}

}  // namespace

PolicyJudgement JudgePolicy(const PolicySource& policy) {
  PolicyJudgement judgement;
  YaraConfigLoadFailure failure;
  std::string what;
  try {
    std::vector<ManagedFD> owned;
    std::vector<int> fds;
    for (const ManagedFD& fd : policy.rule_set_fds) {
      owned.push_back(Reopen(fd));
      fds.push_back(owned.back().Get());
    }
    judgement.rule_sets = CountRules(policy, YaraConfig(policy.document, fds, &failure));
    return judgement;
  } catch (const Poco::Exception& e) {
    what = e.displayText();
  } catch (const std::exception& e) {
    what = e.what();
  }
  try {
    judgement.problems = Explain(policy, failure, what);
  } catch (const std::exception&) {  // a packed file that can't be read has no lines to point at
    judgement.problems = {fmt::format("error: {}", what)};
  }
  return judgement;
}

}  // namespace vond::vondctl
