#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "vondctl/problem.h"
#include "yara/yara_source/yara_source.h"

namespace vond::vondctl {

/// A place in a rule file.
struct SourcePlace {
  std::string file;
  long line = 0;  ///< from 1
};

/// Rule files made into one source, each of whose lines knows where it came from, through every edit. One thread.
class MergedSource {
 public:
  /// Starts a new unit: a file that was named, together with everything it includes.
  void BeginUnit() { ++units_; }
  /// Adds a part of a file, on lines of its own; `first_line` is the line of the file with which it begins.
  void Append(const std::string& file, std::string_view text, long first_line);

  [[nodiscard]] const std::string& Text() const noexcept { return text_; }
  /// The files that the text stems from. One that includes others stands here once per part.
  [[nodiscard]] const std::vector<std::string>& Files() const noexcept { return files_; }
  /// Where line `line` (from 1) of the text came from. Line 0, which libyara says when a source ends too early, and
  /// lines behind the end stand for the last one. An empty source has no place.
  [[nodiscard]] SourcePlace PlaceOfLine(long line) const;
  /// The line itself, without its newline.
  [[nodiscard]] std::string LineText(long line) const;
  /// The line, from 1, of a position in the text.
  [[nodiscard]] long LineAt(std::size_t position) const;
  /// The stretches of the text that stem from one file without a break; each has lines of its own.
  [[nodiscard]] std::vector<yara_source::Range> Parts() const;
  /// The unit of line `line`, which decides whose a rule is when several have its name.
  [[nodiscard]] std::size_t UnitOfLine(long line) const;
  /// The source with `edits` made, whose ranges are those of Text(). Inserted lines have the place of the line into
  /// which they were put.
  [[nodiscard]] MergedSource Edited(const yara_source::Edits& edits) const;

 private:
  struct Origin {
    std::uint32_t file = 0;  // in files_
    std::uint32_t unit = 0;
    long line = 0;
  };
  [[nodiscard]] const Origin* OriginOfLine(long line) const;

  std::string text_;
  std::vector<std::size_t> line_begins_;
  std::vector<Origin> origins_;  // of each line
  std::vector<std::string> files_;
  std::uint32_t units_ = 0;
};

/// Reads rule files and folders as `scan --rules` does (packed ones decoded) and inlines their includes, looked up
/// beside the including file: each file once, where it is first met. Errors (a file that is missing, is damaged or
/// includes itself) and warnings (a byte order mark, which is left out) are added to `problems`; what can't be had is
/// left out.
[[nodiscard]] MergedSource MergeRuleFiles(const std::vector<std::string>& paths, std::vector<Problem>& problems);

/// Something that was done to a rule, or an import, so that the set as a whole can be loaded.
struct RuleDecision {
  enum class Kind {
    kTwin,       ///< left out: the same rule stands further up
    kShadowed,   ///< left out: another rule of the same name stands further up
    kRenamed,    ///< another rule of the same name stands further up
    kBroken,     ///< left out: the compiler, or the caller, refuses it
    kDependent,  ///< left out: its condition needs a rule that was left out
    kNoRule,     ///< left out: text that is no rule, or an import that the compiler refuses
    // What adopt does beside.
    kDefined,         ///< an external variable was replaced by a literal
    kSpelledOut,      ///< the names of rules took the place of "Name*"
    kIdAdded,         ///< it had none
    kIdReplaced,      ///< the old one stays as "orig_id"
    kActionSet,       ///< it had none
    kActionReplaced,  ///< the old one stays as "orig_action"
    kActionKept,
    kRecoded,  ///< a metadata value that was not UTF-8 was read as Latin-1
  };
  Kind kind = Kind::kBroken;
  std::string rule;  ///< empty for kNoRule
  SourcePlace place;
  /// The new name; what the compiler says; the rule it needs; the twin's place, "file:line"; the definition; the new id
  /// or action, and why the old one could not stay; the key.
  std::string detail;
};

enum class OnDuplicate {
  kDrop,    ///< the first of each name stays
  kRename,  ///< of the same rules one stays; others get a name of their own, and so do the references to them
};

/// Leaves each rule name once. Rules are the same when all their tokens are, so comments and layout don't count. A
/// reference means the rule of its own file, else of its own unit, else the one that keeps the name.
[[nodiscard]] MergedSource ResolveDuplicates(const MergedSource& source, OnDuplicate on_duplicate,
                                             std::vector<RuleDecision>& decisions);

/// Leaves out rules, given as positions in ParseSource(source.Text()).rules with the reason, and all that depend on
/// them, also by a rule set ("any of (Name*)"), whose count would be another.
[[nodiscard]] MergedSource LeaveOut(const MergedSource& source, const std::map<std::size_t, std::string>& rules,
                                    std::vector<RuleDecision>& decisions);

/// Leaves out what does not compile, going by what the compiler says, and all that depends on it. What is left
/// compiles. Takes a few compilations of the set, not one per rule. A good source comes back as it is.
[[nodiscard]] MergedSource LeaveOutBroken(const MergedSource& source, std::vector<RuleDecision>& decisions);

}  // namespace vond::vondctl
