// The lexer of YARA source: what it makes of single tokens, and that its list of rules is the compiler's own.
#include "yara/yara_source/yara_source.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/support/rule_listing.h"
#include "tests/support/test_support.h"

namespace vond::yara_source {
namespace {

namespace fs = std::filesystem;

const char* KindName(TokenKind kind) {
  switch (kind) {
    case TokenKind::kIdentifier:
      return "word";
    case TokenKind::kStringIdentifier:
      return "string";
    case TokenKind::kNumber:
      return "number";
    case TokenKind::kText:
      return "text";
    case TokenKind::kHexString:
      return "hex";
    case TokenKind::kRegex:
      return "regex";
    case TokenKind::kPunctuation:
      return "punct";
    case TokenKind::kComment:
      return "comment";
    case TokenKind::kError:
      return "error";
  }
  return "?";
}

// Each token as kind<text>.
std::string Tokens(const std::string& source) {
  std::string result;
  for (const Token& token : Tokenize(source)) {
    result += std::string(result.empty() ? "" : " ") + KindName(token.kind) + "<" +
              source.substr(token.range.begin, token.range.Size()) + ">";
  }
  return result;
}

struct TokenCase {
  const char* name;
  std::string source;
  std::string tokens;
};

TEST(YaraSource, SplitsSourceIntoTokens) {
  const TokenCase cases[] = {
      {"nothing", "", ""},
      {"white space", " \t\r\n", ""},
      {"escapes in text", R"("a\"b\\" "\x22" "\\")", R"(text<"a\"b\\"> text<"\x22"> text<"\\">)"},
      {"comment in text", R"("// /* {")", R"(text<"// /* {">)"},
      {"text without an end", "\"abc\ndef", "error<\"abc> word<def>"},
      {"text that ends in a backslash", "\"abc\\", "error<\"abc\\>"},
      {"a backslash does not hide the end of a line", "\"abc\\\nx", "error<\"abc\\> word<x>"},
      {"hex string", "= { 4D 5A [2-4] (?A | ~B) }", "punct<=> hex<{ 4D 5A [2-4] (?A | ~B) }>"},
      {"comments in a hex string", "{ 41 /* } */ 42 // }\n 43 }x", "hex<{ 41 /* } */ 42 // }\n 43 }> word<x>"},
      {"hex string that ends in a line comment", "{ 41 // 42 } 43\n condition",
       "hex<{ 41 // 42 }> number<43> word<condition>"},
      {"brace of a rule", "{ condition: true }", "punct<{> word<condition> punct<:> word<true> punct<}>"},
      {"brace of a rule before a comment", "{ /* } */ condition", "punct<{> comment</* } */> word<condition>"},
      {"empty braces", "{}", "punct<{> punct<}>"},
      {"regular expression", R"(/a\/b[{"]/is nocase)", R"(regex</a\/b[{"]/is> word<nocase>)"},
      {"modifiers of a regular expression end", "/a/si", "regex</a/s> word<i>"},
      {"a regular expression ends with its line", "/a\n/b/", "error</a> regex</b/>"},
      {"division", "#a \\ 2", "string<#a> punct<\\> number<2>"},
      {"comments", "// a\n/* b\n* */c/**/", "comment<// a> comment</* b\n* */> word<c> comment</**/>"},
      {"comment without an end", "a /* b", "word<a> error</* b>"},
      {"comment that only seems to end", "/*/ a", "error</*/ a>"},
      {"numbers", "10KB 1MB 0x1Fg 0o17 1.5 3..4 1KX 0x",
       "number<10KB> number<1MB> number<0x1F> word<g> number<0o17> number<1.5> number<3> punct<..> number<4> number<1> "
       "word<KX> number<0> word<x>"},
      {"identifiers of strings", "$a* $ #b @c[1] !d != !",
       "string<$a*> string<$> string<#b> string<@c> punct<[> number<1> punct<]> string<!d> punct<!=> string<!>"},
      {"operators", "a<=b<<c..d>=e==f",
       "word<a> punct<<=> word<b> punct<<<> word<c> punct<..> word<d> punct<>=> "
       "word<e> punct<==> word<f>"},
      {"modifiers with arguments", "xor(0x01-0xff) base64(\"!@#\")",
       "word<xor> punct<(> number<0x01> punct<-> number<0xff> punct<)> word<base64> punct<(> text<\"!@#\"> punct<)>"},
      {"path of an include", "include \"..\\a\" include \"b\nc\"d include\t\"e\nrule",
       "word<include> text<\"..\\a\"> word<include> text<\"b\nc\"> word<d> word<include> error<\"e\nrule>"},
      {"mark of UTF-8", "\xEF\xBB\xBFrule", "error<\xEF\xBB\xBF> word<rule>"},
      {"bytes of no token", "a \xC3\xA4\x01 b", "word<a> error<\xC3\xA4\x01> word<b>"},
      {"carriage returns", "a\r\n// b\r\nc", "word<a> comment<// b\r> word<c>"},
  };
  for (const TokenCase& row : cases) {
    EXPECT_EQ(Tokens(row.source), row.tokens) << row.name;
  }
  EXPECT_EQ(Tokens(std::string("a\0b", 3)), std::string("word<a> error<\0> word<b>", 24));
}

TEST(YaraSource, CountsLinesThroughEveryToken) {
  const std::string source = "a\n/*\n\n*/ b\n{ 41\n42 }\nc // d\ne";
  std::vector<long> lines;
  for (const Token& token : Tokenize(source)) {
    lines.push_back(token.line);
  }
  EXPECT_EQ(lines, (std::vector<long>{1, 2, 4, 5, 7, 7, 8}));
}

// "name" for a reference, "name*" for a prefix, then the modules.
std::string References(const std::string& condition) {
  const SourceIndex index = ParseSource("rule r { condition: " + condition + " }");
  if (index.rules.size() != 1 || !index.errors.empty()) {
    return "not one rule";
  }
  std::string result;
  for (const RuleReference& reference : index.rules[0].references) {
    result += reference.name + (reference.is_prefix ? "* " : " ");
  }
  result += "|";
  for (const std::string& module : index.rules[0].modules) {
    result += " " + module;
  }
  return result;
}

TEST(YaraSource, FindsTheNamesThatMayBeRules) {
  const std::vector<std::vector<std::string>> cases = {
      {"A and not B or (C)", "A B C |"},
      {"any of (A*, B , Cd *)", "A* B Cd* |"},
      {"2 of ($a*, $b) and A", "A |"},
      {"pe.is_pe and pe.exports(\"x\") and A and elf.type", "A | pe elf"},
      {"pe.sections[i].name == X", "i X | pe"},
      {"for any i in (1..#a) : ( @a[i] < Limit ) and i", "Limit i |"},
      {"for all k, v in pe.version_info : ( k == Key and v.x == v )", "Key | pe"},
      {"for any s in pe.sections : ( for any t in (1, 2) : ( s.size == t ) and t ) and s", "t s | pe"},
      {"for any of them : ( $ at A ) and for N of ($a) : ( $ )", "A N |"},
      {"for n i in (1..2) : ( i == n )", "n n |"},
      {"$a in (0..100) and #a in (0..Max) == 2", "Max |"},
      {"any of them in (Low..filesize)", "Low |"},
      {"uint16be(0) == 0x4D5A and defined A and \"x\" icontains B", "A B |"},
      {"function(A) and array[B]", "A B |"},
      {"text matches /A or B/i and C \\ 2 == 1", "text C |"},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(References(row[0]), row[1]) << row[0];
  }
}

TEST(YaraSource, KnowsWhereThePartsOfARuleStand) {
  const std::string source =
      "import \"pe\" // x\ninclude \"a\\b.yar\"\n/* l */ private global rule First : one two {\n"
      "  meta: a = \"x\\\"\\x41\\t\" a = -5 b = true c = 2KB d = 0x10\n  strings: $s = { 7B } private\n"
      "  condition: $s }\nrule Second{condition:true}";
  const auto text = [&](Range range) { return source.substr(range.begin, range.Size()); };
  const SourceIndex index = ParseSource(source);
  ASSERT_TRUE(index.errors.empty()) << index.errors[0].message;
  ASSERT_EQ(index.rules.size(), 2U);
  const RuleText& first = index.rules[0];
  EXPECT_EQ(test::ListingByIndex(index),
            "import pe\nprivate global rule First: one two a=\"x\\\"A\\t\" a=-5 b=true c=2048 d=16\nrule Second:\n");
  EXPECT_TRUE(text(first.whole).starts_with("private global rule First"));
  EXPECT_TRUE(text(first.whole).ends_with("condition: $s }"));
  EXPECT_EQ(text(first.name_range), "First");
  EXPECT_TRUE(source.substr(first.body_begin).starts_with("\n  meta:"));
  EXPECT_TRUE(source.substr(first.meta_begin).starts_with(" a = \"x"));
  EXPECT_EQ(text(first.meta[1].key_range), "a");
  EXPECT_EQ(text(first.meta[1].value_range), "-5");
  EXPECT_EQ(first.line, 3);
  EXPECT_EQ(first.meta[0].line, 4);
  EXPECT_EQ(index.rules[1].line, 7);
  EXPECT_EQ(index.rules[1].meta_begin, 0U);
  ASSERT_EQ(index.includes.size(), 1U);
  EXPECT_EQ(index.includes[0].text, "a\\b.yar");
  EXPECT_EQ(text(index.includes[0].range), "include \"a\\b.yar\"");
  EXPECT_EQ(text(index.imports[0].range), "import \"pe\"");
}

TEST(YaraSource, GoesOnBehindAnError) {
  struct Case {
    std::string source;
    std::string names;
    std::string error;  // line and text of the first
  };
  const Case cases[] = {
      {"rule a { condition: true rule b { condition: true }", "a b ", "1: rule \"a\" has no closing brace"},
      {"rule a { condition: true\nprivate rule b : t { condition: true }", "a b ",
       "2: rule \"a\" has no closing brace"},
      {"rule a { condition: { true }", "a ", "1: rule \"a\" has no closing brace"},
      {"rule { }\nrule b { condition: true }", "b ", "1: expected the name of a rule"},
      {"rule a\nimport \"pe\" rule b { condition: true }", "b ", "2: expected \"{\" behind the rule's name"},
      {"x y z\nrule b { condition: true }", "b ", "1: expected a rule, \"import\" or \"include\""},
      {"rule a { meta: x = 1.5 condition: true } rule b { condition: true }", "a b ", "1: not a 64-bit integer"},
      {"rule a { meta: x = $a condition: true } rule b { condition: true }", "a b ",
       "1: expected text, an integer, true or false"},
      {"rule a { strings:\n $a = \"x\n condition: $a } rule b { condition: true }", "a b ",
       "2: text without a closing quote"},
      {"private private", "", "1: expected \"rule\""},
      {"import pe rule a { condition: true }", "a ", "1: expected a quoted name"},
      {"rule a { condition: true }\ninclude \"b\nrule c { condition: true }", "a ", "2: text without a closing quote"},
      {"\xEF\xBB\xBFrule a { condition: true }", "a ", "1: byte that no token begins with"},
  };
  for (const Case& row : cases) {
    const SourceIndex index = ParseSource(row.source);
    std::string names;
    for (const RuleText& rule : index.rules) {
      names += rule.name + " ";
    }
    EXPECT_EQ(names, row.names) << row.source;
    ASSERT_FALSE(index.errors.empty()) << row.source;
    EXPECT_EQ(std::to_string(index.errors[0].line) + ": " + index.errors[0].message, row.error) << row.source;
  }
}

TEST(YaraSource, FindsWhatTheCompilerLetsGoOnToTheEnd) {
  const struct {
    std::string source;
    std::size_t begin;  // npos: nothing
    long line;
  } cases[] = {
      {"", std::string::npos, 0},
      {"rule A { condition: true }\n/* end */\n", std::string::npos, 0},
      {"rule A { condition: true }\n  /* no end\n", 29, 2},
      {"/*/", 0, 1},
      {"/**/ /* /* */", std::string::npos, 0},
      {"/* */ /* /*", 6, 1},
      {"*\n/*", 2, 2},
      {"// /*", std::string::npos, 0},
      {"\"/*", 0, 1},
      {"\"/*\n", std::string::npos, 0},  // ends with its line, which the compiler says
      {"$a = \"/*\" ", std::string::npos, 0},
      {"$a = /\\/*", 5, 1},
      {"$a = /a/ = 1 / 2\n", std::string::npos, 0},
      {"{ /* */ 41 /* }", 11, 1},
      {"\ninclude \"a\n/*", 1, 2},
      {"include \"a\"", std::string::npos, 0},
      {"include \"a\" include\t\"", 12, 1},
      {"include\n\"a", 8, 2},  // no include to the compiler
      {"include\"a", 7, 1},
      {"included \"", 9, 1},
      {"a \x80", std::string::npos, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.source);
    const std::optional<OpenEnd> open_end = FindOpenEnd(c.source);
    EXPECT_EQ(open_end ? open_end->begin : std::string::npos, c.begin);
    EXPECT_EQ(open_end ? open_end->line : 0, c.line);
    EXPECT_FALSE(FindOpenEnd(c.source.substr(0, c.begin)));
  }
}

#ifndef VOND_SANITIZED  // which take their own time
TEST(YaraSource, HostileSourceTakesNoLongerThanItsSizeAllows) {
  for (const char* piece : {"{//",
                            "{//\n",
                            "{// /*\n",
                            "{//}\n",
                            "{//}{//a ",
                            "{/*",
                            "{ 41 ",
                            "/*",
                            "/",
                            "\"",
                            "\"\\",
                            "((",
                            "rule a {",
                            "private ",
                            "private rule a:",
                            "for any i in (",
                            "for a,",
                            "a,",
                            "in ",
                            "for any i in x : (",
                            "$a",
                            "..",
                            "\xEF",
                            "rule a { meta: a = ",
                            "import ",
                            "0x"}) {
    for (const char* end : {"", "}", "*/ }", "\n"}) {
      std::string source = "rule a { condition: ";
      while (source.size() < 500'000) {
        source += piece;
      }
      source += end;
      const auto begin = std::chrono::steady_clock::now();
      static_cast<void>(ParseSource(source));
      EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5)) << piece << " " << end;
    }
  }
}
#endif

TEST(YaraSource, EditsApplyToTheOriginal) {
  Edits edits;
  EXPECT_TRUE(edits.Empty());
  edits.Replace({6, 7}, "three");
  edits.Insert(0, "[");
  edits.Replace({0, 3}, "1");
  edits.Insert(7, "]");
  edits.Insert(0, "(");
  edits.Replace({3, 4}, "");
  EXPECT_EQ(edits.Apply("one 2 3"), "[(12 three]");
  EXPECT_EQ(Edits().Apply("same"), "same");
}

TEST(YaraSource, QuotedTextReadsBackAsItWas) {
  std::string text;
  for (int byte = 1; byte < 256; ++byte) {
    text += static_cast<char>(byte);
  }
  const std::string source = "rule a { meta: x = " + QuoteText(text) + " condition: true }";
  EXPECT_EQ(std::get<std::string>(ParseSource(source).rules.at(0).meta.at(0).value), text);
  EXPECT_EQ(test::ListingByCompiler(source), test::ListingByIndex(ParseSource(source)));
}

// The rules in the tree and, if VOND_RULES names a folder, all below it.
TEST(YaraSource, ListsTheRulesThatTheCompilerLists) {
  std::vector<fs::path> folders{fs::path(VOND_SOURCE_DIR) / "examples/rules",
                                fs::path(VOND_SOURCE_DIR) / "fuzz/corpus"};
  if (const char* folder = std::getenv("VOND_RULES")) {
    folders.emplace_back(folder);
  }
  std::size_t compiled = 0;
  std::size_t rules = 0;
  for (const fs::path& folder : folders) {
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
      const std::string extension = entry.path().extension();
      if (!entry.is_regular_file() || (extension != ".yar" && extension != ".yara")) {
        continue;
      }
      std::ifstream file(entry.path(), std::ios::binary);
      const std::string source(std::istreambuf_iterator<char>(file), {});
      const auto listing = test::ListingByCompiler(source);
      if (!listing) {
        continue;
      }
      const SourceIndex index = ParseSource(source);
      EXPECT_EQ(test::ListingByIndex(index), *listing) << entry.path();
      EXPECT_TRUE(index.errors.empty()) << entry.path() << " line " << index.errors[0].line;
      ++compiled;
      rules += index.rules.size();
    }
  }
  RecordProperty("rules", static_cast<int>(rules));
  EXPECT_GT(compiled, 10U);
  std::cout << compiled << " sources with " << rules << " rules\n";
}

}  // namespace
}  // namespace vond::yara_source
