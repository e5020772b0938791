// Packed rule-set files: what comes out of whole ones, and that nothing comes out of damaged ones.
#include "static_pattern_matching/rule_set_decoder.h"

#include <Poco/Crypto/Cipher.h>
#include <Poco/Crypto/CipherFactory.h>
#include <Poco/Crypto/CipherKey.h>
#include <zlib.h>

#include "tests/unit/engine_test.h"
#include "utils/rule_set_file.h"

namespace korvo::static_pattern_matching_daemon {
namespace {

std::string Gzip(std::string text, int level = Z_BEST_COMPRESSION) {
  z_stream stream{};
  EXPECT_EQ(::deflateInit2(&stream, level, Z_DEFLATED, 15 + 16, 9, Z_DEFAULT_STRATEGY), Z_OK);
  std::string packed(::deflateBound(&stream, text.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(text.data());
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  EXPECT_EQ(::deflate(&stream, Z_FINISH), Z_STREAM_END);
  packed.resize(stream.total_out);
  ::deflateEnd(&stream);
  return packed;
}

std::string Encrypt(const std::string& data, std::string_view key = korvo::utils::kPackedRuleSetKey) {
  using ByteVec = Poco::Crypto::CipherKey::ByteVec;
  const Poco::Crypto::CipherKey cipher_key("aes-128-ecb", ByteVec(key.begin(), key.end()), ByteVec());
  Poco::Crypto::Cipher::Ptr cipher = Poco::Crypto::CipherFactory::defaultFactory().createCipher(cipher_key);
  return "ENCY" + cipher->encryptString(data);
}

// What decoding `content` throws; the text it gives instead would be unexpected.
std::string Refusal(const std::string& content, const std::string& damage, std::size_t max_text = kMaxRuleSetText) {
  std::string text;
  std::string thrown = korvo::yara::yara_lib::Thrown([&] { text = DecodeRuleSet(content, max_text); });
  EXPECT_NE(thrown, "") << damage << " gave " << text.size() << " bytes: " << text.substr(0, 80);
  return thrown;
}

std::string Flip(std::string data, std::size_t at, int mask) {
  data[at] = static_cast<char>(data[at] ^ mask);
  return data;
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
    EXPECT_TRUE(DecodeRuleSet(Encrypt(Gzip(noise.substr(0, size))), size) == noise.substr(0, size)) << size;
  }
}

TEST(RuleSetDecoder, RefusesEveryDamage) {
  const std::string gzip = Gzip(kText);
  const std::string packed = Encrypt(gzip);
  EXPECT_EQ(DecodeRuleSet(packed), kText);
  for (std::size_t i = 4; i < packed.size(); ++i) {
    Refusal(packed.substr(0, i), "file cut to " + std::to_string(i));
    for (const int mask : {0x01, 0x80, 0xff}) {
      Refusal(Flip(packed, i, mask), "file flipped at " + std::to_string(i));
    }
  }
  for (std::size_t i = 0; i < gzip.size(); ++i) {
    Refusal(Encrypt(gzip.substr(0, i)), "gzip cut to " + std::to_string(i));
  }
  for (std::size_t i = 1; i <= 8; ++i) {
    Refusal(Encrypt(Flip(gzip, gzip.size() - i, 1)), "checksum or length flipped " + std::to_string(i));
  }
  for (const std::size_t count : {1U, 8U, 15U, 16U, 17U, 8192U}) {
    Refusal(packed + std::string(count, '\0'), "appended to the file");
    Refusal(Encrypt(gzip + std::string(count, '\0')), "appended to the gzip");
  }
  for (const std::string& second : {gzip, Gzip("")}) {
    Refusal(Encrypt(gzip + second), "second member");
    Refusal(Encrypt(Gzip("") + second), "second member after an empty one");
  }
  Refusal(packed + packed, "file twice");
  Refusal(Encrypt(gzip, "Xq4!Tz8#Lw2@Rv6&"), "other key");
  Refusal(Encrypt(kText), "not compressed");
  Refusal("ENCY" + gzip, "not encrypted");
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
