#include "vondctl/rule_merge.h"

#include <fmt/format.h>

#include <algorithm>
#include <deque>
#include <filesystem>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>

#include "static_pattern_matching/rule_set_decoder.h"
#include "vondctl/policy_source.h"
#include "vondctl/problem_codes.h"
#include "vondctl/rule_compiler.h"
#include "vondctl/rule_sections.h"

namespace vond::vondctl {
namespace {

namespace fs = std::filesystem;
using korvo::static_pattern_matching_daemon::DecodeRuleSet;
using yara_source::Directive;
using yara_source::Edits;
using yara_source::ParseSource;
using yara_source::Range;
using yara_source::RuleReference;
using yara_source::RuleText;
using yara_source::SourceIndex;
using yara_source::Token;
using yara_source::Tokenize;
using yara_source::TokenKind;

constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
constexpr std::size_t kMaxIdentifier = 128;  // libyara's

std::string_view TextOf(std::string_view source, Range range) { return source.substr(range.begin, range.Size()); }

long CountLines(std::string_view text) { return std::count(text.begin(), text.end(), '\n'); }

bool IsBlank(std::string_view text) { return text.find_first_not_of(" \t\r\n") == std::string_view::npos; }

// The line of `text` that holds position `at`.
std::string LineAround(std::string_view text, std::size_t at) {
  const std::size_t before = at == 0 ? std::string_view::npos : text.rfind('\n', at - 1);
  const std::size_t begin = before == std::string_view::npos ? 0 : before + 1;
  std::string_view line = text.substr(begin, text.find('\n', begin) - begin);
  if (line.ends_with('\r')) {
    line.remove_suffix(1);
  }
  return std::string(line);
}

// `range` together with the rest of its line if nothing else stands there.
Range WithLineEnd(std::string_view text, Range range) {
  const std::size_t end = text.find_first_not_of(" \t\r", range.end);
  if (end != std::string_view::npos && text[end] == '\n') {
    range.end = end + 1;
  }
  return range;
}

std::string PlaceText(const SourcePlace& place) { return fmt::format("{}:{}", place.file, place.line); }

// Reads files and puts what they include in the place of the directive.
class Merger {
 public:
  Merger(MergedSource& merged, std::vector<Problem>& problems) : merged_(merged), problems_(problems) {}

  // A file that was named, with all it includes.
  void AddUnit(RuleFile file) {
    const std::string key = KeyOf(file.path);
    if (!seen_.insert(key).second) {
      return;
    }
    merged_.BeginUnit();
    Open(std::move(file), key);
    while (!open_.empty()) {
      OpenFile& current = open_.back();
      if (current.next_include < current.includes.size()) {
        const Directive include = current.includes[current.next_include++];
        AppendUpTo(current, include.range.begin);
        SkipTo(current, include.range.end);
        Include(include);
      } else {
        AppendUpTo(current, current.text.size());
        open_.pop_back();
      }
    }
  }

 private:
  struct OpenFile {
    std::string path;
    std::string key;
    std::string text;
    std::vector<Directive> includes;
    std::size_t next_include = 0;
    std::size_t position = 0;  // up to which the text has been used
    long line = 1;             // of `position`
  };

  // The same for all names of a file.
  static std::string KeyOf(const std::string& path) {
    std::error_code error;
    const fs::path key = fs::canonical(path, error);
    return error ? path : key.string();
  }

  void Open(RuleFile file, const std::string& key) {
    OpenFile opened;
    opened.text = DecodeRuleSet(std::move(file.content));
    if (opened.text.starts_with(kByteOrderMark)) {
      opened.text.erase(0, kByteOrderMark.size());
      problems_.push_back(MakeProblem("bom", file.path, 1, "begins with a byte order mark, which is left out"));
      problems_.back().severity = Severity::kWarning;
    }
    if (const auto open_end = yara_source::FindOpenEnd(opened.text)) {
      problems_.push_back(MakeProblem("open-end", file.path, open_end->line, open_end->message));
      problems_.back().excerpt = LineAround(opened.text, open_end->begin);
      opened.text.resize(open_end->begin);
    }
    opened.path = std::move(file.path);
    opened.key = key;
    opened.includes = ParseSource(opened.text).includes;
    open_.push_back(std::move(opened));
  }

  void Include(const Directive& include) {
    const OpenFile& from = open_.back();
    const std::string path = (fs::path(from.path).parent_path() / include.text).string();
    const std::string key = KeyOf(path);
    const auto loop = std::find_if(open_.begin(), open_.end(), [&](const OpenFile& file) { return file.key == key; });
    if (loop != open_.end()) {
      std::string names;
      for (auto file = loop; file != open_.end(); ++file) {
        names += file->path + " -> ";
      }
      ReportInclude(include, fmt::format("includes itself: {}{}", names, loop->path));
      return;
    }
    if (!seen_.insert(key).second) {
      return;
    }
    std::error_code error;
    if (fs::is_directory(path, error)) {
      ReportInclude(include, fmt::format("can't include {}: it is a folder", path));
      return;
    }
    std::vector<RuleFile> files;
    std::vector<Problem> problems;
    ReadRuleFiles(path, files, problems);
    if (problems.empty()) {
      Open(std::move(files.front()), key);
    } else {
      ReportInclude(include, fmt::format("can't include {}: {}", path, problems.front().message));
    }
  }

  void AppendUpTo(OpenFile& file, std::size_t end) {
    const std::string_view part(file.text.data() + file.position, end - file.position);
    if (!IsBlank(part)) {
      merged_.Append(file.path, part, file.line);
    }
    SkipTo(file, end);
  }

  // Leaves out what lies before `end`, and the rest of its line if that is blank.
  static void SkipTo(OpenFile& file, std::size_t end) {
    const std::size_t rest = WithLineEnd(file.text, {file.position, end}).end;
    file.line += CountLines(TextOf(file.text, {file.position, rest}));
    file.position = rest;
  }

  void ReportInclude(const Directive& include, std::string message) {
    const OpenFile& from = open_.back();
    problems_.push_back(MakeProblem("include", from.path, include.line, std::move(message)));
    problems_.back().excerpt = LineAround(from.text, include.range.begin);
  }

  MergedSource& merged_;
  std::vector<Problem>& problems_;
  std::set<std::string> seen_;
  std::vector<OpenFile> open_;  // the one at the end included by the one before
};

std::vector<CompilerReport> CompilerErrors(const std::string& source) {
  std::vector<CompilerReport> reports = CompileRuleSource(source).reports;
  std::erase_if(reports, [](const CompilerReport& report) { return !report.is_error; });
  return reports;
}

// A rule's tokens, with its references as `new_names` has them by their position.
std::string Essence(std::string_view source, const RuleText& rule,
                    const std::map<std::size_t, std::string>& new_names) {
  std::string essence;
  const std::string_view text = TextOf(source, rule.whole);
  for (const Token& token : Tokenize(text)) {
    if (token.kind != TokenKind::kComment) {
      const auto renamed = new_names.find(rule.whole.begin + token.range.begin);
      essence += renamed == new_names.end() ? CanonicalToken(text, token) : renamed->second;
      essence += '\n';
    }
  }
  return essence;
}

// Gives rules of one name names of their own; one use.
class DuplicateResolver {
 public:
  DuplicateResolver(const MergedSource& source, OnDuplicate on_duplicate, std::vector<RuleDecision>& decisions)
      : source_(source),
        on_duplicate_(on_duplicate),
        decisions_(decisions),
        index_(ParseSource(source.Text())),
        final_names_(index_.rules.size()) {}

  MergedSource Run() {
    for (const RuleText& rule : index_.rules) {
      ++uses_[rule.name];
    }
    for (std::size_t i = 0; i < index_.rules.size(); ++i) {
      Visit(i);
    }
    return source_.Edited(edits_);
  }

 private:
  struct Kept {
    std::size_t rule = 0;
    std::string essence;
    std::string name;
  };

  void Visit(std::size_t i) {
    const RuleText& rule = index_.rules[i];
    final_names_[i] = rule.name;
    std::map<std::size_t, std::string> new_names;  // of references, by position
    for (const RuleReference& reference : rule.references) {
      const std::string* const name = reference.is_prefix ? nullptr : NameMeant(rule, reference.name);
      if (name != nullptr && *name != reference.name) {
        new_names[reference.range.begin] = *name;
      }
    }
    bool stays = true;
    if (uses_.at(rule.name) > 1) {
      stays = ResolveClash(i, Essence(source_.Text(), rule, new_names));
      declared_[rule.name].push_back(i);
    }
    if (stays) {
      for (const auto& [position, name] : new_names) {
        edits_.Replace({position, position + ReferenceSize(rule, position)}, name);
      }
    }
  }

  static std::size_t ReferenceSize(const RuleText& rule, std::size_t position) {
    return std::find_if(rule.references.begin(), rule.references.end(),
                        [&](const RuleReference& reference) { return reference.range.begin == position; })
        ->range.Size();
  }

  // The final name of the rule that `name` means inside `rule`; null where only one rule has it.
  [[nodiscard]] const std::string* NameMeant(const RuleText& rule, const std::string& name) const {
    const auto found = declared_.find(name);
    if (found == declared_.end()) {
      return nullptr;
    }
    const auto nearest = [&](const auto& belongs) -> const std::string* {
      const auto match = std::find_if(found->second.rbegin(), found->second.rend(), belongs);
      return match == found->second.rend() ? nullptr : &final_names_[*match];
    };
    const std::string file = source_.PlaceOfLine(rule.line).file;
    const std::size_t unit = source_.UnitOfLine(rule.line);
    const std::string* meant = nearest([&](std::size_t other) { return PlaceOf(other).file == file; });
    if (meant == nullptr) {
      meant = nearest([&](std::size_t other) { return source_.UnitOfLine(index_.rules[other].line) == unit; });
    }
    return meant == nullptr ? &final_names_[found->second.front()] : meant;
  }

  // False if the rule goes.
  bool ResolveClash(std::size_t i, std::string essence) {
    const RuleText& rule = index_.rules[i];
    std::vector<Kept>& kept = kept_[rule.name];
    const auto twin = std::find_if(kept.begin(), kept.end(), [&](const Kept& k) { return k.essence == essence; });
    if (twin != kept.end()) {
      final_names_[i] = twin->name;
      Remove(i, RuleDecision::Kind::kTwin, twin->rule);
      return false;
    }
    if (!kept.empty() && on_duplicate_ == OnDuplicate::kDrop) {
      Remove(i, RuleDecision::Kind::kShadowed, kept.front().rule);
      return false;
    }
    if (!kept.empty()) {
      final_names_[i] = FreeName(rule.name, kept.size() + 1);
      edits_.Replace(rule.name_range, final_names_[i]);
      decisions_.push_back({RuleDecision::Kind::kRenamed, rule.name, PlaceOf(i), final_names_[i]});
    }
    kept.push_back({i, std::move(essence), final_names_[i]});
    return true;
  }

  void Remove(std::size_t i, RuleDecision::Kind kind, std::size_t stays) {
    const RuleText& rule = index_.rules[i];
    edits_.Replace(WithLineEnd(source_.Text(), rule.whole), "");
    decisions_.push_back({kind, rule.name, PlaceOf(i), PlaceText(PlaceOf(stays))});
  }

  std::string FreeName(const std::string& name, std::size_t number) {
    for (;; ++number) {
      const std::string suffix = fmt::format("_{}", number);
      std::string candidate = name.substr(0, kMaxIdentifier - suffix.size()) + suffix;
      if (uses_.try_emplace(candidate, 1).second) {
        return candidate;
      }
    }
  }

  [[nodiscard]] SourcePlace PlaceOf(std::size_t i) const { return source_.PlaceOfLine(index_.rules[i].line); }

  const MergedSource& source_;
  const OnDuplicate on_duplicate_;
  std::vector<RuleDecision>& decisions_;
  const SourceIndex index_;
  Edits edits_;
  std::vector<std::string> final_names_;                                // of each rule
  std::unordered_map<std::string, std::size_t> uses_;                   // of each name
  std::unordered_map<std::string, std::vector<std::size_t>> declared_;  // rules seen so far, of names used twice
  std::unordered_map<std::string, std::vector<Kept>> kept_;
};

// Whether the rule has its last brace. If not, the compiler would put the blame on the next one.
bool IsWhole(std::string_view source, const RuleText& rule) { return TextOf(source, rule.whole).ends_with('}'); }

// Parts of a source that are whole declarations, in its order.
std::vector<Range> DeclaredRanges(std::string_view source, const SourceIndex& index) {
  std::vector<Range> ranges;
  for (const RuleText& rule : index.rules) {
    if (IsWhole(source, rule)) {
      ranges.push_back(rule.whole);
    }
  }
  for (const std::vector<Directive>* const directives : {&index.imports, &index.includes}) {
    for (const Directive& directive : *directives) {
      ranges.push_back(directive.range);
    }
  }
  std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) { return a.begin < b.begin; });
  return ranges;
}

// Leaves out, file by file, what is neither a declaration nor a comment, and lets each declaration begin on a line of
// its own: after that a line is enough to tell whose an error is.
class RubbishRemover {
 public:
  RubbishRemover(const MergedSource& source, std::vector<RuleDecision>& decisions)
      : source_(source), decisions_(decisions) {}

  MergedSource Run() {
    for (const Range& part : source_.Parts()) {
      Visit(part);
    }
    return source_.Edited(edits_);
  }

 private:
  void Visit(Range part) {
    const std::string_view text = TextOf(source_.Text(), part);
    const SourceIndex index = ParseSource(text);
    const std::vector<Range> declared = DeclaredRanges(text, index);
    for (std::size_t i = 1; i < declared.size(); ++i) {
      if (TextOf(text, {declared[i - 1].end, declared[i].begin}).find('\n') == std::string_view::npos) {
        edits_.Insert(part.begin + declared[i].begin, "\n");
      }
    }
    const std::vector<Token> tokens = Tokenize(text);
    auto next = declared.begin();
    std::vector<Token> rubbish;
    for (const Token& token : tokens) {
      while (next != declared.end() && next->end <= token.range.begin) {
        ++next;
      }
      const bool inside = next != declared.end() && next->begin <= token.range.begin;
      const bool has_zero = TextOf(text, token.range).find('\0') != std::string_view::npos;  // ends what is compiled
      if (!inside && (has_zero || (token.kind != TokenKind::kComment && !index.errors.empty()))) {
        if (TextOf(text, token.range) == "rule" && !AreModifiers(text, rubbish)) {
          Remove(part, index, rubbish);
        }
        rubbish.push_back(token);
      } else {
        Remove(part, index, rubbish);
      }
    }
    Remove(part, index, rubbish);
  }

  static bool AreModifiers(std::string_view text, const std::vector<Token>& tokens) {
    return std::all_of(tokens.begin(), tokens.end(), [&](const Token& token) {
      const std::string_view word = TextOf(text, token.range);
      return word == "private" || word == "global";
    });
  }

  // Leaves out `rubbish`, which is empty afterwards.
  void Remove(Range part, const SourceIndex& index, std::vector<Token>& rubbish) {
    if (rubbish.empty()) {
      return;
    }
    const std::string_view text = TextOf(source_.Text(), part);
    RuleDecision decision{RuleDecision::Kind::kNoRule, "", {}, "is no rule"};
    for (std::size_t i = 0; i + 1 < rubbish.size(); ++i) {
      if (TextOf(text, rubbish[i].range) == "rule" && rubbish[i + 1].kind == TokenKind::kIdentifier) {
        decision.kind = RuleDecision::Kind::kBroken;
        decision.detail = "it does not end";
        decision.rule = TextOf(text, rubbish[i + 1].range);
      }
    }
    const long first = rubbish.front().line;
    const long last = rubbish.back().line;
    const auto error = std::find_if(index.errors.begin(), index.errors.end(),
                                    [&](const auto& e) { return e.line >= first && e.line <= last; });
    if (error != index.errors.end()) {
      decision.detail = error->message;
    }
    decision.place = source_.PlaceOfLine(source_.LineAt(part.begin + rubbish.front().range.begin));
    decisions_.push_back(std::move(decision));
    const Range range{rubbish.front().range.begin, rubbish.back().range.end};
    const bool has_newline = TextOf(text, range).find('\n') != std::string_view::npos;
    edits_.Replace({part.begin + range.begin, part.begin + range.end}, has_newline ? "\n" : "");
    rubbish.clear();
  }

  const MergedSource& source_;
  std::vector<RuleDecision>& decisions_;
  Edits edits_;
};

// Finds out whose the compiler's errors are.
class Blame {
 public:
  explicit Blame(const MergedSource& source) : source_(source), index_(ParseSource(source.Text())) {
    for (std::size_t i = 0; i < index_.rules.size(); ++i) {
      rule_by_line_.emplace(source_.LineAt(index_.rules[i].whole.begin), i);
    }
    for (const std::vector<Directive>* const directives : {&index_.imports, &index_.includes}) {
      for (const Directive& directive : *directives) {
        directive_by_line_.emplace(directive.line, &directive);
      }
    }
  }

  [[nodiscard]] const SourceIndex& Index() const { return index_; }

  // The import or include on the line of `report`, null if there is none.
  [[nodiscard]] const Directive* DirectiveOf(const CompilerReport& report) const {
    const auto found = directive_by_line_.find(report.line);
    return found == directive_by_line_.end() ? nullptr : found->second;
  }

  // The position of the rule that holds the line, else of one that may have caused the error; nothing without rules.
  [[nodiscard]] std::optional<std::size_t> RuleOf(const CompilerReport& report) const {
    const auto after = report.line < 1 ? rule_by_line_.end() : rule_by_line_.upper_bound(report.line);
    const auto holder = after == rule_by_line_.begin() ? after : std::prev(after);
    if (holder != rule_by_line_.end() && source_.LineAt(index_.rules[holder->second].whole.end - 1) >= report.line &&
        report.line > 0) {
      return holder->second;
    }
    for (const auto& [line, rule] : rule_by_line_) {
      if (index_.rules[rule].name == report.rule) {
        return rule;
      }
    }
    return holder == rule_by_line_.end() ? std::nullopt : std::optional(holder->second);
  }

 private:
  const MergedSource& source_;
  const SourceIndex index_;
  std::map<long, std::size_t> rule_by_line_;
  std::map<long, const Directive*> directive_by_line_;
};

// The rules that need others, found by what they need.
class Dependents {
 public:
  explicit Dependents(const SourceIndex& index) : index_(index) {
    for (std::size_t i = 0; i < index.rules.size(); ++i) {
      ++declarations_[index.rules[i].name];
      for (const RuleReference& reference : index.rules[i].references) {
        (reference.is_prefix ? by_prefix_ : by_name_)[reference.name].push_back(i);
      }
    }
  }

  // Once `rule` is gone: the rules that counted on it.
  std::vector<std::size_t> Remove(std::size_t rule) {
    const std::string& name = index_.rules[rule].name;
    std::vector<std::size_t> dependents;
    if (--declarations_.at(name) == 0) {
      dependents = by_name_[name];
    }
    for (std::size_t size = 0; size <= name.size(); ++size) {
      const auto found = by_prefix_.find(name.substr(0, size));
      if (found != by_prefix_.end()) {  // a rule set counts only what stands before it
        std::copy_if(found->second.begin(), found->second.end(), std::back_inserter(dependents),
                     [rule](std::size_t dependent) { return dependent > rule; });
      }
    }
    return dependents;
  }

 private:
  const SourceIndex& index_;
  std::unordered_map<std::string, std::size_t> declarations_;
  std::unordered_map<std::string, std::vector<std::size_t>> by_name_;
  std::unordered_map<std::string, std::vector<std::size_t>> by_prefix_;
};

// Adds to `edits` that `rules` and their dependents go.
void RemoveRules(const MergedSource& source, const SourceIndex& index, const std::map<std::size_t, std::string>& rules,
                 Edits& edits, std::vector<RuleDecision>& decisions) {
  Dependents dependents(index);
  struct Removal {
    std::size_t rule;
    RuleDecision::Kind kind;
    std::string detail;
  };
  std::deque<Removal> queue;
  std::vector<bool> queued(index.rules.size());
  for (const auto& [rule, reason] : rules) {
    queue.push_back({rule, RuleDecision::Kind::kBroken, reason});
    queued.at(rule) = true;
  }
  for (; !queue.empty(); queue.pop_front()) {
    const Removal& removal = queue.front();
    const RuleText& rule = index.rules[removal.rule];
    edits.Replace(WithLineEnd(source.Text(), rule.whole), "");
    decisions.push_back({removal.kind, rule.name, source.PlaceOfLine(rule.line), removal.detail});
    for (const std::size_t dependent : dependents.Remove(removal.rule)) {
      if (!queued[dependent]) {
        queued[dependent] = true;
        queue.push_back({dependent, RuleDecision::Kind::kDependent, rule.name});
      }
    }
  }
}

}  // namespace

void MergedSource::Append(const std::string& file, std::string_view text, long first_line) {
  if (text.empty()) {
    return;
  }
  if (!text_.empty() && text_.back() != '\n') {
    text_ += '\n';
  }
  if (files_.empty() || files_.back() != file) {
    files_.push_back(file);
  }
  Origin origin{static_cast<std::uint32_t>(files_.size() - 1), units_, first_line};
  for (std::size_t at = 0; at < text.size(); ++origin.line) {
    line_begins_.push_back(text_.size() + at);
    origins_.push_back(origin);
    at = std::min(text.find('\n', at), text.size() - 1) + 1;
  }
  text_ += text;
}

long MergedSource::LineAt(std::size_t position) const {
  return std::upper_bound(line_begins_.begin(), line_begins_.end(), position) - line_begins_.begin();
}

std::vector<Range> MergedSource::Parts() const {
  std::vector<Range> parts;
  for (std::size_t line = 0; line < origins_.size(); ++line) {
    const bool begins = line == 0 || origins_[line].file != origins_[line - 1].file;
    if (begins) {
      parts.push_back({line_begins_[line], text_.size()});
    }
    if (begins && line > 0) {
      parts[parts.size() - 2].end = line_begins_[line];
    }
  }
  return parts;
}

const MergedSource::Origin* MergedSource::OriginOfLine(long line) const {
  if (origins_.empty()) {
    return nullptr;
  }
  const auto index = static_cast<std::size_t>(line) - 1;
  return line < 1 || index >= origins_.size() ? &origins_.back() : &origins_[index];
}

SourcePlace MergedSource::PlaceOfLine(long line) const {
  const Origin* const origin = OriginOfLine(line);
  return origin == nullptr ? SourcePlace() : SourcePlace{files_[origin->file], origin->line};
}

std::size_t MergedSource::UnitOfLine(long line) const {
  const Origin* const origin = OriginOfLine(line);
  return origin == nullptr ? 0 : origin->unit;
}

std::string MergedSource::LineText(long line) const {
  if (line_begins_.empty()) {
    return {};
  }
  const auto index = static_cast<std::size_t>(line) - 1;
  return LineAround(text_, line < 1 || index >= line_begins_.size() ? line_begins_.back() : line_begins_[index]);
}

MergedSource MergedSource::Edited(const Edits& edits) const {
  std::vector<std::pair<Range, std::string>> changes = edits.Changes();
  std::stable_sort(changes.begin(), changes.end(),
                   [](const auto& a, const auto& b) { return a.first.begin < b.first.begin; });
  MergedSource result;
  result.files_ = files_;
  result.units_ = units_;
  std::size_t line = 0;  // of text_, where `from` is
  std::size_t from = 0;
  bool at_line_begin = true;
  const auto put = [&](std::string_view text, bool original) {
    for (std::size_t at = 0; at < text.size();) {
      if (at_line_begin) {
        result.line_begins_.push_back(result.text_.size() + at);
        result.origins_.push_back(origins_[std::min(line, origins_.size() - 1)]);
      }
      const std::size_t newline = text.find('\n', at);
      at_line_begin = newline != std::string_view::npos;
      line += original && at_line_begin ? 1 : 0;
      at = at_line_begin ? newline + 1 : text.size();
    }
    result.text_ += text;
  };
  for (const auto& [range, text] : changes) {
    put(TextOf(text_, {from, range.begin}), true);
    put(text, false);
    line += static_cast<std::size_t>(CountLines(TextOf(text_, range)));
    from = range.end;
  }
  put(TextOf(text_, {from, text_.size()}), true);
  return result;
}

MergedSource MergeRuleFiles(const std::vector<std::string>& paths, std::vector<Problem>& problems) {
  MergedSource merged;
  Merger merger(merged, problems);
  for (const std::string& path : paths) {
    std::vector<RuleFile> files;
    ReadRuleFiles(path, files, problems);
    for (RuleFile& file : files) {
      merger.AddUnit(std::move(file));
    }
  }
  return merged;
}

MergedSource ResolveDuplicates(const MergedSource& source, OnDuplicate on_duplicate,
                               std::vector<RuleDecision>& decisions) {
  return DuplicateResolver(source, on_duplicate, decisions).Run();
}

MergedSource LeaveOut(const MergedSource& source, const std::map<std::size_t, std::string>& rules,
                      std::vector<RuleDecision>& decisions) {
  Edits edits;
  RemoveRules(source, ParseSource(source.Text()), rules, edits, decisions);
  return source.Edited(edits);
}

MergedSource LeaveOutBroken(const MergedSource& source, std::vector<RuleDecision>& decisions) {
  if (CompilerErrors(source.Text()).empty()) {
    return source;
  }
  MergedSource rest = RubbishRemover(source, decisions).Run();
  for (std::vector<CompilerReport> errors; !(errors = CompilerErrors(rest.Text())).empty();) {
    const Blame blame(rest);
    Edits edits;
    std::map<std::size_t, std::string> broken;
    std::map<std::size_t, std::string> clashing;
    std::set<const Directive*> directives;
    for (const CompilerReport& error : errors) {
      const Directive* const directive = blame.DirectiveOf(error);
      if (directive != nullptr && directives.insert(directive).second) {
        edits.Replace(WithLineEnd(rest.Text(), directive->range), "");
        decisions.push_back({RuleDecision::Kind::kNoRule, "", rest.PlaceOfLine(error.line), error.message});
      } else if (directive == nullptr) {
        const std::optional<std::size_t> rule = blame.RuleOf(error);
        if (!rule) {  // there is nothing left that could be kept
          decisions.push_back({RuleDecision::Kind::kNoRule, "", rest.PlaceOfLine(error.line), error.message});
          return {};
        }
        (error.message.starts_with("duplicated identifier") ? clashing : broken).try_emplace(*rule, error.message);
      }
    }
    const auto& rules = blame.Index().rules;
    std::set<std::string> broken_names;
    for (const auto& [rule, message] : broken) {
      broken_names.insert(rules[rule].name);
    }
    std::copy_if(clashing.begin(), clashing.end(), std::inserter(broken, broken.end()), [&](const auto& clash) {
      return !broken_names.contains(rules[clash.first].name);  // else there may be one rule of that name from now on
    });
    RemoveRules(rest, blame.Index(), broken, edits, decisions);
    rest = rest.Edited(edits);
  }
  return rest;
}

}  // namespace vond::vondctl
