// YARA source as people write it, and as they don't. An input is the source. What the compiler takes must be listed as
// the compiler lists it; whatever the input, each of its bytes is in one token or white space, and the ranges of the
// index lie where they say.

#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "tests/support/rule_listing.h"
#include "yara/yara_source/yara_source.h"

namespace {

using vond::fuzz::Require;
using vond::yara_source::Edits;
using vond::yara_source::ParseSource;
using vond::yara_source::Range;
using vond::yara_source::RuleReference;
using vond::yara_source::RuleText;
using vond::yara_source::SourceIndex;
using vond::yara_source::Token;
using vond::yara_source::Tokenize;

void CheckTokens(const std::string& source) {
  std::size_t end = 0;
  long line = 1;
  const auto pass = [&](std::size_t to, bool white_space) {
    for (; end < to; ++end) {
      Require(!white_space || std::string_view(" \t\r\n").find(source[end]) != std::string_view::npos,
              "between tokens is white space");
      line += source[end] == '\n' ? 1 : 0;
    }
  };
  for (const Token& token : Tokenize(source)) {
    Require(token.range.begin >= end && token.range.Size() > 0 && token.range.end <= source.size(),
            "tokens come in order and don't overlap");
    pass(token.range.begin, true);
    Require(token.line == line, "a token knows its line");
    pass(token.range.end, false);
  }
  pass(source.size(), true);
}

void CheckIndex(const std::string& source, const SourceIndex& index) {
  const auto text = [&](Range range) { return source.substr(range.begin, range.Size()); };
  std::size_t end = 0;
  Edits same;
  for (const RuleText& rule : index.rules) {
    Require(rule.whole.begin >= end && rule.whole.end <= source.size(), "rules come in order and don't overlap");
    end = rule.whole.end;
    Require(text(rule.name_range) == rule.name, "a rule's name stands where it is said to");
    Require(rule.name_range.end < rule.body_begin && rule.body_begin <= end, "the body is behind the name");
    for (const RuleReference& reference : rule.references) {
      Require(text(reference.range) == reference.name && reference.range.end <= end,
              "a reference stands where it is said to");
      same.Replace(reference.range, reference.name);
    }
    same.Insert(rule.body_begin, "");
  }
  Require(same.Apply(source) == source, "edits that change nothing give the source back");
}

// The compiler takes text that ends within a comment, string or regular expression as if that were not there, and what
// is joined behind it disappears or breaks: to be called an error all the same.
bool CarriesAnotherRule(const std::string& source) {
  const auto listing = vond::test::ListingByCompiler(source + "\nrule behind_the_rest { condition: true }\n");
  return listing && listing->find("behind_the_rest") != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vond::fuzz::SetUp();
  const std::string source(reinterpret_cast<const char*>(data), size);
  CheckTokens(source);
  const SourceIndex index = ParseSource(source);
  CheckIndex(source, index);
  if (const auto listing = vond::test::ListingByCompiler(source)) {
    Require(index.errors.empty() || !CarriesAnotherRule(source),
            "what compiles, also with a rule behind it, has no errors");
    Require(vond::test::ListingByIndex(index) == *listing, "the rules are those of the compiler");
  }
  return 0;
}
