#include "vondctl/adopt_command.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "static_pattern_matching/rule_set_decoder.h"
#include "utils/assertion.h"
#include "utils/log.h"
#include "vondctl/adoption.h"
#include "vondctl/announcer.h"
#include "vondctl/exit_status.h"
#include "vondctl/json_lines.h"
#include "vondctl/output_file.h"
#include "vondctl/policy_source.h"
#include "vondctl/problem.h"
#include "vondctl/problem_codes.h"
#include "vondctl/rule_file.h"
#include "vondctl/rule_merge.h"
#include "vondctl/rule_sections.h"
#include "vondctl/rule_set_judgement.h"
#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

namespace fs = std::filesystem;
using korvo::static_pattern_matching_daemon::DecodeRuleSet;
using nlohmann::ordered_json;
using yara_source::Edits;
using yara_source::ParseSource;
using yara_source::RuleText;
using yara_source::SourceIndex;

constexpr const char* kFooter =
    "Each rule gets an \"id\" of its own, the same in every run for the same set and rule\n"
    "name, and an \"action\"; what it has of these it keeps where it can. Rules that do not\n"
    "compile are left out with those that need them, rules of one name get different ones,\n"
    "and of equal rules one stays. The text of files named LICENSE, COPYING or NOTICE in a\n"
    "folder goes along as comments. The daemon's own code judges the result before it is written.\n"
    "\n"
    "Examples:\n"
    "  vondctl adopt public-rules/ -o public.pack --report decisions.jsonl\n"
    "  vondctl adopt rules/ -o a.pack --action-from 'score:>=75=block,>=40=inform'\n"
    "  vondctl adopt rules/ -o a.yar --plain --define filename= --define limit=1000\n"
    "\n"
    "Exit status: 0 the file was written; 1 it was, but a file or an include could not be\n"
    "read; 2 it could not be written; 3 nothing was left, or the daemon would refuse it;\n"
    "64 wrong usage.\n";

struct AdoptArguments {
  std::vector<std::string> rules;
  std::string output;
  std::string report;
  std::string set_name;
  std::string default_action = "inform";
  std::vector<std::string> action_from;
  std::vector<std::string> definitions;
  bool plain = false;
};

// Where everything that was found and done is told: at once, and in the report.
class Record {
 public:
  Record(const CommonOptions& common, bool with_report) : common_(common), announcer_(common), keep_(with_report) {}

  void Add(const Problem& problem) {
    announcer_.Say(problem);
    Keep(ProblemJson(problem));
  }
  void Add(const RuleDecision& decision) {
    if (common_.format == Format::kJsonLines || common_.verbosity > 0 || ChangesRules(decision.kind)) {
      announcer_.Say(decision);
    }
    Keep(DecisionJson(decision));
  }
  void Add(const ordered_json& summary) {
    if (common_.format == Format::kJsonLines) {
      WriteJsonLine(summary);
    }
    Keep(summary);
  }
  [[nodiscard]] const std::string& Lines() const { return lines_; }

 private:
  // Whether people want to hear of it unasked: the rest happens to nearly every rule.
  static bool ChangesRules(RuleDecision::Kind kind) {
    return kind != RuleDecision::Kind::kIdAdded && kind != RuleDecision::Kind::kActionSet &&
           kind != RuleDecision::Kind::kActionKept && kind != RuleDecision::Kind::kDefined;
  }
  void Keep(const ordered_json& object) {
    if (keep_) {
      lines_ += object.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + '\n';
    }
  }

  const CommonOptions& common_;
  const Announcer announcer_;
  const bool keep_;
  std::string lines_;
};

// What the author would call the set: the first folder's or file's name.
std::string DefaultSetName(const std::string& path) {
  std::error_code error;
  fs::path whole = fs::canonical(path, error);
  if (error) {
    whole = path;
  }
  return fs::is_directory(whole, error) ? whole.filename() : whole.stem();
}

AdoptionOptions ParseOptions(const AdoptArguments& arguments) {
  AdoptionOptions options{arguments.set_name.empty() ? DefaultSetName(arguments.rules.front()) : arguments.set_name,
                          ActionChoice(arguments.default_action),
                          {}};
  for (const std::string& mapping : arguments.action_from) {
    options.actions.Add(mapping);
  }
  for (const std::string& definition : arguments.definitions) {
    const std::size_t equals = definition.find('=');
    if (equals == 0 || equals == std::string::npos) {
      throw std::invalid_argument(fmt::format("\"{}\" is not NAME=VALUE", definition));
    }
    options.definitions[definition.substr(0, equals)] = LiteralFor(definition.substr(equals + 1));
  }
  return options;
}

bool IsLicenceName(std::string name) {
  std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
  return name.find("license") != std::string::npos || name.find("licence") != std::string::npos ||
         name.starts_with("copying") || name.starts_with("notice");
}

// The files of the folders in which authors state their terms, as lines of comment.
std::string LicenceComments(const std::vector<std::string>& paths) {
  constexpr std::uintmax_t kMaxSize = std::uintmax_t{256} << 10;
  std::vector<fs::path> files;
  for (const std::string& path : paths) {
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(path, error)) {
      if (entry.is_regular_file(error) && IsLicenceName(entry.path().filename()) &&
          entry.file_size(error) <= kMaxSize && entry.path().extension() != ".yar" &&
          entry.path().extension() != ".yara") {
        files.push_back(entry.path());
      }
    }
  }
  std::sort(files.begin(), files.end());
  std::string comments;
  for (const fs::path& file : files) {
    std::ifstream stream(file, std::ios::binary);
    comments += "// " + file.filename().string() + "\n";
    for (std::string line; std::getline(stream, line);) {
      std::replace(line.begin(), line.end(), '\0', ' ');  // would end the source
      comments += "//" + (line.empty() || line == "\r" ? "" : " " + line) + "\n";
    }
  }
  std::replace(comments.begin(), comments.end(), '\0', ' ');
  return comments;
}

fs::path CanonicalPath(const fs::path& path) {
  std::error_code error;
  fs::path canonical = fs::weakly_canonical(path, error);
  return error ? path : canonical;
}

// `paths`, and before them the files that include others and are included by none: what they include stands in the
// order that their authors have tried, and the folder's own order might put a rule before what it needs.
std::vector<std::string> IncludersFirst(const std::vector<std::string>& paths) {
  std::vector<RuleFile> files;
  std::vector<Problem> problems;  // told when the files are merged
  for (const std::string& path : paths) {
    ReadRuleFiles(path, files, problems);
  }
  std::vector<std::string> ordered;
  std::set<fs::path> included;
  for (const RuleFile& file : files) {
    const SourceIndex index = ParseSource(DecodeRuleSet(file.content));
    if (!index.includes.empty()) {
      ordered.push_back(file.path);
    }
    for (const yara_source::Directive& include : index.includes) {
      included.insert(CanonicalPath(fs::path(file.path).parent_path() / include.text));
    }
  }
  std::erase_if(ordered, [&](const std::string& path) { return included.contains(CanonicalPath(path)); });
  ordered.insert(ordered.end(), paths.begin(), paths.end());
  return ordered;
}

// A global rule was meant for its own file; in one set it holds for all.
std::vector<Problem> GlobalRules(const MergedSource& source, const SourceIndex& index) {
  std::vector<Problem> problems;
  if (source.Files().size() < 2) {
    return problems;
  }
  for (const RuleText& rule : index.rules) {
    if (rule.is_global) {
      const SourcePlace place = source.PlaceOfLine(rule.line);
      problems.push_back(MakeProblem("global-rule", place.file, place.line,
                                     fmt::format("rule \"{}\" is global: no rule of the set matches a file that it "
                                                 "does not match",
                                                 rule.name)));
      problems.back().rule = rule.name;
      problems.back().severity = Severity::kWarning;
    }
  }
  return problems;
}

ordered_json Summary(const AdoptArguments& arguments, std::size_t files, std::size_t found, const SourceIndex& kept,
                     const std::vector<RuleDecision>& decisions) {
  std::map<std::string, std::size_t> actions;
  for (const RuleText& rule : kept.rules) {
    ++actions[MetaText(FindMeta(rule, "action")->value)];
  }
  std::map<std::string, std::size_t> counts;
  for (const RuleDecision& decision : decisions) {
    ++counts[DecisionJson(decision)["decision"].get<std::string>()];
  }
  ordered_json json{{"type", "summary"}};
  AddPath(json, "file", arguments.output);
  json["files"] = files;
  json["rules_found"] = found;
  json["rules_kept"] = kept.rules.size();
  json["actions"] = actions;
  json["decisions"] = counts;
  return json;
}

std::string SummaryText(const ordered_json& summary) {
  std::string text =
      fmt::format("{}: {} of {} rules kept, from {} files", EscapeForTerminal(summary["file"].get<std::string>()),
                  summary["rules_kept"].get<std::size_t>(), summary["rules_found"].get<std::size_t>(),
                  summary["files"].get<std::size_t>());
  for (const char* key : {"actions", "decisions"}) {
    std::string items;
    for (const auto& [name, count] : summary[key].items()) {
      items += fmt::format("{}{} {}", items.empty() ? "" : ", ", count.get<std::size_t>(), name);
    }
    if (!items.empty()) {
      text += fmt::format("\n{}: {}", key, EscapeForTerminal(items));
    }
  }
  return text;
}

// Everything up to writing; the exit status.
int Make(const AdoptArguments& arguments, const AdoptionOptions& options, Record& record, std::string& content,
         ordered_json& summary) {
  std::vector<Problem> problems;
  const MergedSource merged = MergeRuleFiles(IncludersFirst(arguments.rules), problems);
  if (IsInput(merged, arguments.output)) {
    Complain(fmt::format("{} is one of the rule files and would be lost", arguments.output));
    return kUsage;
  }
  std::vector<RuleDecision> decisions;
  MergedSource set = Adopt(merged, options, decisions);
  if (const std::string licences = LicenceComments(arguments.rules); !licences.empty() && !set.Text().empty()) {
    Edits edits;
    edits.Insert(0, licences);
    set = set.Edited(edits);
  }

  for (const Problem& problem : JudgeMerged(set)) {
    record.Add(problem);
  }
  const SourceIndex index = ParseSource(set.Text());
  for (const Problem& problem : GlobalRules(set, index)) {
    record.Add(problem);
  }
  for (const Problem& problem : problems) {
    record.Add(problem);
  }
  for (const RuleDecision& decision : decisions) {
    record.Add(decision);
  }
  summary = Summary(arguments, merged.Files().size(), ParseSource(merged.Text()).rules.size(), index, decisions);
  if (index.rules.empty()) {
    Complain("no rule is left to adopt");
    return kPolicyRefused;
  }
  content = PackVerified(set.Text(), arguments.plain);
  const std::vector<Problem> refusals = LoadMerged(set, content);
  for (const Problem& problem : refusals) {
    record.Add(problem);
  }
  if (!refusals.empty()) {
    return kPolicyRefused;
  }
  const bool incomplete =
      std::any_of(problems.begin(), problems.end(), [](const Problem& p) { return p.severity == Severity::kError; });
  return incomplete ? kMatched : kClean;
}

int RunAdopt(const AdoptArguments& arguments, const CommonOptions& common) {
  if (arguments.output == "-" && common.format == Format::kJsonLines) {
    Complain("--format jsonl writes to standard output, so -o must name a file");
    return kUsage;
  }
  std::optional<AdoptionOptions> options;
  try {
    options = ParseOptions(arguments);
  } catch (const std::invalid_argument& e) {
    Complain(e.what());
    return kUsage;
  }
  Record record(common, !arguments.report.empty());
  std::string content;
  ordered_json summary;
  int status = Make(arguments, *options, record, content, summary);
  if (status == kUsage) {
    return status;
  }
  try {
    if (status != kPolicyRefused) {
      WriteOutputFile(arguments.output, content);
    }
  } catch (const std::runtime_error& e) {
    Complain(fmt::format("nothing was written: {}", e.what()));
    status = kNotScanned;
  }
  summary["exit"] = status;
  record.Add(summary);
  try {
    if (!arguments.report.empty()) {
      WriteOutputFile(arguments.report, record.Lines());
    }
  } catch (const std::runtime_error& e) {
    Complain(fmt::format("no report was written: {}", e.what()));
    status = kNotScanned;
  }
  if (common.format == Format::kText && !common.quiet && (status == kClean || status == kMatched)) {
    std::cerr << SummaryText(summary) << '\n';
  }
  return status;
}

}  // namespace

VerbRun AddAdoptCommand(CLI::App& app, const CommonOptions& common) {
  const auto arguments = std::make_shared<AdoptArguments>();
  app.add_option("-o,--output", arguments->output, "The file to write; - is standard output")
      ->required()
      ->type_name("FILE");
  app.add_option("--report", arguments->report, "Write every problem and decision to a file, as JSON Lines")
      ->type_name("FILE");
  app.add_option("--action-from", arguments->action_from,
                 "The action of rules that have none, by a metadata item: KEY:CASE,CASE..., a case being "
                 ">=N=ACTION, also with > <= < == !=, or TEXT=ACTION; the first that holds counts. Can be repeated")
      ->type_name("MAPPING")
      ->expected(1)
      ->take_all();
  app.add_option("--default-action", arguments->default_action, "The action of all others (default inform)")
      ->type_name("WORD");
  app.add_option("--set-name", arguments->set_name,
                 "The name that goes into the ids (default: that of the first folder or file)")
      ->type_name("NAME");
  app.add_option("--define", arguments->definitions,
                 "Put a value in the place of an external variable; rules that use others are left out. Can be "
                 "repeated")
      ->type_name("NAME=VALUE")
      ->expected(1)
      ->take_all();
  app.add_flag("--plain", arguments->plain, "Write YARA source instead of the packed form");
  app.add_option("RULES", arguments->rules, "Folders of rules, and rule files")->required()->type_name("");
  app.footer(kFooter);
  return [arguments, &common] {
    // The rules are judged in this process, by the daemon's code; results go where that would log.
    korvo::utils::SetLogLevel(0);
    korvo::utils::EnableAssertionLines(false);
    return RunAdopt(*arguments, common);
  };
}

}  // namespace vond::vondctl
