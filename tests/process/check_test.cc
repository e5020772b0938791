#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/case_table.h"
#include "tests/support/test_support.h"

// `vondctl check`, `explain` and `policy` as programs, and what `scan` says of a refused policy. Their verdict is held
// against the daemon's on every row of the tables.
namespace vond::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr int kRefused = 3;

class CheckTest : public testing::Test {
 public:
  CheckTest() {
    fs::remove_all(folder_);
    fs::create_directories(folder_ / "nothing");
  }
  ~CheckTest() override {
    std::error_code error;
    fs::remove_all(folder_, error);
  }

 protected:
  [[nodiscard]] std::string Path(const std::string& name) const { return folder_ / name; }
  void Write(const std::string& name, const std::string& content) const {
    fs::create_directories(fs::path(Path(name)).parent_path());
    std::ofstream(Path(name), std::ios::binary) << content;
  }
  [[nodiscard]] std::string Read(const std::string& name) const {
    std::ifstream file(Path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  // Arguments without a stroke at their beginning; % stands for the folder.
  [[nodiscard]] ChildResult Run(const std::string& words) const {
    std::vector<std::string> arguments{VONDCTL_PATH};
    std::istringstream stream(words);
    for (std::string word; stream >> word;) {
      arguments.push_back(Replace(word, "%", folder_.string() + "/"));
    }
    return RunChild(arguments);
  }
  [[nodiscard]] std::string WithoutFolder(const std::string& text) const {
    return Replace(text, folder_.string() + "/", "");
  }

  const fs::path folder_ = fs::temp_directory_path() / ("vond_check_test." + std::to_string(::getpid()));
};

std::vector<json> Objects(const std::string& lines) {
  std::vector<json> objects;
  for (const std::string& line : Lines(lines)) {
    objects.push_back(json::parse(line));
  }
  return objects;
}

// The problems as "code:line", errors that make the daemon refuse in capitals, and the verdict.
struct Checked {
  std::string codes;
  bool accepted = false;
  int exit = -1;
};

Checked Summarize(const ChildResult& result) {
  Checked checked;
  const std::vector<json> objects = Objects(result.out);
  for (const json& object : objects) {
    if (object["type"] != "problem") {
      continue;
    }
    std::string code = object["code"];
    if (object["severity"] == "error") {
      std::transform(code.begin(), code.end(), code.begin(), [](unsigned char c) { return std::toupper(c); });
    }
    checked.codes += (checked.codes.empty() ? "" : " ") + code + ":" + std::to_string(object.value("line", 0));
  }
  if (!objects.empty() && objects.back()["type"] == "check") {
    checked.accepted = objects.back()["accepted"];
    checked.exit = objects.back()["exit"];
  }
  return checked;
}

bool AnyInCapitals(const std::string& codes) {
  return std::any_of(codes.begin(), codes.end(), [](unsigned char c) { return std::isupper(c) != 0; });
}

TEST_F(CheckTest, EveryProblemOfARuleFileShowsAtItsLineAndTheDaemonAgrees) {
  const Table table("check_rules.txt", 50);
  for (const auto& row : table.Rows()) {
    SCOPED_TRACE(row[0]);
    Write("r.yar", table.Expand(row[0]));
    const ChildResult result = Run("check --format jsonl %r.yar");
    const Checked checked = Summarize(result);
    EXPECT_EQ(checked.codes, row.at(1));
    EXPECT_EQ(checked.exit, result.exit_status);
    EXPECT_EQ(checked.accepted, !AnyInCapitals(row.at(1)));
    const ChildResult scanned = Run("scan -q --rules %r.yar %nothing");
    EXPECT_EQ(scanned.exit_status, checked.accepted ? 0 : kRefused) << scanned.err;
  }
}

TEST_F(CheckTest, TheVerdictIsTheDaemonsOnAllRowsOfBadRules) {
  const Table table("bad_rules.txt", 150);
  for (const auto& row : table.Rows()) {
    SCOPED_TRACE(row[0].substr(0, 300));
    const bool refused =
        row.at(1).find("<<!uncompiled") != std::string::npos || row.at(1).find("<<!refused") != std::string::npos;
    Write("r.yar", table.Expand(row[0]));
    const Checked checked = Summarize(Run("check --format jsonl %r.yar"));
    EXPECT_EQ(checked.accepted, !refused) << checked.codes;
    EXPECT_EQ(AnyInCapitals(checked.codes), refused) << checked.codes;
    EXPECT_EQ(checked.codes.find("REFUSED:"), std::string::npos) << "the daemon's reason has no code of its own";
  }
}

TEST_F(CheckTest, EveryProblemOfAPolicyShowsAtItsLineAndTheDaemonAgrees) {
  const Table table("check_policies.txt", 30);
  for (const auto& [word, text] : table.Words()) {
    if (word.starts_with("!file ")) {
      Write(word.substr(6), table.Expand(text));
    }
  }
  for (const auto& row : table.Rows()) {
    SCOPED_TRACE(row[0]);
    Write("p.json", table.Expand(row[0]));
    const ChildResult result = Run("policy check --format jsonl %p.json");
    const Checked checked = Summarize(result);
    EXPECT_EQ(checked.codes, row.at(1));
    EXPECT_EQ(checked.exit, result.exit_status);
    EXPECT_EQ(checked.accepted, !AnyInCapitals(row.at(1)));
    const ChildResult scanned = Run("scan -q --policy %p.json %nothing");
    EXPECT_EQ(scanned.exit_status == kRefused, !checked.accepted) << scanned.err;
  }
}

TEST_F(CheckTest, EachCodeIsExplainedAndTried) {
  std::string tried = " missing-metadata unfixable ";  // by tests of their own
  for (const char* const name : {"check_rules.txt", "check_policies.txt"}) {
    for (const auto& row : ReadTable(name)) {
      tried += row.size() > 1 ? ' ' + row[1] : "";
    }
  }
  std::transform(tried.begin(), tried.end(), tried.begin(), [](unsigned char c) { return std::tolower(c); });
  const std::vector<json> codes = Objects(Run("explain --format jsonl").out);
  EXPECT_GE(codes.size(), 40U);
  for (const json& code : codes) {
    const std::string name = code["code"];
    // What no code explains can't be made at will.
    EXPECT_TRUE(name == "refused" || tried.find(' ' + name) != std::string::npos) << name;
    const ChildResult explained = Run("explain " + name);
    EXPECT_EQ(explained.exit_status, 0);
    EXPECT_NE(explained.out.find(std::string(code["summary"])), std::string::npos);
    EXPECT_EQ(Run("check explain " + name).out, explained.out);
    EXPECT_NE(Run("explain").out.find(name), std::string::npos);
  }
  const ChildResult unknown = Run("explain mising-id");
  EXPECT_EQ(unknown.exit_status, 64);
  EXPECT_EQ(unknown.err, "vondctl: there is no code \"mising-id\"; did you mean \"missing-id\"?\n");
}

TEST_F(CheckTest, SeveralFilesAreOneSetAndKeepTheirOwnLines) {
  Write("rules/a.yar", "import \"pe\"\nrule A { meta: id = \"a\" action = \"block\" condition: pe.is_pe }");
  Write("rules/b.yar", "\nrule B {\n");  // ends in the middle of a rule
  Write("rules/sub/c.yara",
        "rule C { meta: id = \"a\" action = \"block\" condition: A and pe.is_pe }\nrule A { condition: $x }\n");
  Write("rules/notes.txt", "no rules");
  const ChildResult result = Run("check --format jsonl --color never %rules %none.yar");
  std::string places;
  for (const json& object : Objects(result.out)) {
    if (object["type"] == "problem") {
      places += WithoutFolder(object["file"]) + ':' + std::to_string(object.value("line", 0)) + ' ' +
                std::string(object["code"]) + '\n';
    }
  }
  EXPECT_EQ(places,
            "none.yar:0 unreadable-file\n"
            "rules/b.yar:2 missing-id\n"
            "rules/b.yar:2 missing-action\n"
            "rules/b.yar:3 compile-error\n"
            "rules/sub/c.yara:1 duplicate-id\n"
            "rules/sub/c.yara:2 compile-error\n"
            "rules/sub/c.yara:2 missing-id\n"
            "rules/sub/c.yara:2 missing-action\n");
  EXPECT_EQ(WithoutFolder(result.err), "vondctl: 4 rules in 3 files: 7 errors, 1 warning; the daemon refuses them\n");
  EXPECT_EQ(result.exit_status, kRefused);
}

TEST_F(CheckTest, AnOpenCommentTakesNothingOfTheNextFile) {
  Write("rules/a.yar", "rule A { meta: id = \"a\" action = \"block\" condition: true }\n/* rule Lost {\n}");
  Write("rules/b.yar", "*/\n");
  Write("rules/c.yar", "rule C { meta: id = \"c\" action = \"block\" condition: true }\n");
  EXPECT_EQ(Summarize(Run("check --format jsonl %rules")).codes, "open-end:2 COMPILE-ERROR:1");
  fs::remove(folder_ / "rules/b.yar");
  const ChildResult result = Run("check %rules");
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(WithoutFolder(result.err), "vondctl: 2 rules in 2 files: 1 warning; the daemon takes them\n");
  EXPECT_EQ(WithoutFolder(Run("scan -q --rules %rules %rules/c.yar").out),
            "rules/c.yar: A (block, id a, action block)\nrules/c.yar: C (block, id c, action block)\n");
}

TEST_F(CheckTest, ARefusedPolicyPointsAtThePlaceAndTheWayOut) {
  Write("rules/a.yar", "rule A { meta: id = \"a\" action = \"inform\" condition: true }\n");
  Write("rules/b.yar", "// none\n");
  Write("rules/loader.yar",
        "\n\nrule Loader_A : trojan {\n  meta: id = \"l\"\n  condition: true\n}\n"
        "rule Loader_B { meta: id = \"m\" action = \"Block\" condition: true }\n");
  const std::string problems =
      "rules/loader.yar:3: error[missing-action]: rule \"Loader_A\" has no metadata item \"action\"\n"
      "    3 | rule Loader_A : trojan {\n"
      "  one rule without \"id\" or \"action\" makes the daemon refuse the whole policy\n"
      "  fix: vondctl check --fix --default-action inform rules/loader.yar\n"
      "rules/loader.yar:7: error[unknown-action]: \"Block\" is not an action; did you mean \"block\"?\n"
      "    7 | rule Loader_B { meta: id = \"m\" action = \"Block\" condition: true }\n"
      "  the actions are disable, internal, silent, inform, block and allow\n";
  const ChildResult scanned = Run("scan --rules %rules %nothing");
  EXPECT_EQ(WithoutFolder(scanned.err), "vondctl: policy refused: 2 errors in 1 of 3 rule files\n" + problems);
  EXPECT_EQ(scanned.out, "");
  EXPECT_EQ(scanned.exit_status, kRefused);
  const ChildResult checked = Run("check %rules");
  EXPECT_EQ(WithoutFolder(checked.out), problems);

  const std::vector<json> objects = Objects(Run("scan --format jsonl --rules %rules %nothing").out);
  ASSERT_EQ(objects.size(), 2U);
  EXPECT_EQ(objects[0].dump(),
            json({{"type", "problem"},
                  {"code", "missing-action"},
                  {"severity", "error"},
                  {"file", Path("rules/loader.yar")},
                  {"line", 3},
                  {"rule", "Loader_A"},
                  {"message", "rule \"Loader_A\" has no metadata item \"action\""},
                  {"fix", "vondctl check --fix --default-action inform " + Path("rules/loader.yar")}})
                .dump());
}

TEST_F(CheckTest, TerminalsAreNotObeyed) {
  Write("\x1b[2J.yar", "rule R { meta: id = \"\x1b[31m\" action = \"\x1b[31m\" condition: true }\n");
  const ChildResult result = Run("check %");
  EXPECT_EQ(result.out.find('\x1b'), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("\\x1b[31m"), std::string::npos) << result.out;
}

TEST_F(CheckTest, LevelsAndRequirements) {
  Write("r.yar",
        "private rule P { meta: id = \"p\" action = \"block\" author = \"Ann\" condition: true }\n"
        "global rule G { meta: id = \"g\" action = \"block\" author = \"\" severity = \"low\" severity = \"high\" "
        "condition: true }\n");
  const struct {
    std::string options;
    std::string codes;
    int exit;
  } cases[] = {
      {"", "private-rule:1 duplicate-metadata-key:2 global-rule:2", 1},
      {"--allow duplicate-metadata-key,global-rule", "private-rule:1", 0},
      {"--allow duplicate-metadata-key --allow global-rule --allow private-rule", "", 0},
      {"--allow duplicate-metadata-key,global-rule --warn private-rule", "private-rule:1", 1},
      {"--deny global-rule", "private-rule:1 duplicate-metadata-key:2 GLOBAL-RULE:2", kRefused},
      {"--allow duplicate-metadata-key,global-rule,private-rule --require author", "MISSING-METADATA:2", kRefused},
      {"--allow duplicate-metadata-key,global-rule,private-rule --require author=.*", "", 0},
      {"--allow duplicate-metadata-key,global-rule,private-rule --require author=A",
       "MISSING-METADATA:1 MISSING-METADATA:2", kRefused},
      {"--allow duplicate-metadata-key,global-rule,private-rule --require severity=low|x --warn missing-metadata",
       "missing-metadata:1", 1},
      {"--allow duplicate-metadata-key,global-rule,private-rule --require severity=lo|gh",
       "MISSING-METADATA:1 MISSING-METADATA:2", kRefused},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options);
    const ChildResult result = Run("check --format jsonl %r.yar " + c.options);
    const Checked checked = Summarize(result);
    EXPECT_EQ(checked.codes, c.codes);
    EXPECT_EQ(result.exit_status, c.exit);
    EXPECT_TRUE(checked.accepted) << "what --deny and --require say is not the daemon's word";
  }
  const struct {
    std::string options;
    std::string complaint;
  } mistakes[] = {
      {"--allow missing-id", "--allow: missing-id stays an error: the daemon refuses the policy for it"},
      {"--warn bom", "--warn: bom stays an error: the daemon refuses the policy for it"},
      {"--deny slow-strings", "--deny: there is no code \"slow-strings\"; did you mean \"slow-string\"?"},
      {"--deny slow-string --allow slow-string", "slow-string is given to both --deny and --allow"},
      {"--default-action block", "--default-action needs --fix"},
      {"--fix --default-action Block", "--default-action: \"Block\" is not an action; did you mean \"block\"?"},
      {"--require a=(", "--require: not a regular expression: "},
  };
  for (const auto& mistake : mistakes) {
    const ChildResult result = Run("check %r.yar " + mistake.options);
    EXPECT_EQ(result.exit_status, 64) << mistake.options;
    EXPECT_TRUE(result.err.starts_with("vondctl: " + mistake.complaint)) << result.err;
  }
}

// The rule's metadata is all that changes.
TEST_F(CheckTest, FixAddsWhatIsMissingAndNothingElse) {
  const std::string before =
      "// rule Not_A_Rule { condition: true }\r\n"
      "rule A : t {\r\n\tmeta:\r\n\t\tauthor = \"Ann \\\" }\"\r\n\tstrings:\r\n\t\t$a = \"rule X { condition: true "
      "}\"\r\n"
      "\tcondition:\r\n\t\t$a\r\n}\r\n"
      "private rule B\n{\n  condition:\n    true\n}\n"
      "rule C { meta: id = \"mine\" condition: true } rule D { condition: true }\n"
      "rule E { meta: id = \"e\" action = \"Block\" condition: true }";
  Write("set.yar", before);
  ::chmod(Path("set.yar").c_str(), 0640);
  ChildResult result = Run("check --fix --format jsonl %set.yar");
  EXPECT_EQ(Summarize(result).codes,
            "MISSING-ACTION:2 private-rule:11 MISSING-ACTION:11 MISSING-ACTION:18 MISSING-ACTION:18 UNKNOWN-ACTION:19");
  EXPECT_NE(result.err.find("set.yar: added 3 ids and 0 actions"), std::string::npos) << result.err;

  Write("set.yar", before);
  result = Run("check --fix --default-action inform --format jsonl %set.yar");
  EXPECT_EQ(Summarize(result).codes, "private-rule:12 UNKNOWN-ACTION:21");
  const std::string after = Read("set.yar");
  const auto id = [&](const std::string& rule) {
    const std::size_t at = after.find("id = \"", after.find("rule " + rule + (rule == "A" ? " :" : "")));
    return after.substr(at + 6, 36);
  };
  EXPECT_EQ(after,
            "// rule Not_A_Rule { condition: true }\r\n"
            "rule A : t {\r\n\tmeta:\r\n\t\tid = \"" +
                id("A") +
                "\"\r\n\t\taction = \"inform\"\r\n\t\tauthor = \"Ann \\\" }\"\r\n"
                "\tstrings:\r\n\t\t$a = \"rule X { condition: true }\"\r\n\tcondition:\r\n\t\t$a\r\n}\r\n"
                "private rule B\n{\r\n  meta:\r\n    id = \"" +
                id("B") +
                "\"\r\n    action = \"inform\"\n  condition:\n    true\n}\n"
                "rule C { meta: action = \"inform\" id = \"mine\" condition: true } "
                "rule D { meta: id = \"" +
                id("D") +
                "\" action = \"inform\" condition: true }\n"
                "rule E { meta: id = \"e\" action = \"Block\" condition: true }");
  EXPECT_EQ(std::set<std::string>({id("A"), id("B"), id("D")}).size(), 3U);
  struct stat status {};
  ASSERT_EQ(::stat(Path("set.yar").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);

  // The same in another folder on another day.
  Write("other/set.yar", before);
  static_cast<void>(Run("check --fix --default-action inform %other/set.yar"));
  EXPECT_EQ(Read("other/set.yar"), after);
  // Nothing left to do.
  result = Run("check -q --fix --default-action block %set.yar");
  EXPECT_EQ(Read("set.yar"), after);
  EXPECT_EQ(result.err, "");
}

TEST_F(CheckTest, FixReplacesWholeFilesOrLeavesThem) {
  Write("real.yar", "rule R { condition: true }\n");
  fs::create_symlink("real.yar", Path("link.yar"));
  EXPECT_EQ(Run("check --fix --default-action block %link.yar").exit_status, 0);
  EXPECT_TRUE(fs::is_symlink(Path("link.yar")));
  EXPECT_NE(Read("real.yar").find("action = \"block\""), std::string::npos);

  // A packed file is not touched, and a file that can't be written is said to be one.
  const Table table("bad_command_lines.txt", 50);
  Write("packed.yar", table.Expand(table.Words().at("!file packed.yar")));
  const std::string packed = Read("packed.yar");
  EXPECT_EQ(Run("check --fix --default-action block %packed.yar").exit_status, 0);
  EXPECT_EQ(Read("packed.yar"), packed);
  const std::string long_name = std::string(246, 'x') + ".yar";  // there is no room for another name beside it
  Write(long_name, "rule R { condition: true }\n");
  EXPECT_EQ(Summarize(Run("check --fix --default-action block --format jsonl %" + long_name)).codes,
            "UNFIXABLE:0 MISSING-ID:1 MISSING-ACTION:1");
  EXPECT_EQ(Read(long_name), "rule R { condition: true }\n");
  for (const auto& entry : fs::directory_iterator(folder_)) {
    EXPECT_EQ(entry.path().string().find(".yar."), std::string::npos) << entry.path();
  }
}

TEST_F(CheckTest, PolicyShowSaysWhatAScanWouldSend) {
  Write("rules/a.yar", "rule A { meta: id = \"a\" action = \"block\" condition: true }\n");
  Write("rules/b.yar",
        "private rule B { meta: id = \"b\" action = \"block\" condition: true }\n"
        "rule A2 { meta: id = \"a\" action = \"block\" condition: true }\n");
  Write("allow.yar", "rule C { meta: id = \"c\" action = \"allow\" condition: true }\n");
  Write("p.json", R"({"yara_timeout_in_seconds":5,"max_sample_size":100,"rule_sets":[{"path":"rules"},)"
                  R"({"path":"allow.yar","rule_type":"Allow","file_type":-3}],"rule_overrides":[)"
                  R"({"rule_id":"a","item":{"key":"action","value":{"string_value":"disable"}}},)"
                  R"({"rule_id":"c","item":{"key":"score","value":{"int_value":"9223372036854775807"}}}]})");
  const std::string sent = R"({"yara_timeout_in_seconds":5,"max_sample_size":100,"rule_sets":[{"fd_index":0},)"
                           R"({"rule_type":"Allow","file_type":-3,"fd_index":1}],"rule_overrides":[)"
                           R"({"rule_id":"a","item":{"key":"action","value":{"string_value":"disable"}}},)"
                           R"({"rule_id":"c","item":{"key":"score","value":{"int_value":"9223372036854775807"}}}]})";
  const ChildResult shown = Run("policy show -q --allow private-rule,duplicate-id %p.json");
  EXPECT_EQ(shown.exit_status, 0);
  EXPECT_EQ(WithoutFolder(shown.out),
            "Settings\n"
            "  max_sample_size          100 bytes\n"
            "  max_number_of_threads    4, at most one per processor\n"
            "  yara_timeout_in_seconds  5 s per scan\n"
            "  yara_retries_on_match    none\n"
            "Rule sets\n"
            "  [0] 3 block rules for file type 0 in 2 files, 1 private, 2 disabled\n"
            "        rules/a.yar\n"
            "        rules/b.yar\n"
            "  [1] 1 allow rule for file type -3 in 1 file\n"
            "        allow.yar\n"
            "Overrides\n"
            "  [0] a: action = disable -> rule_sets[0] A A2\n"
            "  [1] c: score = 9223372036854775807 -> rule_sets[1] C\n"
            "As sent, " +
                std::to_string(sent.size() + 15) + " of 131072 bytes, with 2 descriptors\n" + sent + "\n");
  EXPECT_EQ(shown.err, "");

  const json object = Objects(Run("policy show -q --format jsonl %p.json").out).at(0);
  EXPECT_EQ(object["type"], "policy_document");
  EXPECT_EQ(object["sent"], json::parse(sent));
  EXPECT_EQ(object["rule_sets"][0]["disabled"], 2);
  EXPECT_EQ(object["overrides"][1]["value"], 9223372036854775807);
  EXPECT_EQ(object["overrides"][0]["rules"], json({"A", "A2"}));
}

}  // namespace
}  // namespace vond::test
