#include "vondctl/rule_set_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>
#include <set>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "static_pattern_matching/rule_set_decoder.h"
#include "utils/rule_set_file.h"
#include "utils/utf8.h"
#include "vondctl/problem_codes.h"
#include "yara/yara_source/yara_source.h"

namespace vond::vondctl {
namespace {

using korvo::yara::yara_lib::MetadataValueToText;
using korvo::yara::yara_lib::YaraRuleInfo;
using korvo::yara::yara_lib::YaraRuleSet;
using yara_source::Directive;
using yara_source::MetaItem;
using yara_source::Range;
using yara_source::RuleReference;
using yara_source::RuleText;

// Every round takes out something that does not compile. More than this many are for a set that needs other help.
constexpr int kMaxRounds = 200;
constexpr std::string_view kUtf8Mark = "\xef\xbb\xbf";

// The modules of any libyara; which of them the engine has, it says itself.
const std::vector<std::string>& KnownModules() {
  static const std::vector<std::string> modules = {"console", "cuckoo", "dex",  "dotnet", "elf",    "hash", "lnk",
                                                   "macho",   "magic",  "math", "pe",     "string", "time"};
  return modules;
}

bool EngineHasModule(const std::string& name) {
  return std::find(KnownModules().begin(), KnownModules().end(), name) != KnownModules().end() &&
         !CompileRuleSource(fmt::format("import \"{}\"", name)).Failed();
}

// What other scanners define.
bool IsWellKnownExternal(std::string_view name) {
  constexpr std::array<std::string_view, 8> kNames = {"filename", "filepath", "extension", "filetype",
                                                      "owner",    "md5",      "file_type", "file_name"};
  return std::find(kNames.begin(), kNames.end(), name) != kNames.end();
}

// One file of the set. `text` loses what does not compile, blank by blank, so that its lines stay where they are.
struct File {
  std::string path;
  bool is_packed = false;
  std::string original;
  std::string text;
  yara_source::SourceIndex index;  // of the text as it was
  std::vector<std::size_t> line_begins;
  struct Extent {
    long first_line = 0;
    long last_line = 0;
    bool is_blank = false;
  };
  std::vector<Extent> extents;  // of each rule
  bool gaps_blanked = false;

  [[nodiscard]] long LineAt(std::size_t offset) const {
    return std::upper_bound(line_begins.begin(), line_begins.end(), offset) - line_begins.begin();
  }
  [[nodiscard]] long LastLine() const { return static_cast<long>(line_begins.size()); }
  [[nodiscard]] std::string Excerpt(long line) const {
    return line < 1 || line > LastLine() ? std::string()
                                         : ExcerptAt(original, line_begins[static_cast<std::size_t>(line) - 1]);
  }
  [[nodiscard]] bool IsBlank(Range range) const {
    return std::string_view(text).substr(range.begin, range.Size()).find_first_not_of(" \n") == std::string_view::npos;
  }
  void Blank(Range range) {
    for (std::size_t i = range.begin; i < range.end; ++i) {
      text[i] = text[i] == '\n' ? '\n' : ' ';
    }
  }
  // Blanks all that belongs to no declaration.
  void BlankGaps() {
    std::vector<Range> kept;
    for (const RuleText& rule : index.rules) {
      kept.push_back(rule.whole);
    }
    for (const auto* directives : {&index.imports, &index.includes}) {
      for (const Directive& directive : *directives) {
        kept.push_back(directive.range);
      }
    }
    std::sort(kept.begin(), kept.end(), [](const Range& a, const Range& b) { return a.begin < b.begin; });
    std::size_t done = 0;
    for (const Range& range : kept) {
      Blank({done, std::max(done, range.begin)});
      done = range.end;
    }
    Blank({done, text.size()});
    gaps_blanked = true;
  }
};

bool IsSyntaxError(std::string_view message) { return message.starts_with("syntax error"); }

// Errors of single characters and words, which the compiler follows up with a syntax error at what it takes for the
// end.
bool IsLexicalError(std::string_view message) {
  constexpr std::array<std::string_view, 9> kBegins = {
      "non-ascii character", "unterminated",       "illegal escape sequence",
      "identifier too long", "integer overflow",   "out of space",
      "using literal",       "invalid hex string", "illegal"};
  return std::any_of(kBegins.begin(), kBegins.end(),
                     [&](std::string_view begin) { return message.starts_with(begin); });
}

std::string OfRule(const std::string& rule, const std::string& message) {
  return rule.empty() ? message : fmt::format("rule \"{}\": {}", rule, message);
}

bool Refers(const RuleText& rule, const std::string& name) {
  return std::any_of(rule.references.begin(), rule.references.end(),
                     [&](const RuleReference& reference) { return reference.name == name; }) ||
         std::find(rule.modules.begin(), rule.modules.end(), name) != rule.modules.end();
}

YaraRuleInfo InfoOf(const RuleText& rule) {
  YaraRuleInfo info;
  info.name = rule.name;
  info.is_private_rule = rule.is_private;
  info.tags = rule.tags;
  for (const MetaItem& item : rule.meta) {
    info.metadata.push_back({item.key, item.value});
  }
  return info;
}

class Checker {
 public:
  explicit Checker(const RuleSetSource& rule_set) {
    for (const RuleFile& source : rule_set.files) {
      File file;
      file.path = source.path;
      file.is_packed = source.content.starts_with(korvo::utils::kPackedRuleSetMark);
      file.original = korvo::static_pattern_matching_daemon::DecodeRuleSet(source.content);
      file.text = file.original;
      file.line_begins.push_back(0);
      for (std::size_t at = file.text.find('\n'); at != std::string::npos; at = file.text.find('\n', at + 1)) {
        file.line_begins.push_back(at + 1);
      }
      files_.push_back(std::move(file));
    }
  }

  RuleSetFindings Run() {
    for (File& file : files_) {
      CheckBytes(file);
      file.index = yara_source::ParseSource(file.text);
      for (const RuleText& rule : file.index.rules) {
        file.extents.push_back({file.LineAt(rule.whole.begin), file.LineAt(rule.whole.end - 1)});
        CheckRuleText(file, rule);
        declared_.try_emplace(rule.name, &file, &rule);
      }
      for (const Directive& import : file.index.imports) {
        imported_.insert(import.text);
        if (import.text == "magic") {
          Add("magic-module", file, import.line, "",
              "the module \"magic\" reads a database from disk and keeps memory");
          Add("magic-readable", file, import.line, "",
              "for the module \"magic\" the daemon's sandbox leaves its database readable");
        }
      }
    }
    if (HasErrors(Compile(AllFiles()))) {
      for (std::size_t i = 0; files_.size() > 1 && i < files_.size(); ++i) {
        CompileUntilGood({&files_[i]}, true);
      }
      CompileUntilGood(AllFiles(), false);
    }
    CollectRules();
    Sort();
    return std::move(findings_);
  }

 private:
  struct Declaration {
    Declaration(const File* in_file, const RuleText* rule_text) : file(in_file), rule(rule_text) {}
    const File* file;
    const RuleText* rule;
  };
  struct Located {
    CompilerReport report;
    File* file = nullptr;
    long line = 0;
  };

  static bool HasErrors(const std::vector<Located>& reports) {
    return std::any_of(reports.begin(), reports.end(), [](const Located& located) { return located.report.is_error; });
  }

  std::vector<File*> AllFiles() {
    std::vector<File*> files;
    for (File& file : files_) {
      files.push_back(&file);
    }
    return files;
  }

  Problem& Add(const char* code, const File& file, long line, const std::string& rule, std::string message) {
    Problem problem = MakeProblem(code, file.path, line, std::move(message));
    problem.rule = rule;
    problem.excerpt = file.Excerpt(line);
    findings_.problems.push_back(std::move(problem));
    return findings_.problems.back();
  }

  // Bytes that no source has. Afterwards the text has none of them.
  void CheckBytes(File& file) {
    std::string& text = file.text;
    const bool is_utf16 = text.starts_with("\xff\xfe") || text.starts_with("\xfe\xff");
    const std::size_t zero = text.find('\0');
    if (is_utf16) {
      Add("bom", file, 1, "", "text in UTF-16; rules are UTF-8 text").excerpt.clear();
    } else if (zero != std::string::npos) {
      const char* const what = text.starts_with("YARA") ? "these are compiled rules (yarac); the daemon takes sources"
                               : text.starts_with("\x1f\x8b") ? "this is a gzip file, not rule source"
                                                              : "a zero byte, behind which the compiler would not look";
      Add("nul-byte", file, file.LineAt(zero), "", what).excerpt.clear();
    }
    // Such a file has no lines worth looking at.
    const auto zeros = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\0'));
    if (is_utf16 || zeros * 10 > text.size()) {
      file.Blank({0, text.size()});
      return;
    }
    std::replace(text.begin(), text.end(), '\0', ' ');
    if (text.starts_with(kUtf8Mark)) {
      Problem& problem = Add("bom", file, 1, "", "begins with a byte order mark, which the compiler does not take");
      problem.excerpt.erase(0, kUtf8Mark.size());
      if (!file.is_packed) {
        problem.fix = "save the file as UTF-8 without a byte order mark";
      }
      file.Blank({0, kUtf8Mark.size()});
    }
    CheckMark(file);
    if (const auto open_end = yara_source::FindOpenEnd(text)) {
      Add("open-end", file, open_end->line, "", open_end->message);
      file.Blank({open_end->begin, text.size()});
    }
  }

  // A mark that does not stand at the very beginning, and so makes nothing a packed file.
  void CheckMark(File& file) {
    const std::size_t begin = file.text.find_first_not_of(" \r\n\t");
    if (begin == std::string::npos) {
      return;
    }
    std::string word = file.text.substr(begin, korvo::utils::kPackedRuleSetMark.size());
    std::transform(word.begin(), word.end(), word.begin(),
                   [](char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); });
    const std::size_t behind = begin + word.size();
    const bool is_word = behind < file.text.size() &&
                         (std::isalnum(static_cast<unsigned char>(file.text[behind])) != 0 || file.text[behind] == '_');
    if (word == korvo::utils::kPackedRuleSetMark && !is_word) {
      Add("looks-encrypted", file, file.LineAt(begin), "",
          "the mark of packed rule files, ENCY, must be the first four bytes, in capitals")
          .excerpt.clear();
      file.Blank({0, file.text.size()});
    }
  }

  // What can be said of a rule as it is written.
  void CheckRuleText(const File& file, const RuleText& rule) {
    std::set<std::string> keys;
    std::set<std::string> repeated;
    for (const MetaItem& item : rule.meta) {
      if (!keys.insert(item.key).second && repeated.insert(item.key).second) {
        const bool counts = item.key == "id" || item.key == "action";
        const MetaItem& last = *std::find_if(rule.meta.rbegin(), rule.meta.rend(),
                                             [&](const MetaItem& other) { return other.key == item.key; });
        Add("duplicate-metadata-key", file, item.line, rule.name,
            counts ? fmt::format("rule \"{}\" has \"{}\" more than once; the last one counts: \"{}\"", rule.name,
                                 item.key, MetadataValueToText(last.value))
                   : fmt::format("rule \"{}\" has \"{}\" more than once", rule.name, item.key));
      }
      const auto* const text = std::get_if<std::string>(&item.value);
      if (text != nullptr && korvo::utils::ReplaceInvalidUtf8(*text) != *text) {
        Add("not-utf8-metadata", file, item.line, rule.name,
            fmt::format("the \"{}\" of rule \"{}\" is not valid UTF-8; results will show U+FFFD in it", item.key,
                        rule.name));
      }
    }
    if (std::find(rule.modules.begin(), rule.modules.end(), "console") != rule.modules.end()) {
      Add("console-log", file, rule.line, rule.name,
          fmt::format("rule \"{}\" writes with \"console\", and the daemon throws that away", rule.name));
    }
    if (rule.is_private) {
      Add("private-rule", file, rule.line, rule.name,
          fmt::format("rule \"{}\" is private: its matches show only where private rules are asked for", rule.name));
    }
    if (rule.is_global) {
      Add("global-rule", file, rule.line, rule.name,
          fmt::format("rule \"{}\" is global: where it does not match, no rule of the set does", rule.name));
    }
  }

  // Compiles what is left of `files` and places each report. Keeps the rules, and the warnings that are new.
  std::vector<Located> Compile(const std::vector<File*>& files) {
    std::string source;
    std::vector<long> first_lines;
    long line = 1;
    for (const File* file : files) {
      first_lines.push_back(line);
      source += file->text;
      line += file->LastLine() - 1;
      if (!source.empty() && source.back() != '\n') {
        source += '\n';
        ++line;
      }
    }
    findings_.compiled = CompileRuleSource(source);
    std::vector<Located> located;
    for (const CompilerReport& report : findings_.compiled.reports) {
      std::size_t i = files.size() - 1;
      while (report.line > 0 && i > 0 && first_lines[i] > report.line) {
        --i;
      }
      // Line 0 says that the source ends too early.
      const long place =
          report.line == 0 ? files[i]->LastLine() : std::min(report.line - first_lines[i] + 1, files[i]->LastLine());
      located.push_back({report, files[i], PlaceOfError(report, *files[i], place)});
      if (!report.is_error) {
        AddWarning(located.back());
      }
    }
    return located;
  }

  // Of text without an end the compiler reports the line behind it.
  static long PlaceOfError(const CompilerReport& report, const File& file, long line) {
    if (!report.message.starts_with("unterminated")) {
      return line;
    }
    const std::vector<yara_source::Token> tokens = yara_source::Tokenize(file.text);
    return std::any_of(tokens.begin(), tokens.end(),
                       [&](const yara_source::Token& token) {
                         return token.kind == yara_source::TokenKind::kError && token.line == line - 1;
                       })
               ? line - 1
               : line;
  }

  void AddWarning(const Located& located) {
    if (!warned_.emplace(located.file, located.line, located.report.message).second) {
      return;
    }
    std::string rule = located.report.rule;
    if (rule.empty()) {
      if (const RuleText* const found = RuleOf(located)) {
        rule = found->name;
      }
    }
    Add(IsSlowStringWarning(located.report.message) ? "slow-string" : "compile-warning", *located.file, located.line,
        rule, OfRule(rule, located.report.message));
  }

  // Reports and blanks what does not compile, until the rest does. `alone`: what other files may supply is not missed.
  void CompileUntilGood(const std::vector<File*>& files, bool alone) {
    for (int round = 0; round < kMaxRounds; ++round) {
      const std::vector<Located> reports = Compile(files);
      if (!HasErrors(reports)) {
        return;
      }
      bool blanked = false;
      const Located* before = nullptr;
      for (const Located& located : reports) {
        if (!located.report.is_error) {
          continue;
        }
        const bool follows =
            before != nullptr && IsLexicalError(before->report.message) && IsSyntaxError(located.report.message);
        if (!follows) {
          blanked = HandleError(located, alone) || blanked;
        }
        before = &located;
        // What the compiler says after one is guesswork: the next round shows it anew.
        if (IsSyntaxError(located.report.message)) {
          break;
        }
      }
      if (!blanked) {
        if (!alone) {
          GiveUp(files);
        }
        return;
      }
    }
    GiveUp(files);
  }

  // For what the reports give no hold to leave out.
  void GiveUp(const std::vector<File*>& files) {
    Problem problem = MakeProblem("compile-error", files.front()->path, 0,
                                  "too much here does not compile; mend what is reported and check again");
    findings_.problems.push_back(std::move(problem));
    for (File* file : files) {
      BlankAll(*file);
    }
    static_cast<void>(Compile(files));
  }

  // Whether anything was left out for it.
  bool HandleError(const Located& located, bool alone) {
    File& file = *located.file;
    const std::string& message = located.report.message;
    if (message == "includes are disabled" || message.starts_with("unknown module")) {
      return HandleDirective(located);
    }
    const std::string undefined = UndefinedIdentifier(message);
    const RuleText* const rule = RuleOf(located);
    const std::string name = rule == nullptr ? std::string() : rule->name;
    if (!undefined.empty() && alone && !broken_.contains(undefined) && IsSuppliedByAnyFile(undefined)) {
      return false;
    }
    if (undefined.empty()) {
      if (!IsOfMissingModule(message, rule)) {
        AddError(located, name);
      }
    } else if (!IsBroken(undefined, rule)) {
      AddUndefined(located, rule, undefined);
    }
    return Leave(file, rule);
  }

  // After an unknown module the compiler goes on with one that has nothing in it.
  bool IsOfMissingModule(const std::string& message, const RuleText* rule) const {
    return rule != nullptr && message.starts_with("invalid field name") &&
           std::any_of(rule->modules.begin(), rule->modules.end(),
                       [&](const std::string& module) { return broken_.contains(module); });
  }

  // Leaves out a rule; or, if it is not known which, all that is no declaration; or else the file.
  bool Leave(File& file, const RuleText* rule) {
    if (rule != nullptr) {
      file.Blank(rule->whole);
      file.extents[static_cast<std::size_t>(rule - file.index.rules.data())].is_blank = true;
      MarkBroken(*rule);
      return true;
    }
    const std::string before = file.text;
    if (!file.gaps_blanked) {
      file.BlankGaps();
    }
    if (file.text == before) {
      BlankAll(file);
    }
    return file.text != before;
  }

  // Whoever needs a second rule of a name has the first one.
  void MarkBroken(const RuleText& rule) {
    const auto first = declared_.find(rule.name);
    if (first == declared_.end() || first->second.rule == &rule) {
      broken_.insert(rule.name);
    }
  }

  void BlankAll(File& file) {
    for (std::size_t i = 0; i < file.index.rules.size(); ++i) {
      MarkBroken(file.index.rules[i]);
      file.extents[i].is_blank = true;
    }
    file.Blank({0, file.text.size()});
  }

  void AddError(const Located& located, const std::string& rule) {
    const std::string& message = located.report.message;
    constexpr std::string_view kDuplicated = "duplicated identifier \"";
    if (message.starts_with(kDuplicated)) {
      const std::string name =
          message.substr(kDuplicated.size(), message.find('"', kDuplicated.size()) - kDuplicated.size());
      const auto first = declared_.find(name);
      Problem& problem =
          Add("duplicate-rule", *located.file, located.line, name,
              first == declared_.end() ? message
                                       : fmt::format("rule \"{}\" stands a second time; the first is at {}:{}", name,
                                                     first->second.file->path, first->second.rule->line));
      problem.fix = "rename or remove one, or: vondctl pack --on-duplicate drop|rename";
      return;
    }
    Add("compile-error", *located.file, located.line, rule, OfRule(rule, message));
  }

  void AddUndefined(const Located& located, const RuleText* rule, const std::string& name) {
    const std::string rule_name = rule == nullptr ? located.report.rule : rule->name;
    // The rule's place in a set of its own, or that of a rule whose name begins so, as in "any of (Name*)".
    const auto declared = std::find_if(declared_.begin(), declared_.end(), [&](const auto& entry) {
      return entry.first == name || (IsPrefixIn(rule, name) && entry.first.starts_with(name));
    });
    if (declared != declared_.end()) {
      const Declaration& place = declared->second;
      Problem& problem = Add("compile-error", *located.file, located.line, rule_name,
                             OfRule(rule_name, fmt::format("\"{}\" is used before it is declared, at {}:{}",
                                                           declared->first, place.file->path, place.rule->line)));
      problem.fix = "move the rule up; files are joined in the order in which they are named, folders by name";
    } else if (EngineHasModule(name)) {
      Problem& problem = Add("compile-error", *located.file, located.line, rule_name,
                             OfRule(rule_name, fmt::format("the module \"{}\" is not imported", name)));
      problem.fix = fmt::format("put import \"{}\" at the top of the file", name);
    } else if (IsWellKnownExternal(name)) {
      Problem& problem =
          Add("external-variable", *located.file, located.line, rule_name,
              OfRule(rule_name, fmt::format("\"{}\" is an external variable, and the daemon defines none", name)));
      problem.fix = "take it out of the condition; vondctl adopt leaves such rules out";
    } else {
      std::vector<std::string> names;
      for (const auto& [known, place] : declared_) {
        names.push_back(known);
      }
      const std::string hint = names.size() > kMaxNamesToCompare ? "" : QuotedSuggestion(name, names);
      Add("external-variable", *located.file, located.line, rule_name,
          OfRule(rule_name, fmt::format("\"{}\" is neither a rule nor an imported module, and the daemon defines no "
                                        "external variables{}",
                                        name, hint)));
    }
  }

  bool HandleDirective(const Located& located) {
    File& file = *located.file;
    const bool is_include = located.report.message == "includes are disabled";
    auto& directives = is_include ? file.index.includes : file.index.imports;
    for (const Directive& directive : directives) {
      const bool is_meant =
          is_include || located.report.message == fmt::format("unknown module \"{}\"", directive.text);
      // The compiler reports where it stands by then, which may be a line further on.
      if (!is_meant || file.IsBlank(directive.range) || directive.line > located.line) {
        continue;
      }
      if (is_include) {
        Problem& problem = Add("include", file, directive.line, "", "includes are disabled: the daemon opens no files");
        problem.fix = "vondctl pack puts included files in their place; or remove the line and name both files";
      } else {
        Problem& problem =
            Add("unknown-module", file, directive.line, "",
                fmt::format("the engine has no module \"{}\"{}", directive.text, DidYouMeanModule(directive.text)));
        problem.fix = "leave out the rules that need it";
        broken_.insert(directive.text);
      }
      file.Blank(directive.range);
      return true;
    }
    Add(is_include ? "include" : "unknown-module", file, located.line, "", located.report.message);
    return Leave(file, nullptr);
  }

  static std::string DidYouMeanModule(const std::string& name) {
    std::vector<std::string> modules;
    for (const std::string& module : KnownModules()) {
      if (module != name && EngineHasModule(module)) {
        modules.push_back(module);
      }
    }
    return QuotedSuggestion(name, modules);
  }

  static bool IsPrefixIn(const RuleText* rule, const std::string& name) {
    return rule != nullptr &&
           std::any_of(rule->references.begin(), rule->references.end(),
                       [&](const RuleReference& reference) { return reference.is_prefix && reference.name == name; });
  }

  // Whether a name is missing only because what declares it was left out: that has been reported already.
  bool IsBroken(const std::string& name, const RuleText* rule) const {
    return broken_.contains(name) ||
           (IsPrefixIn(rule, name) && std::any_of(broken_.begin(), broken_.end(),
                                                  [&](const std::string& broken) { return broken.starts_with(name); }));
  }

  bool IsSuppliedByAnyFile(const std::string& name) const {
    return declared_.contains(name) || imported_.contains(name) ||
           std::any_of(declared_.begin(), declared_.end(),
                       [&](const auto& entry) { return entry.first.starts_with(name); });
  }

  // Whether there is anything on a line that belongs to no declaration.
  static bool HasStrayToken(const File& file, long line) {
    const auto covers = [](const std::vector<Directive>& directives, std::size_t at) {
      return std::any_of(directives.begin(), directives.end(), [&](const Directive& directive) {
        return directive.range.begin <= at && at < directive.range.end;
      });
    };
    const std::vector<yara_source::Token> tokens = yara_source::Tokenize(file.text);
    return std::any_of(tokens.begin(), tokens.end(), [&](const yara_source::Token& token) {
      const std::size_t at = token.range.begin;
      return token.line == line && token.kind != yara_source::TokenKind::kComment && !covers(file.index.imports, at) &&
             !covers(file.index.includes, at) &&
             std::none_of(file.index.rules.begin(), file.index.rules.end(),
                          [&](const RuleText& rule) { return rule.whole.begin <= at && at < rule.whole.end; });
    });
  }

  // The rule that an error is about; null if it is about none, or that can't be told.
  static const RuleText* RuleOf(const Located& located) {
    const File& file = *located.file;
    if ((IsSyntaxError(located.report.message) || IsLexicalError(located.report.message)) && !file.gaps_blanked &&
        HasStrayToken(file, located.line)) {
      return nullptr;
    }
    const CompilerReport& report = located.report;
    const RuleText* by_line = nullptr;
    const RuleText* by_name = nullptr;
    const RuleText* by_reference = nullptr;
    const RuleText* unclosed = nullptr;
    const std::string undefined = UndefinedIdentifier(report.message);
    auto i = std::upper_bound(file.extents.begin(), file.extents.end(), located.line,
                              [](long line, const File::Extent& extent) { return line < extent.first_line; }) -
             file.extents.begin();
    while (i > 0) {
      const auto index = static_cast<std::size_t>(--i);
      const RuleText& rule = file.index.rules[index];
      const File::Extent& extent = file.extents[index];
      if (extent.is_blank) {
        continue;
      }
      if (extent.last_line < located.line) {
        // Nothing further up can be meant but a rule without an end.
        unclosed = file.text[rule.whole.end - 1] == '}' ? nullptr : &rule;
        break;
      }
      by_line = &rule;
      // Of several rules of a name on one line the last one is the one too many.
      if (by_name == nullptr &&
          (rule.name == report.rule || report.message == fmt::format("duplicated identifier \"{}\"", rule.name))) {
        by_name = &rule;
      }
      if (!undefined.empty() && Refers(rule, undefined)) {
        by_reference = &rule;
      }
    }
    if (by_name != nullptr) {
      return by_name;
    }
    if (unclosed != nullptr && (IsSyntaxError(report.message) || by_line == nullptr)) {
      return unclosed;
    }
    return by_reference != nullptr ? by_reference : by_line;
  }

  void CollectRules() {
    std::unordered_map<std::string, const File*> file_of;
    std::unordered_map<std::string, const RuleText*> text_of;
    std::vector<std::pair<const File*, const RuleText*>> broken;
    for (const File& file : files_) {
      for (std::size_t i = 0; i < file.index.rules.size(); ++i) {
        const RuleText& rule = file.index.rules[i];
        if (file.extents[i].is_blank) {
          broken.emplace_back(&file, &rule);
        } else {
          file_of.try_emplace(rule.name, &file);
          text_of.try_emplace(rule.name, &rule);
        }
      }
    }
    if (findings_.compiled.rules != nullptr) {
      const YaraRuleSet loaded(findings_.compiled.rules, "id", {});
      for (std::size_t i = 0; i < loaded.size(); ++i) {
        CheckedRule rule;
        rule.info = loaded.GetRule(i);
        const auto text = text_of.find(rule.info.name);
        if (text != text_of.end()) {
          Place(rule, *file_of.at(rule.info.name), *text->second);
        }
        findings_.rules.push_back(std::move(rule));
      }
    }
    for (const auto& [file, text] : broken) {
      CheckedRule rule;
      rule.info = InfoOf(*text);
      rule.compiles = false;
      Place(rule, *file, *text);
      findings_.rules.push_back(std::move(rule));
    }
  }

  static void Place(CheckedRule& rule, const File& file, const RuleText& text) {
    rule.is_global = text.is_global;
    rule.file = file.path;
    rule.is_packed = file.is_packed;
    rule.line = text.line;
    rule.excerpt = file.Excerpt(text.line);
  }

  void Sort() {
    std::unordered_map<std::string, std::size_t> position;
    for (const File& file : files_) {
      position.try_emplace(file.path, position.size());
    }
    std::stable_sort(findings_.problems.begin(), findings_.problems.end(), [&](const Problem& a, const Problem& b) {
      return std::pair(position[a.file], a.line) < std::pair(position[b.file], b.line);
    });
    const auto same = [](const Problem& a, const Problem& b) {
      return std::tie(a.code, a.file, a.line, a.rule, a.message) == std::tie(b.code, b.file, b.line, b.rule, b.message);
    };
    findings_.problems.erase(std::unique(findings_.problems.begin(), findings_.problems.end(), same),
                             findings_.problems.end());
  }

  static constexpr std::size_t kMaxNamesToCompare = 5000;

  std::vector<File> files_;
  RuleSetFindings findings_;
  std::unordered_map<std::string, Declaration> declared_;  // the first of each name
  std::unordered_set<std::string> imported_;
  std::set<std::string> broken_;  // rules and modules that were left out
  std::set<std::tuple<const File*, long, std::string>> warned_;
};

}  // namespace

RuleSetFindings CheckRuleSet(const RuleSetSource& rule_set) {
  if (rule_set.files.empty()) {
    return {};
  }
  return Checker(rule_set).Run();
}

Problem RuleProblem(const char* code, const CheckedRule& rule, std::string message) {
  Problem problem = MakeProblem(code, rule.file, rule.line, std::move(message));
  problem.rule = rule.info.name;
  problem.excerpt = rule.excerpt;
  return problem;
}

}  // namespace vond::vondctl
