#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>

#include "static_pattern_matching/rule_set_decoder.h"
#include "tests/support/test_support.h"
#include "yara/yara_source/yara_source.h"

// vondctl adopt on small sets with what public ones have wrong.
namespace vond::test {
namespace {

namespace fs = std::filesystem;

class AdoptTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = fs::temp_directory_path() / "adopt.XXXXXX";
    ASSERT_NE(::mkdtemp(name.data()), nullptr);
    folder_ = name;
    fs::create_directories(Set());
  }
  void TearDown() override { fs::remove_all(folder_); }

  [[nodiscard]] fs::path Set() const { return folder_ / "set"; }
  [[nodiscard]] fs::path Output() const { return folder_ / "out"; }

  void Write(const std::string& name, const std::string& content) const {
    fs::create_directories((Set() / name).parent_path());
    std::ofstream(Set() / name, std::ios::binary) << content;
  }

  static std::string Read(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  ChildResult Adopt(std::vector<std::string> options = {}) const {
    std::vector<std::string> arguments{VONDCTL_PATH, "adopt", Set(), "-o", Output(), "--report", folder_ / "report"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return RunChild(arguments);
  }

  // Adopts, expecting `status`; the text that came out.
  std::string Adopted(std::vector<std::string> options = {}, int status = 0) const {
    options.emplace_back("--plain");
    const ChildResult result = Adopt(options);
    EXPECT_EQ(result.exit_status, status) << result.out << result.err;
    return Read(Output());
  }

  // "decision rule: detail" of each line of the report of that kind.
  [[nodiscard]] std::vector<std::string> Decisions(const std::string& kind) const {
    const std::regex line(
        R"re(\{"type":"decision","decision":"([^"]*)","file":"[^"]*","line":\d+,(?:"rule":"([^"]*)",)?)re"
        R"re("detail":"(.*)"\})re");
    std::vector<std::string> decisions;
    for (const std::string& text : Lines(Read(folder_ / "report"))) {
      std::smatch match;
      if (std::regex_match(text, match, line) && match[1] == kind) {
        decisions.push_back(match[2].str() + ": " + match[3].str());
      }
    }
    return decisions;
  }

  [[nodiscard]] std::map<std::string, yara_source::RuleText> Rules() const {
    std::map<std::string, yara_source::RuleText> rules;
    for (yara_source::RuleText& rule : yara_source::ParseSource(Read(Output())).rules) {
      rules.emplace(rule.name, rule);
    }
    return rules;
  }

  static std::string Meta(const yara_source::RuleText& rule, const std::string& key) {
    std::string values;
    for (const yara_source::MetaItem& item : rule.meta) {
      if (item.key == key) {
        const auto* const text = std::get_if<std::string>(&item.value);
        values += (values.empty() ? "" : "|") +
                  (text != nullptr ? *text : std::to_string(std::get<std::int64_t>(item.value)));
      }
    }
    return values;
  }

  fs::path folder_;
};

std::string Names(const std::map<std::string, yara_source::RuleText>& rules) {
  std::string names;
  for (const auto& [name, rule] : rules) {
    names += (names.empty() ? "" : " ") + name;
  }
  return names;
}

using Strings = std::vector<std::string>;

TEST_F(AdoptTest, KeepsEveryByteButWhatItAdds) {
  const std::string source =
      "/* Terms: keep this. */\nrule One : tag\n{\n\tmeta:\n\t\tauthor = \"A \\x22\"\n\n  strings:\n"
      "    $a = { 41 /* } */ 42 } // \"\n    $b = /[{\"]\\// nocase\n  condition:\n    any of them // end\n}\n"
      "rule Two { condition: filesize \\ 2 > 1KB }\n";
  Write("a.yar", source);
  const std::string text = Adopted();
  const std::string added = std::regex_replace(
      text,
      std::regex("(\n\t\t|\n    | )(id = \"[0-9a-f]{8}-[0-9a-f]{4}-5[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}\"|"
                 "action = \"inform\")"),
      "");
  EXPECT_EQ(std::regex_replace(added, std::regex(" meta: condition"), " condition"), source) << text;
  EXPECT_EQ(Adopted(), text) << "ids are the same in every run";
  Adopted({"--set-name", "other"});
  EXPECT_NE(Read(Output()), text) << "and others under another name";
}

TEST_F(AdoptTest, WhatIsAdoptedStaysAsItIsTheSecondTime) {
  Write("a.yar", "rule One { meta: id = \"\" condition: true } rule Two { meta: action = \"what\" condition: One }");
  const std::string text = Adopted();
  fs::remove_all(Set());
  fs::create_directories(Set());
  Write("a.yar", text);
  EXPECT_EQ(Adopted(), text);
}

TEST_F(AdoptTest, PacksWhatTheDaemonTakes) {
  Write("a.yar", "rule One { strings: $a = \"needle\" condition: $a }");
  const ChildResult result = Adopt();
  ASSERT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, "");
  const std::string packed = Read(Output());
  EXPECT_TRUE(packed.starts_with("ENCY"));
  EXPECT_NE(korvo::static_pattern_matching_daemon::DecodeRuleSet(packed).find("rule One {"), std::string::npos);
  std::ofstream(folder_ / "target") << "a needle";
  const ChildResult scan = RunChild({VONDCTL_PATH, "scan", "--rules", Output(), folder_ / "target"});
  EXPECT_EQ(scan.exit_status, 1) << scan.err;
  EXPECT_NE(scan.out.find("One (block, id "), std::string::npos) << scan.out;
  EXPECT_NE(scan.out.find("action inform"), std::string::npos) << scan.out;
}

TEST_F(AdoptTest, InlinesIncludesOnceAndKeepsTheTerms) {
  Write("common/base.yar", "private rule Base { condition: filesize < 10 }\n");
  Write("index.yar", "include \"./common/base.yar\"\ninclude \"common/base.yar\"\nrule Top { condition: Base }\n");
  Write("LICENSE", std::string("Use as you like.\0\n\nReally.", 26));
  const std::string text = Adopted();
  EXPECT_TRUE(text.starts_with("// LICENSE\n// Use as you like. \n//\n// Really.\n")) << text;
  EXPECT_EQ(Names(Rules()), "Base Top");
  EXPECT_EQ(text.find("include"), std::string::npos);
}

TEST_F(AdoptTest, TakesIncludedFilesInTheOrderOfTheirIncludes) {
  Write("a_needs_base.yar", "rule Needs { condition: Base }\n");
  Write("index.yar", "include \"z_base.yar\"\ninclude \"a_needs_base.yar\"\n");
  Write("z_base.yar", "rule Base { condition: true }\n");
  Adopted();
  EXPECT_EQ(Names(Rules()), "Base Needs");
}

TEST_F(AdoptTest, LeavesOutWhatTheCompilerRefusesAndWhatNeedsIt) {
  Write(
      "a.yar",
      "import \"nowhere\"\nrule Module { condition: nowhere.x == 1 }\nrule External { condition: filename == \"x\" }\n"
      "rule Needs { condition: External }\nrule NeedsToo { condition: Needs or true }\n"
      "rule Counts { condition: any of (Ext*) }\nrule Fine { condition: true }\n");
  Write("b.yar",
        "rule Open { strings: $a = \"x\n condition: $a }\nrule Unused { strings: $a = \"x\" condition: true }\n");
  Write("c.yar", "rule Behind { condition: true } /* no end");
  Write("d.yar", "rule Last { condition: Fine }");
  EXPECT_NE(Adopted().find("rule Last"), std::string::npos) << "a comment without an end must not take it along";
  EXPECT_EQ(Names(Rules()), "Behind Fine Last");
  EXPECT_EQ(Decisions("dependent"), (Strings{"Needs: External", "Counts: External", "NeedsToo: Needs"}));
  EXPECT_EQ(Decisions("broken").size(), 4U);
  EXPECT_NE(Read(folder_ / "report").find(R"(undefined identifier \"filename\")"), std::string::npos);
  EXPECT_EQ(Decisions("no-rule").size(), 1U) << "the import";
}

TEST_F(AdoptTest, PutsDefinitionsInThePlaceOfExternalVariables) {
  Write("a.yar",
        "rule Text { condition: filename == \"a\\\"b\" }\nrule Number { condition: size_limit > 5 and flag }\n"
        "rule Not { strings: $a = \"filename\" condition: $a /* filename */ and not flag }\n");
  const std::string text = Adopted({"--define", "filename=a\"b", "--define", "size_limit=10", "--define", "flag=true"});
  EXPECT_EQ(Names(Rules()), "Not Number Text");
  EXPECT_NE(text.find(R"("a\"b" == "a\"b" })"), std::string::npos) << text;
  EXPECT_NE(text.find("condition: 10 > 5 and true }"), std::string::npos) << text;
  EXPECT_NE(text.find("$a = \"filename\" condition: $a /* filename */ and not true }"), std::string::npos) << text;
  EXPECT_EQ(Decisions("defined").size(), 4U);
}

TEST_F(AdoptTest, GivesRulesOfOneNameNamesOfTheirOwn) {
  Write("a.yar", "rule Same { condition: true }\nrule Name { condition: filesize == 1 }\nrule A { condition: Name }\n");
  Write("b.yar",
        "rule Same /* as in a */ { condition :true }\nrule Name { condition: filesize == 2 }\n"
        "rule B { strings: $a = \"Name\" condition: Name and $a and Same }\n");
  Write("c.yar", "rule Name_2 { condition: filesize == 3 }\nrule Broken { condition: missing }\n");
  Write("d.yar", "rule Broken { condition: filesize == 4 }\nrule D { condition: Broken }\n");
  const std::string text = Adopted();
  EXPECT_EQ(Names(Rules()), "A B Broken D Name Name_2 Name_3 Same") << text;
  EXPECT_NE(text.find("$a = \"Name\" condition: Name_3 and $a and Same }"), std::string::npos) << text;
  EXPECT_NE(text.find("condition: filesize == 4 }"), std::string::npos) << "the name went to the rule that is left";
  EXPECT_EQ(Decisions("renamed"), Strings{"Name: Name_3"});
  EXPECT_EQ(Decisions("twin").size(), 1U);
}

TEST_F(AdoptTest, ARuleSetMeansTheRulesOfItsOwnFile) {
  Write("a.yar", "rule Fam_1 { strings: $a = \"alpha\" condition: $a }\n");
  Write("b.yar", "rule Fam_2 { strings: $a = \"beta\" condition: $a }\nrule All { condition: all of (Fam_*) }\n");
  const std::string text = Adopted();
  EXPECT_NE(text.find("all of (Fam_2)"), std::string::npos) << text;
  std::ofstream(folder_ / "target") << "beta";
  const ChildResult scan = RunChild({VONDCTL_PATH, "scan", "--rules", Output(), folder_ / "target"});
  EXPECT_NE(scan.out.find("All ("), std::string::npos) << scan.out << scan.err;
}

TEST_F(AdoptTest, MendsIdsAndActions) {
  const std::vector<Strings> cases = {
      // name, metadata, id kept ("" for a new one), orig_id, action, orig_action
      {"None", "", "", "", "inform", ""},
      {"First", "id = \"x\"", "x", "", "inform", ""},
      {"Second", "id = \"x\"", "", "x", "inform", ""},
      {"Number", "id = 5 action = \"block\"", "5", "", "block", ""},
      {"Empty", "id = \"\" action = \"disable\"", "", "", "disable", ""},
      {"Repeated", "id = \"r1\" id = \"r2\"", "r2", "r1", "inform", ""},
      {"Latin", "id = \"\xE9\" author = \"Andr\xE9\"", "", "\xC3\xA9", "inform", ""},
      {"Unknown", "action = \"Block\" action = \"kill\"", "", "", "inform", "Block|kill"},
      {"High", "score = 80", "", "", "block", ""},
      {"Middle", "score = \"40\"", "", "", "silent", ""},
      {"Low", "score = 39 level = \"high\"", "", "", "allow", ""},
  };
  std::string source;
  for (const Strings& row : cases) {
    source += "rule " + row[0] + " { " + (row[1].empty() ? "" : "meta: ") + row[1] + " condition: true }\n";
  }
  Write("a.yar", source);
  Adopted({"--action-from", "score:>=75=block,>=40=silent", "--action-from", "level:high=allow"});
  const auto rules = Rules();
  ASSERT_EQ(rules.size(), cases.size());
  const std::regex uuid("[0-9a-f-]{36}");
  for (const Strings& row : cases) {
    const yara_source::RuleText& rule = rules.at(row[0]);
    const std::string id = Meta(rule, "id");
    EXPECT_TRUE(row[2].empty() ? std::regex_match(id, uuid) : id == row[2]) << row[0] << " " << id;
    EXPECT_EQ(Meta(rule, "orig_id"), row[3]) << row[0];
    EXPECT_EQ(Meta(rule, "action"), row[4]) << row[0];
    EXPECT_EQ(Meta(rule, "orig_action"), row[5]) << row[0];
  }
  EXPECT_EQ(Meta(rules.at("Latin"), "author"), "Andr\xC3\xA9");
}

TEST_F(AdoptTest, LeavesOutARuleThatCountsADisabledOne) {
  Write("a.yar",
        "rule Off_1 { meta: action = \"disable\" condition: true }\nrule Off_2 { condition: true }\n"
        "rule Counts { condition: any of (Off_*) }\nrule Asks { condition: Off_1 or Off_2 }\n"
        "rule Needs { condition: Counts }\n");
  Adopted();
  EXPECT_EQ(Names(Rules()), "Asks Off_1 Off_2");
  EXPECT_EQ(Decisions("broken"), Strings{"Counts: it counts the disabled rule Off_1 in a rule set"});
}

TEST_F(AdoptTest, NamesSlowAndGlobalRulesFirst) {
  Write("a.yar", "rule Fine { condition: unknown }\nrule Slow { strings: $a = /.{1,5}/ condition: $a }\n");
  Write("b.yar", "global rule Everywhere { condition: true }\n");
  Adopted();
  const Strings lines = Lines(Read(folder_ / "report"));
  ASSERT_GE(lines.size(), 3U);
  EXPECT_TRUE(lines[0].starts_with(R"({"type":"problem","code":"slow-string","severity":"warning")")) << lines[0];
  EXPECT_NE(lines[0].find(R"("rule":"Slow")"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find(R"("code":"global-rule")"), std::string::npos) << lines[1];
  EXPECT_TRUE(lines.back().starts_with(R"({"type":"summary")")) << lines.back();
}

TEST_F(AdoptTest, JsonLinesTellOfEveryDecision) {
  Write("a.yar", "rule One { condition: true }\nrule One { condition: false }\n");
  const ChildResult result = Adopt({"--format", "jsonl"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, Read(folder_ / "report"));
  EXPECT_EQ(Lines(result.out).back().substr(0, 18), R"({"type":"summary",)");
  EXPECT_NE(result.out.find(R"("rules_found":2,"rules_kept":2,"actions":{"inform":2})"), std::string::npos)
      << result.out;
}

struct FailureCase {
  const char* name;
  std::string source;
  Strings options;
  int status;
  std::string error;
};

TEST_F(AdoptTest, FailsWithoutTouchingTheOldFile) {
  const FailureCase cases[] = {
      {"nothing compiles", "rule One { condition: nothing }", {}, 3, "no rule is left to adopt"},
      {"no such action", "rule One { condition: true }", {"--default-action", "kill"}, 64, "\"kill\" is not an action"},
      {"a case without an action", "", {"--action-from", "score:>=5"}, 64, "\"5\" is not an action"},
      {"an order of text", "", {"--action-from", "score:>=x=block"}, 64, "is not an integer"},
      {"a mapping without a key", "", {"--action-from", ">=5=block"}, 64, "is not KEY:CASE,CASE..."},
      {"a definition without a value", "", {"--define", "filename"}, 64, "is not NAME=VALUE"},
      {"an output that is an input", "", {"-o", "a.yar"}, 64, "is one of the rule files"},
      {"a folder that does not exist", "rule One { condition: true }", {"-o", "nowhere/out"}, 2, "nothing was written"},
  };
  for (const FailureCase& row : cases) {
    Write("a.yar", row.source.empty() ? "rule One { condition: true }" : row.source);
    std::ofstream(Output()) << "old";
    Strings arguments{VONDCTL_PATH, "adopt", Set()};
    const auto output = std::find(row.options.begin(), row.options.end(), "-o");
    if (output == row.options.end()) {
      arguments.insert(arguments.end(), {"-o", Output()});
      arguments.insert(arguments.end(), row.options.begin(), row.options.end());
    } else {
      arguments.insert(arguments.end(), {"-o", Set() / *std::next(output)});
    }
    const std::string before = Read(Set() / "a.yar");
    const ChildResult result = RunChild(arguments);
    EXPECT_EQ(result.exit_status, row.status) << row.name << ": " << result.err;
    EXPECT_NE(result.err.find(row.error), std::string::npos) << row.name << ": " << result.err;
    EXPECT_EQ(Read(Output()), "old") << row.name;
    EXPECT_EQ(Read(Set() / "a.yar"), before) << row.name;
    EXPECT_EQ(std::distance(fs::directory_iterator(folder_), {}), 2) << row.name;
  }
}

TEST_F(AdoptTest, SaysWhichIncludesAreMissing) {
  Write("a.yar", "include \"gone.yar\"\nrule One { condition: true }\nrule Two { condition: FromGone }\n");
  Adopted({}, 1);
  EXPECT_EQ(Names(Rules()), "One");
  EXPECT_NE(Read(folder_ / "report").find(R"("code":"include","severity":"error")"), std::string::npos);
}

TEST_F(AdoptTest, AThousandBrokenRulesTakeAFewCompilations) {
  std::string source;
  for (int i = 0; i < 4000; ++i) {
    source += "rule R" + std::to_string(i) + " { strings: $a = \"text " + std::to_string(i) + "\" condition: $a" +
              (i % 4 == 0   ? " and external_" + std::to_string(i)
               : i % 4 == 1 ? " and R" + std::to_string(i - 1)
                            : "") +
              " }\n";
  }
  Write("a.yar", source);
  Adopted();
  EXPECT_EQ(Rules().size(), 2000U);
  EXPECT_EQ(Decisions("broken").size(), 1000U);
  EXPECT_EQ(Decisions("dependent").size(), 1000U);
}

}  // namespace
}  // namespace vond::test
