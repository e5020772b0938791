// Packed rule-set files: what comes out of whole ones, and that nothing comes out of damaged ones. The robustness
// tests put many more damaged ones through the daemon.
#include "static_pattern_matching/rule_set_decoder.h"

#include <zlib.h>

#include "agent/rule_packer.h"
#include "tests/support/packed_rules.h"
#include "tests/unit/engine_test.h"

namespace korvo::static_pattern_matching_daemon {
namespace {

using vond::test::Encrypt;
using vond::test::Flip;
using vond::test::Gzip;

// What decoding `content` throws; the text it gives instead would be unexpected.
std::string Refusal(const std::string& content, const std::string& damage, std::size_t max_text = kMaxRuleSetText) {
  std::string text;
  std::string thrown = korvo::yara::yara_lib::Thrown([&] { text = DecodeRuleSet(content, max_text); });
  EXPECT_NE(thrown, "") << damage << " gave " << text.size() << " bytes: " << text.substr(0, 80);
  return thrown;
}

const std::string kText = "rule Example { meta: id = \"1\" action = \"block\" strings: $a = \"x\" condition: $a }\n";

TEST(RuleSetDecoder, GivesWhatWasPackedOrPlain) {
  for (const std::string& text :
       {std::string(), std::string("E"), std::string("ENC"), "ency" + kText, " ENCY" + kText}) {
    EXPECT_EQ(DecodeRuleSet(text, 1), text);  // the ceiling is for packed text
  }
  std::string noise;
  for (unsigned i = 0; i < 1 << 20; ++i) {
    noise += static_cast<char>((i * i * 2654435761U) >> 13);
  }
  for (const std::size_t size : {0U, 1U, 15U, 16U, 17U, 8191U, 8192U, 8193U, 1U << 20}) {
    const std::string text = noise.substr(0, size);
    EXPECT_TRUE(DecodeRuleSet(Encrypt(Gzip(text)), size) == text) << size;
    EXPECT_TRUE(DecodeRuleSet(vond::agent::PackRuleSet(text), size) == text) << size;
  }
}

TEST(RuleSetDecoder, RefusesDamageAtTheEdgeOfItsBuffers) {
  for (std::size_t size = 8150; size < 8180; ++size) {  // stored, so that the end moves byte by byte over 8192
    const std::string text(size, 'a');
    const std::string gzip = Gzip(text, Z_NO_COMPRESSION);
    const std::string packed = Encrypt(gzip);
    EXPECT_TRUE(DecodeRuleSet(packed) == text) << size;
    Refusal(Flip(packed, packed.size() - 1, 1), "padding flipped, size " + std::to_string(size));
    Refusal(Encrypt(gzip.substr(0, gzip.size() - 1)), "cut, size " + std::to_string(size));
    Refusal(Encrypt(gzip + "x"), "appended, size " + std::to_string(size));
  }
}

TEST(RuleSetDecoder, RefusesTooMuchText) {
  Refusal(Encrypt(Gzip(kText)), "one byte too much", kText.size() - 1);
  const std::string bomb = Encrypt(Gzip(std::string(std::size_t{64} << 20, ' ')));
  EXPECT_LT(bomb.size(), 100'000U);
  EXPECT_EQ(Refusal(bomb, "bomb", 1 << 20), "Rule-set file holds more than 1048576 bytes of text");
}

}  // namespace
}  // namespace korvo::static_pattern_matching_daemon
