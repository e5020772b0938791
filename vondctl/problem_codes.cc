#include "vondctl/problem_codes.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "vondctl/suggestion.h"

namespace vond::vondctl {
namespace {

constexpr bool kRefuses = true;
constexpr bool kAccepted = false;
constexpr bool kOfRules = true;
constexpr bool kOfPolicy = false;

}  // namespace

const std::vector<ProblemCode>& ProblemCodes() {
  static const std::vector<ProblemCode> codes = {
      {"missing-id", Severity::kError, kRefuses, kOfRules, "a rule has no metadata item \"id\", or an empty one",
       "Overrides and results name a rule by its \"id\". One rule without it, private rules included,\n"
       "makes the daemon refuse the whole policy. Keys are case-sensitive: \"ID\" is another key.\n"
       "\n"
       "    rule Loader_A { meta: id = \"4f1c\" action = \"block\" condition: ... }\n"
       "\n"
       "The way out: vondctl check --fix FILE adds ids that are the same in every run."},
      {"duplicate-id", Severity::kWarning, kAccepted, kOfRules, "two rules of a set have the same \"id\"",
       "The daemon takes it. An override of that id then reaches all rules that have it, and results\n"
       "can't be told apart by id.\n"
       "\n"
       "The way out: give each rule an id of its own, unless they are meant to be overridden together."},
      {"missing-action", Severity::kError, kRefuses, kOfRules, "a rule has no metadata item \"action\"",
       "\"action\" tells the agent what to do when the rule matches. One rule without it, private rules\n"
       "included, makes the daemon refuse the whole policy.\n"
       "\n"
       "    rule Loader_A { meta: id = \"4f1c\" action = \"inform\" condition: ... }\n"
       "\n"
       "The way out: vondctl check --fix --default-action inform FILE adds it where it is missing."},
      {"unknown-action", Severity::kError, kRefuses, kOfRules, "a rule's \"action\" is none of the known words",
       "The words are disable, internal, silent, inform, block and allow, in lower case and in quotes\n"
       "(\"disabled\" is taken for disable). Where the key repeats, the last one counts. An override in\n"
       "the policy counts more than the rule's own action.\n"
       "\n"
       "    action = \"Block\"      refused; it is \"block\"\n"
       "\n"
       "The way out: write one of the words."},
      {"compile-error", Severity::kError, kRefuses, kOfRules, "a rule does not compile",
       "The daemon compiles a rule set as a whole: one rule that does not compile makes it refuse the\n"
       "policy. The message is the compiler's own.\n"
       "\n"
       "The way out: mend the rule, or leave it out: vondctl pack --skip-bad RULES -o FILE."},
      {"compile-warning", Severity::kWarning, kAccepted, kOfRules, "the compiler warns about a rule",
       "The rule loads, but it probably does not do what was meant. The daemon drops these warnings, so\n"
       "they show nowhere else. Warnings about slow strings have a code of their own, slow-string."},
      {"duplicate-rule", Severity::kError, kRefuses, kOfRules, "two rules of a set have the same name",
       "All files of a rule set are compiled as one, so a name may occur once, whatever the file.\n"
       "\n"
       "The way out: rename or remove one of them, or vondctl pack --on-duplicate drop|rename."},
      {"unknown-module", Severity::kError, kRefuses, kOfRules, "a module is imported that the engine does not have",
       "The engine has the modules that it was built with.\n"
       "\n"
       "    import \"cuckoo\"      refused where the engine was built without it\n"
       "\n"
       "The way out: leave out the rules that need it."},
      {"external-variable", Severity::kError, kRefuses, kOfRules, "a condition uses a name that stands for nothing",
       "The name is neither a rule that stands before, nor a module that was imported. Other scanners\n"
       "define external variables such as filename, filepath, extension and owner. The daemon defines\n"
       "none: it sees a descriptor, never a path.\n"
       "\n"
       "    condition: filename matches /\\.tmp$/ and $a      refused\n"
       "\n"
       "The way out: take the name out of the condition, or leave out the rule; vondctl adopt does the\n"
       "latter."},
      {"include", Severity::kError, kRefuses, kOfRules, "a rule file includes another one",
       "The daemon opens no file by name, so \"include\" is refused.\n"
       "\n"
       "The way out: vondctl pack RULES -o FILE puts included files in their place. Or remove the line\n"
       "and name both files: they are joined anyway."},
      {"nul-byte", Severity::kError, kRefuses, kOfRules, "a rule file holds a zero byte",
       "The compiler would stop there without a word and leave out every rule behind it, so the daemon\n"
       "refuses the file. Often it is no rule source at all: text in UTF-16, a compressed file, or the\n"
       "output of yarac, which the daemon does not take.\n"
       "\n"
       "The way out: save the file as UTF-8 text, or use the source instead of compiled rules."},
      {"open-end", Severity::kWarning, kAccepted, kOfRules, "a rule file ends inside a comment or a string",
       "To the compiler a comment that nothing closes goes on to the end, and so does the path of an\n"
       "include without its second quote, or a string on a last line that no newline ends. Rules in it\n"
       "are lost without a word; often the file was cut short. Rule files behind it in the same set are\n"
       "not concerned: vondctl joins them without it. vondctl pack refuses such a file.\n"
       "\n"
       "    rule A { ... }  /* rule B { ... }      there is no rule B\n"
       "\n"
       "The way out: get the whole file, or close what is open."},
      {"bom", Severity::kError, kRefuses, kOfRules, "a rule file begins with a byte order mark",
       "Some editors put the bytes EF BB BF before text in UTF-8. To the compiler they are a syntax\n"
       "error.\n"
       "\n"
       "The way out: save the file without it, or: sed -i '1s/^\\xEF\\xBB\\xBF//' FILE."},
      {"not-utf8-metadata", Severity::kWarning, kAccepted, kOfRules, "the metadata of a rule is not valid UTF-8",
       "The daemon loads the rule and replaces each wrong byte by U+FFFD, so results show another text\n"
       "than the rule has.\n"
       "\n"
       "The way out: save the file as UTF-8."},
      {"duplicate-metadata-key", Severity::kWarning, kAccepted, kOfRules, "a rule has the same metadata key twice",
       "The daemon takes it, and results show all of them. Of several \"id\" or \"action\" the last one\n"
       "counts, which is easily overlooked. An override leaves only its own item of that key.\n"
       "\n"
       "    meta: action = \"inform\" ... action = \"block\"      the rule blocks\n"
       "\n"
       "The way out: keep one. For lists of references and the like: --allow duplicate-metadata-key."},
      {"slow-string", Severity::kWarning, kAccepted, kOfRules, "a string slows every scan down",
       "The engine looks for short pieces (atoms) of all strings at once. A string without a good one,\n"
       "such as a single letter or a regular expression that begins with classes, is tried at nearly\n"
       "every byte of every file. One such rule among 8,000 was measured to make scans 18 times as slow.\n"
       "\n"
       "    $a = /[0-9a-f]{8}/      no fixed bytes to look for\n"
       "\n"
       "The way out: make it longer, or anchor it to fixed bytes of four or more. What it costs:\n"
       "vondctl bench."},
      {"console-log", Severity::kWarning, kAccepted, kOfRules, "a rule writes with the module \"console\"",
       "The daemon takes the rule and throws its output away. The call costs time on every scan.\n"
       "\n"
       "The way out: remove console.log() once the rule is finished."},
      {"magic-module", Severity::kWarning, kAccepted, kOfRules, "a rule uses the module \"magic\"",
       "It reads the file-type database from disk, the only thing that the daemon ever opens by name,\n"
       "keeps more than 1 MB per thread for good, and answers differ with the database's version.\n"
       "\n"
       "    magic.type() contains \"PDF\"      better: uint32be(0) == 0x25504446\n"
       "\n"
       "The way out: test the file's first bytes instead."},
      {"magic-readable", Severity::kNote, kAccepted, kOfRules, "the sandbox leaves the database of \"magic\" readable",
       "The daemon's sandbox lets it open nothing. Where a rule set imports \"magic\", vondctl has it\n"
       "leave just the files of that database readable, and allow opening files for that.\n"
       "\n"
       "The way out: nothing to do if that is meant; or leave out the rules that need it."},
      {"private-rule", Severity::kNote, kAccepted, kOfRules, "a private rule shows in results only when asked for",
       "Private rules serve the conditions of others. The daemon still wants \"id\" and \"action\" of them.\n"
       "\n"
       "The way out: nothing to do if that is meant; --allow private-rule."},
      {"global-rule", Severity::kWarning, kAccepted, kOfRules, "a global rule decides for the whole set",
       "Where a global rule does not match a file, no other rule of the set does, be it from another\n"
       "author or file. In a set made of many files that is seldom meant.\n"
       "\n"
       "    global rule Small { ... condition: filesize < 1MB }      nothing matches larger files\n"
       "\n"
       "The way out: put the condition into the rules concerned, or a private rule that they name."},
      {"disabled-in-rule-set", Severity::kError, kRefuses, kOfRules, "a disabled rule is counted by another rule",
       "A rule whose action is \"disable\" (its own or by an override) must not be a member of a rule set\n"
       "in an enabled rule's condition: the engine would end the process there, so the daemon refuses\n"
       "the policy.\n"
       "\n"
       "    rule A1 { meta: ... action = \"disable\" ... }   rule R { condition: any of (A*) }\n"
       "\n"
       "The way out: disable both rules, or name the rule (\"A1 or A2\") instead of counting it."},
      {"looks-encrypted", Severity::kError, kRefuses, kOfRules, "a file looks packed but is not",
       "Packed rule files begin with the four bytes ENCY. This one begins with them but goes on with\n"
       "plain text, or has something in front of them.\n"
       "\n"
       "The way out: make the file again with vondctl pack, or remove the mark."},
      {"damaged-file", Severity::kError, kRefuses, kOfRules, "a packed rule file can't be unpacked",
       "It was cut short, changed, packed with another key, or holds more text than the daemon takes.\n"
       "\n"
       "The way out: get or make the file again (vondctl pack); vondctl inspect FILE tells its form."},
      {"unreadable-file", Severity::kError, kRefuses, kOfPolicy, "a file can't be read",
       "vondctl reads rule and policy files with the rights of who runs it, and passes the daemon what is\n"
       "in them."},
      {"no-rule-files", Severity::kError, kRefuses, kOfPolicy, "a folder holds no rule files",
       "In folders, files named *.yar and *.yara count, at any depth. A file named by itself may have any\n"
       "name."},
      {"empty-set", Severity::kWarning, kAccepted, kOfRules, "a rule set has no rules",
       "The daemon takes it, and every file comes out clean."},
      {"missing-metadata", Severity::kError, kAccepted, kOfRules, "a rule lacks metadata that --require asked for",
       "    vondctl check --require author --require 'severity=low|medium|high' rules/\n"
       "\n"
       "The value must match the regular expression (PCRE) as a whole. Where the key repeats, one\n"
       "matching item is enough."},
      {"unfixable", Severity::kError, kAccepted, kOfPolicy, "--fix could not write a file",
       "--fix changes sources only, never packed files, and needs the right to write to the file's\n"
       "folder."},
      {"refused", Severity::kError, kRefuses, kOfPolicy, "the daemon refuses the policy for another reason",
       "The message is what the daemon's own code says."},
      {"bad-json", Severity::kError, kRefuses, kOfPolicy, "the policy file is not a JSON object",
       "A policy is one JSON object, in UTF-8, without comments; see examples/policy.json."},
      {"bad-value", Severity::kError, kRefuses, kOfPolicy, "a key of the policy has a value of the wrong kind",
       "Numbers are whole and not negative, texts and numbers stand where they belong.\n"
       "\n"
       "    \"yara_timeout_in_seconds\": 1.5      refused"},
      {"missing-path", Severity::kError, kRefuses, kOfPolicy, "a rule set of the policy has no \"path\"",
       "Each entry of \"rule_sets\" names its rules: a file or a folder, relative to the policy file.\n"
       "\n"
       "    {\"rule_sets\": [{\"path\": \"rules/block\", \"rule_type\": \"Block\"}]}"},
      {"unknown-key", Severity::kWarning, kAccepted, kOfPolicy, "the policy has a key that means nothing",
       "The daemon skips keys that it does not know, so a slip of the pen leaves the default in force.\n"
       "\n"
       "    \"yara_timeout\": 30      is skipped; it is \"yara_timeout_in_seconds\"\n"
       "\n"
       "The way out: correct or remove it."},
      {"unknown-rule-type", Severity::kError, kRefuses, kOfPolicy, "a rule type is neither Block nor Allow",
       "The words are \"Block\" and \"Allow\", with a capital letter. Without \"rule_type\" a rule set blocks."},
      {"duplicate-rule-set", Severity::kWarning, kAccepted, kOfPolicy, "a later rule set takes the place of this one",
       "There is one rule set for each file type and rule type. Of several the last one counts; the\n"
       "others are compiled and thrown away.\n"
       "\n"
       "The way out: give \"path\" a folder that holds all files, or another file_type."},
      {"override-unmatched", Severity::kWarning, kAccepted, kOfPolicy, "an override names an id that no rule has",
       "The daemon skips it and writes a line into its log.\n"
       "\n"
       "The way out: correct the id (vondctl inspect lists them), or remove the override."},
      {"override-without-value", Severity::kWarning, kAccepted, kOfPolicy, "an override has no value to set",
       "    {\"rule_id\": \"4f1c\", \"item\": {\"key\": \"action\", \"value\": {\"string_value\": \"inform\"}}}\n"
       "\n"
       "The value is one of string_value, int_value and bool_value. The daemon skips an override without\n"
       "one."},
      {"override-ambiguous", Severity::kWarning, kAccepted, kOfPolicy, "an override reaches one of several rule sets",
       "Rules with this id stand in more than one rule set, and an override changes those of one set only.\n"
       "\n"
       "The way out: ids of their own for the rules of each set."},
      {"policy-too-large", Severity::kError, kRefuses, kOfPolicy, "the policy does not fit into one packet",
       "A policy document may have 131,072 bytes with its envelope, which is room for about 1,200\n"
       "overrides. Rules don't count: they travel as descriptors.\n"
       "\n"
       "The way out: change the metadata in the rules instead of overriding it."},
      {"too-many-files", Severity::kError, kRefuses, kOfPolicy, "the policy has more than 32 rule sets",
       "Each rule set is a descriptor, and a packet carries 32.\n"
       "\n"
       "The way out: join the files of one file type and rule type in a folder."},
      {"no-timeout", Severity::kWarning, kAccepted, kOfPolicy, "scans have no time-out",
       "Without \"yara_timeout_in_seconds\", or with 0, one file can keep a worker busy for ever.\n"
       "\n"
       "    \"yara_timeout_in_seconds\": 30"},
      {"retries-multiply-time", Severity::kNote, kAccepted, kOfPolicy,
       "a match is scanned again, each time with a time-out of its own",
       "With \"yara_retries_on_match\": N a file that matches is scanned up to N + 1 times per rule type,\n"
       "and must match each time. A file may then take (N + 1) times the time-out for each rule type."},
  };
  return codes;
}

const ProblemCode* FindProblemCode(std::string_view code) {
  const auto& codes = ProblemCodes();
  const auto it =
      std::find_if(codes.begin(), codes.end(), [&](const ProblemCode& entry) { return entry.code == code; });
  return it == codes.end() ? nullptr : &*it;
}

Problem MakeProblem(const char* code, std::string file, long line, std::string message) {
  const ProblemCode* const entry = FindProblemCode(code);
  if (entry == nullptr) {
    throw std::logic_error(fmt::format("no such problem code: {}", code));
  }
  Problem problem;
  problem.code = code;
  problem.severity = entry->severity;
  problem.file = std::move(file);
  problem.line = line;
  problem.message = std::move(message);
  return problem;
}

std::string QuotedSuggestion(const std::string& word, const std::vector<std::string>& words) {
  const std::string suggestion = Suggest(word, words);
  return suggestion.empty() ? std::string() : fmt::format("; did you mean \"{}\"?", suggestion);
}

}  // namespace vond::vondctl
