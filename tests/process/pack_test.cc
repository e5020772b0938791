#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/test_support.h"

// vondctl pack, unpack, inspect, diff and bench: what rule files are made into, and what is said of them.
namespace vond::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Strings = std::vector<std::string>;
using Files = std::map<std::string, std::string>;  // name to content

const std::string kMeta = "meta: id = \"i\" action = \"block\" ";

class PackTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = fs::temp_directory_path() / "pack.XXXXXX";
    ASSERT_NE(::mkdtemp(name.data()), nullptr);
    folder_ = name;
  }
  void TearDown() override { fs::remove_all(folder_); }

  void Write(const Files& files) const {
    for (const auto& [name, content] : files) {
      fs::create_directories((folder_ / name).parent_path());
      std::ofstream(folder_ / name, std::ios::binary) << content;
    }
  }

  [[nodiscard]] std::string Read(const std::string& name) const {
    std::ifstream file(folder_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  // Runs vondctl; '%' in an argument is the test's folder, which is '%' in what comes back.
  ChildResult Run(const Strings& arguments) const {
    Strings command{VONDCTL_PATH};
    for (std::string argument : arguments) {
      const std::size_t at = argument.find('%');
      command.push_back(at == std::string::npos ? argument : argument.replace(at, 1, folder_.string() + "/"));
    }
    ChildResult result = RunChild(command);
    for (std::string* const text : {&result.out, &result.err}) {
      for (std::size_t at = 0; (at = text->find(folder_.string() + "/")) != std::string::npos;) {
        text->replace(at, folder_.string().size() + 1, "%");
      }
    }
    return result;
  }

  // The objects of what vondctl writes as JSON Lines.
  std::vector<json> RunForJson(Strings arguments, int status = 0) const {
    arguments.insert(arguments.end(), {"--format", "jsonl"});
    const ChildResult result = Run(arguments);
    EXPECT_EQ(result.exit_status, status) << result.out << result.err;
    std::vector<json> objects;
    for (const std::string& line : Lines(result.out)) {
      objects.push_back(json::parse(line));
    }
    return objects;
  }

  // The text that `pack --plain` makes of the folder's "in".
  std::string Packed(Strings options = {}) const {
    options.insert(options.begin(), {"pack", "%in", "-o", "-", "--plain"});
    const ChildResult result = Run(options);
    EXPECT_EQ(result.exit_status, 0) << result.err;
    return result.out;
  }

  // Everything there is, to see that nothing stays behind.
  [[nodiscard]] Strings Listing() const {
    Strings names;
    for (const auto& entry : fs::recursive_directory_iterator(folder_)) {
      names.push_back(entry.path().lexically_relative(folder_));
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  fs::path folder_;
};

TEST_F(PackTest, IncludesAreInlinedOnceWhereTheyFirstStand) {
  Write({{"in/a.yar",
          "// terms\ninclude \"sub/b.txt\"\r\ninclude \"sub/c.txt\"\nrule A { " + kMeta + "condition: B and C }"},
         {"in/sub/b.txt", "include \"c.txt\"\nrule B { " + kMeta + "condition: C } // no newline"},
         {"in/sub/c.txt", "\xef\xbb\xbfrule C { " + kMeta + "condition: true } // include \"d\""},
         {"in/z.yar", "/* include \"e\" */ include \"a.yar\" rule Z { " + kMeta + "condition: A }\n"}});
  EXPECT_EQ(Packed(), "// terms\nrule C { " + kMeta + "condition: true } // include \"d\"\nrule B { " + kMeta +
                          "condition: C } // no newline\nrule A { " + kMeta +
                          "condition: B and C }\n/* include \"e\" */ \n" + " rule Z { " + kMeta + "condition: A }\n");
}

TEST_F(PackTest, RefusalsNameTheTrueFileAndLine) {
  struct Case {
    std::string name;
    Files files;
    Strings expected;  // "file:line code" of each problem
  };
  const std::string good = "rule Good { " + kMeta + "condition: true }\n";
  const std::vector<Case> cases{
      {"error in an included file",
       {{"a.yar", "\n\ninclude \"b.txt\"\n" + good}, {"b.txt", "\nrule B { " + kMeta + "condition:\n $x }"}},
       {"b.txt:3 compile-error"}},
      {"error behind an include",
       {{"a.yar", "include \"b.txt\"\n\nrule A { condition: $x }"}, {"b.txt", "\n\n\n" + good}},
       {"a.yar:3 compile-error", "a.yar:3 missing-id", "a.yar:3 missing-action"}},
      {"missing include", {{"a.yar", good + "include \"none\""}}, {"a.yar:2 include"}},
      {"include of a folder", {{"a.yar", good + "include \".\""}}, {"a.yar:2 include"}},
      {"loop",
       {{"a.yar", good + "include \"b.txt\""}, {"b.txt", "\ninclude \"c.txt\""}, {"c.txt", "include \"./b.txt\""}},
       {"c.txt:1 include"}},
      {"zero byte", {{"a.yar", good}, {"b.yar", std::string("\n/* \0 */", 8)}}, {"b.yar:2 nul-byte"}},
      {"open comment",
       {{"a.yar", good + "/* rule B {"}, {"b.yar", "rule B { condition: true }"}},
       {"a.yar:2 open-end", "b.yar:1 missing-id", "b.yar:1 missing-action"}},
      {"twice", {{"a.yar", good}, {"b.yar", "\n" + good}}, {"b.yar:2 duplicate-rule"}},
      {"unknown action",
       {{"a.yar", "rule A { meta: id = \"i\" action = \"Block\" condition: true }"}},
       {"a.yar:1 unknown-action"}},
      {"no rule", {{"a.yar", "// nothing\n"}}, {" empty-set"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(folder_ / "in");
    for (const auto& [name, content] : c.files) {
      Write({{"in/" + name, content}});
    }
    Strings problems;
    for (const json& object : RunForJson({"pack", "%in", "-o", "%out"}, 3)) {
      if (object.at("severity") == "error") {
        std::string place =
            object.contains("file") ? fs::path(object["file"].get<std::string>()).filename().string() : "";
        place += object.contains("line") ? ":" + std::to_string(object["line"].get<int>()) : "";
        problems.push_back(place + " " + object.at("code").get<std::string>());
      }
    }
    EXPECT_EQ(problems, c.expected);
    EXPECT_FALSE(fs::exists(folder_ / "out"));
  }
}

TEST_F(PackTest, SkipBadLeavesOutWhatIsBadAndWhatNeedsIt) {
  Write({{"in/a.yar",
          "import \"nonsuch\"\nimport \"pe\"\n"
          "rule Bad { " +
              kMeta + "condition: $x }\nrule NeedsBad { " + kMeta +
              "condition: Bad or true }\n"
              "rule Good { " +
              kMeta + "condition: true }\nrule Counts { " + kMeta +
              "condition: any of (Ba*) }\n"
              "rule CountsGood { " +
              kMeta +
              "condition: any of (Goo*) }\n"
              "rule NoAction { meta: id = \"i\" condition: true }\nrule NeedsNoAction { " +
              kMeta +
              "condition: NoAction }\n"
              "rule External { " +
              kMeta +
              "condition: filename == \"x\" }\n"
              "rule Twice { " +
              kMeta + "condition: $y } rule Twice { " + kMeta +
              "condition: pe.is_dll() or true }\n"
              "rubbish here rule Open { " +
              kMeta +
              "condition: true\n"
              "rule Text { " +
              kMeta + "strings: $a = \"abc\n condition: $a }\nrule Last { " + kMeta +
              "condition: true }\n"
              "rule Unclosed { /* condition: true }"},
         {"in/b.yar", "rule OfNextFile { " + kMeta + "condition: Last }\ninclude \"none\"\n"}});
  Strings left_out;
  Strings objects;
  for (const json& object : RunForJson({"pack", "%in", "-o", "%out", "--skip-bad"})) {
    objects.push_back(object.at("type"));
    if (object["type"] == "decision") {
      left_out.push_back(object.value("rule", "-") + " " + object.at("decision").get<std::string>());
    }
  }
  std::sort(left_out.begin(), left_out.end());
  EXPECT_EQ(left_out, (Strings{"- no-rule", "- no-rule", "Bad broken", "Counts dependent", "External broken",
                               "NeedsBad dependent", "NeedsNoAction dependent", "NoAction broken", "Open broken",
                               "Text broken", "Twice broken", "Unclosed broken"}));
  EXPECT_EQ(objects.back(), "pack");
  Strings kept;
  for (const json& object : RunForJson({"inspect", "%out"})) {
    kept.push_back(object.value("rule", ""));
  }
  EXPECT_EQ(kept, (Strings{"", "Good", "CountsGood", "Twice", "Last", "OfNextFile"}));
}

TEST_F(PackTest, RulesOfOneName) {
  const std::string helper = "rule Help { " + kMeta + "strings: $a = { 90 4a } condition: $a }\n";
  const std::string other = "rule Help { " + kMeta + "strings: $a = \"x\" condition: $a }\n";
  const std::string user = "rule User { " + kMeta + "condition: Help }\n";
  Write(
      {{"in/a.yar", helper + user},
       {"in/b.yar", other + user + "rule Only { " + kMeta + "condition: not Help and any of (Hel*) }\n"},
       {"in/c.yar", "rule Help { /* same */" + kMeta + "strings: $a = { 90 // nop\n 4A }\n condition: $a }\n" + user}});
  EXPECT_EQ(Packed({"--on-duplicate", "drop"}),
            helper + user + "rule Only { " + kMeta + "condition: not Help and any of (Hel*) }\n");
  EXPECT_EQ(Packed({"--on-duplicate", "rename"}),
            helper + user + "rule Help_2 { " + kMeta + "strings: $a = \"x\" condition: $a }\nrule User_2 { " + kMeta +
                "condition: Help_2 }\nrule Only { " + kMeta + "condition: not Help_2 and any of (Hel*) }\n");
  EXPECT_EQ(Run({"pack", "%in", "-o", "%out"}).exit_status, 3);
}

TEST_F(PackTest, TheDefaultActionGoesIntoTheRulesOwnLayout) {
  Write(
      {{"in/a.yar",
        "rule A {\n    meta:\n        id = \"i\"\n    condition: true\n}\nrule B { meta: id = \"i\" condition: true }\n"
        "rule C { meta: id = \"i\" action = \"allow\" condition: true }\nrule D { meta:id = \"i\"condition: true "
        "}\n"}});
  EXPECT_EQ(Packed({"--default-action", "block"}),
            "rule A {\n    meta:\n        action = \"block\"\n        id = \"i\"\n    condition: true\n}\n"
            "rule B { meta: action = \"block\" id = \"i\" condition: true }\n"
            "rule C { meta: id = \"i\" action = \"allow\" condition: true }\n"
            "rule D { meta: action = \"block\" id = \"i\"condition: true }\n");
}

TEST_F(PackTest, TheOutputIsReplacedWholeOrNotAtAll) {
  Write({{"in/a.yar", "rule A { " + kMeta + "strings: $a = \"needle\" condition: $a }\n"},
         {"out", "old"},
         {"hay", "a needle"}});
  const Strings before = Listing();
  EXPECT_EQ(Run({"pack", "%none", "-o", "%out"}).exit_status, 3);
  EXPECT_EQ(Run({"pack", "%in", "-o", "%none/out"}).exit_status, 2);
  EXPECT_EQ(Run({"pack", "%in", "-o", "%in"}).exit_status, 2);
  EXPECT_EQ(Run({"pack", "%in", "-o", "%in/a.yar"}).exit_status, 64);
  EXPECT_EQ(Run({"pack", "%in", "-o", "-", "--format", "jsonl"}).exit_status, 64);
  EXPECT_EQ(Run({"pack", "%in", "-o", "/dev/full"}).exit_status, 2);
  EXPECT_EQ(Read("out"), "old");
  EXPECT_EQ(Listing(), before);

  fs::create_symlink("out", folder_ / "link");
  EXPECT_EQ(Run({"pack", "%in", "-o", "%link"}).exit_status, 0);
  EXPECT_TRUE(fs::is_symlink(folder_ / "link"));
  EXPECT_TRUE(Read("out").starts_with("ENCY"));
  EXPECT_EQ(Run({"pack", "%in", "-o", "/dev/null"}).exit_status, 0);
  EXPECT_TRUE(fs::is_character_file("/dev/null"));
  const mode_t mask = ::umask(027);
  EXPECT_EQ(Run({"pack", "%in", "-o", "%new"}).exit_status, 0);
  ::umask(mask);
  EXPECT_EQ(fs::status(folder_ / "new").permissions(), fs::perms(0640));
  const ChildResult scan = Run({"scan", "-q", "--rules", "%new", "%hay"});
  EXPECT_EQ(scan.exit_status, 1) << scan.err;
  EXPECT_TRUE(scan.out.starts_with("%hay: A (")) << scan.out;
}

TEST_F(PackTest, SlowRulesAreNamedFirst) {
  Write({{"in/a.yar", "rule A { " + kMeta + "strings: $a = \"x\" condition: $a }\nrule B { condition: true }\n"}});
  const std::vector<json> objects = RunForJson({"pack", "%in", "-o", "%out"}, 3);
  EXPECT_EQ(objects.at(0).at("code"), "slow-string");
  EXPECT_EQ(objects.at(0).at("rule"), "A");
  EXPECT_EQ(objects.at(1).at("code"), "missing-id");
}

TEST_F(PackTest, UnpackGivesTheTextBackOrNothing) {
  const std::string text = "rule A { " + kMeta + "condition: true } // \xff\r\n";
  Write({{"in/a.yar", text}});
  ASSERT_EQ(Run({"pack", "%in", "-o", "%packed"}).exit_status, 0);
  EXPECT_EQ(Run({"unpack", "%packed"}).out, text);
  EXPECT_EQ(Run({"unpack", "%in/a.yar"}).out, text);
  EXPECT_EQ(Run({"unpack", "%packed", "-o", "%text"}).exit_status, 0);
  EXPECT_EQ(Read("text"), text);
  const std::string packed = Read("packed");
  std::vector<std::string> damaged{packed + "x", packed.substr(0, packed.size() - 16), packed.substr(0, 4)};
  for (const std::size_t at : {std::size_t{4}, packed.size() / 2, packed.size() - 1}) {
    damaged.push_back(packed);
    damaged.back()[at] = static_cast<char>(damaged.back()[at] ^ 1);
  }
  fs::remove(folder_ / "text");
  for (const std::string& content : damaged) {
    Write({{"packed", content}});
    const ChildResult result = Run({"unpack", "%packed", "-o", "%text"});
    EXPECT_EQ(result.exit_status, 3);
    EXPECT_TRUE(result.err.starts_with("%packed: error[damaged-file]")) << result.err;
    EXPECT_EQ(Run({"unpack", "%packed"}).out, "");
    EXPECT_EQ(Run({"inspect", "%packed"}).exit_status, 3);
  }
  EXPECT_FALSE(fs::exists(folder_ / "text"));
}

TEST_F(PackTest, InspectTellsWhatIsInAFile) {
  Write(
      {{"a.yar",
        "import \"pe\"\nimport \"math\"\nprivate rule P : t u { condition: pe.is_dll() }\n\n"
        "global rule G : t { meta: id = \"i\" n = 9007199254740993 n = -1 f = true action = \"block\" s = \"a\\x1bb\"\n"
        "  condition: P and not any of (P*, Q*) and unknown }\nrule H { meta: id = \"i\" action = \"block\" condition: "
        "G }\n"}});
  const std::vector<json> objects = RunForJson({"inspect", "%a.yar"});
  ASSERT_EQ(objects.size(), 4U);
  const json& file = objects[0];
  EXPECT_EQ(file["form"], "plain");
  EXPECT_EQ(file["rules"], 3);
  EXPECT_EQ(file["private"], 1);
  EXPECT_EQ(file["global"], 1);
  EXPECT_EQ(file["without_id"], 1);
  EXPECT_EQ(file["without_action"], 1);
  EXPECT_EQ(file["repeated_ids"], json({{"i", 2}}));
  EXPECT_EQ(file["actions"], json({{"block", 2}}));
  EXPECT_EQ(file["tags"], json({{"t", 2}, {"u", 1}}));
  EXPECT_EQ(file["imports"], json({"math", "pe"}));
  EXPECT_EQ(file["bytes"], Read("a.yar").size());
  EXPECT_EQ(objects[1]["modules"], json({"pe"}));
  EXPECT_EQ(objects[1]["private"], true);
  EXPECT_EQ(objects[2]["line"], 5);
  EXPECT_EQ(objects[2]["global"], true);
  EXPECT_EQ(objects[2]["needs"], json({"P", "P*"}));
  EXPECT_EQ(objects[2]["meta"][1], json({{"key", "n"}, {"value", 9007199254740993}}));
  EXPECT_EQ(objects[2]["meta"][2], json({{"key", "n"}, {"value", -1}}));
  EXPECT_EQ(objects[2]["meta"][3], json({{"key", "f"}, {"value", true}}));
  EXPECT_EQ(objects[3]["needs"], json({"G"}));

  std::ofstream(folder_ / "empty").close();
  EXPECT_EQ(Run({"inspect", "%empty"}).exit_status, 0);
  // The digest of nothing (FIPS 180-4).
  EXPECT_EQ(RunForJson({"inspect", "%empty"})[0]["sha256"],
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(Run({"inspect", "%none", "%a.yar"}).exit_status, 3);
}

TEST_F(PackTest, DiffComparesRuleByRule) {
  const std::string rule = "rule A : t { meta: n = 1 strings: $a = { 90 ?A } $b = \"x y\" condition: $a or $b }";
  struct Case {
    std::string name;
    std::string before;
    std::string after;
    std::string expected;  // lines of standard output
  };
  const std::vector<Case> cases{
      {"comments, layout, case of hex digits", rule,
       "// new\nrule A\n: t { meta: n=1\n strings: $a = {90/**/?a//\n}\n $b = \"x y\" condition:/**/$a or\n$b\n}", ""},
      {"order", "rule A { condition: true } rule B { condition: true }",
       "rule B { condition: true } rule A { condition: true }", ""},
      {"white space within a string", rule,
       "rule A : t { meta: n = 1 strings: $a = { 90 ?A } $b = \"x  y\" condition: $a or $b }",
       "~ A (%new.yar:1): strings\n"},
      {"all parts", rule, "\nprivate rule A : u { meta: n = 2 m = \"\\x1b\" strings: $a = { 91 } condition: $a }",
       "~ A (%new.yar:2): modifiers, tags, metadata, strings, condition\n    n: 1 -> 2\n    m: none -> \"\\x1b\"\n"},
      {"number and text", "rule A { meta: n = 1 condition: true }", "rule A { meta: n = \"1\" condition: true }",
       "~ A (%new.yar:1): metadata\n    n: 1 -> \"1\"\n"},
      {"repeated key", "rule A { meta: r = \"a\" r = \"b\" condition: true }",
       "rule A { meta: r = \"a\" condition: true }", "~ A (%new.yar:1): metadata\n    r: \"b\" -> none\n"},
      {"added and removed", "\nrule A { condition: true }", "rule B { condition: true }",
       "- A (%old.yar:2)\n+ B (%new.yar:1)\n"},
      {"added tag", "rule A { condition: true }", "rule A : t { condition: true }", "~ A (%new.yar:1): tags\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Write({{"old.yar", c.before}, {"new.yar", c.after}});
    const ChildResult result = Run({"diff", "-q", "%old.yar", "%new.yar", "--exit-code"});
    EXPECT_EQ(result.out, c.expected);
    EXPECT_EQ(result.exit_status, c.expected.empty() ? 0 : 1);
    EXPECT_EQ(Run({"diff", "%old.yar", "%new.yar"}).exit_status, 0);
  }
  EXPECT_EQ(Run({"diff", "%old.yar", "%none"}).exit_status, 3);
}

TEST_F(PackTest, BenchFindsTheRuleThatCostsMost) {
  std::string rules = "rule Broken { condition: $x }\nprivate rule Needed { condition: filesize > 0 }\n";
  for (int i = 0; i < 30; ++i) {
    rules += "rule R" + std::to_string(i) + " { strings: $a = \"needle" + std::to_string(i) + "\" condition: $a }\n";
  }
  rules += "rule Slow { condition: Needed and for all i in (1..20000) : (i > 0) }\n";  // public rules: no id, no action
  Write({{"rules.yar", rules}});
  for (int i = 0; i < 20; ++i) {
    Write({{"files/" + std::to_string(i), std::string(2000, 'x') + "needle7 "}});
  }
  const std::vector<json> objects =
      RunForJson({"bench", "-r", "%rules.yar", "--seconds", "20", "--slowest", "1", "-j", "2", "%files"});
  std::map<std::string, json> by_type;
  for (const json& object : objects) {
    by_type[object.at("type")] = object;
  }
  const json& bench = by_type["bench"];
  EXPECT_EQ(bench["rules"], 32);
  EXPECT_EQ(bench["files_found"], 20);
  EXPECT_EQ(bench["threads"], 2);
  for (const char* const engine : {"vond", "libyara"}) {
    EXPECT_GT(bench[engine]["files_per_second"], 0) << engine;
    EXPECT_GE(bench[engine]["p99_ms"], bench[engine]["p50_ms"]) << engine;
    EXPECT_EQ(bench[engine]["matches"], bench["files"].get<int>() * 2) << engine;  // R7 and Slow
    EXPECT_EQ(bench[engine]["not_scanned"], 0) << engine;
  }
  EXPECT_EQ(by_type["decision"]["rule"], "Broken");
  EXPECT_EQ(by_type["slow_rule"]["rule"], "Slow");
  EXPECT_EQ(by_type["slow_rule"]["line"], 33);
  EXPECT_GT(by_type["slow_rule"]["share"], 0.2);  // of time that other programs have a part in
  EXPECT_EQ(Run({"bench", "-r", "%rules.yar", "%none"}).exit_status, 2);
  EXPECT_EQ(Run({"bench", "-r", "%none", "%files"}).exit_status, 3);
}

}  // namespace
}  // namespace vond::test
