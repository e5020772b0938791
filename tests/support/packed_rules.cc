#include "tests/support/packed_rules.h"

#include <Poco/Crypto/Cipher.h>
#include <Poco/Crypto/CipherFactory.h>
#include <Poco/Crypto/CipherKey.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>

namespace vond::test {

std::string Gzip(std::string text, int level) {
  z_stream stream{};
  if (::deflateInit2(&stream, level, Z_DEFLATED, 15 + 16, 9, Z_DEFAULT_STRATEGY) != Z_OK) {
    throw std::runtime_error("deflateInit2 failed");
  }
  std::string packed(::deflateBound(&stream, text.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(text.data());
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  const int result = ::deflate(&stream, Z_FINISH);
  packed.resize(stream.total_out);
  ::deflateEnd(&stream);
  if (result != Z_STREAM_END) {
    throw std::runtime_error("deflate failed");
  }
  return packed;
}

std::string Encrypt(const std::string& data, std::string_view key) {
  using ByteVec = Poco::Crypto::CipherKey::ByteVec;
  const Poco::Crypto::CipherKey cipher_key("aes-128-ecb", ByteVec(key.begin(), key.end()), ByteVec());
  Poco::Crypto::Cipher::Ptr cipher = Poco::Crypto::CipherFactory::defaultFactory().createCipher(cipher_key);
  return "ENCY" + cipher->encryptString(data);
}

std::string Flip(std::string data, std::size_t at, int mask) {
  data[at] = static_cast<char>(data[at] ^ mask);
  return data;
}

std::vector<std::pair<std::string, std::string>> DamagedRuleSets() {
  std::vector<std::pair<std::string, std::string>> damaged;
  std::string text;
  for (const int rules : {1, 4, 40}) {
    for (int i = 0; i < rules; ++i) {
      text += "rule R" + std::to_string(rules) + "_" + std::to_string(i) + " { meta: id = \"" +
              std::to_string(i * 7919) + "\" action = \"block\" strings: $a = \"" + std::to_string(i * i * 104729) +
              "\" condition: $a }\n";
    }
    // Rules followed by comment lines: what is left of these is still good source.
    std::string comment;
    for (int i = 0; i < 40; ++i) {
      comment += "// " + std::to_string(std::int64_t{i} * i * 15485863 % 1000003) + "\n";
    }
    const std::string gzip = Gzip(text + comment);
    const std::string packed = Encrypt(gzip);
    const auto add = [&](const std::string& what, std::size_t at, std::string file) {
      damaged.emplace_back(std::to_string(rules) + " rules, " + what + " " + std::to_string(at), std::move(file));
    };
    const std::size_t step = std::max<std::size_t>(1, packed.size() / 200);
    for (std::size_t at = 4; at < packed.size(); at += at < 64 ? 1 : step) {
      for (const int mask : {0x01, 0x80, 0xff}) {
        add("flipped by " + std::to_string(mask) + " at", at, Flip(packed, at, mask));
      }
    }
    for (std::size_t cut = 1; cut <= 64; ++cut) {
      add("cut by", cut, packed.substr(0, packed.size() - cut));
      add("text cut before packing by", cut, Encrypt(gzip.substr(0, gzip.size() - cut)));
      add("bytes appended", cut, packed + std::string(cut, '\0'));
      add("bytes appended before packing", cut, Encrypt(gzip + std::string(cut, '\x1f')));
    }
    for (std::size_t at = 1; at <= 8; ++at) {
      add("checksum or length wrong, byte from the end", at, Encrypt(Flip(gzip, gzip.size() - at, 1)));
    }
    for (const std::string& second : {gzip, Gzip("")}) {
      add("second member of size", second.size(), Encrypt(gzip + second));
      add("after an empty member one of size", second.size(), Encrypt(Gzip("") + second));
    }
    add("twice, size", packed.size(), packed + packed);
    add("other key, size", packed.size(), Encrypt(gzip, "Xq4!Tz8#Lw2@Rv6&"));
    add("not compressed, size", text.size(), Encrypt(text));
    add("not encrypted, size", gzip.size(), "ENCY" + gzip);
  }
  damaged.emplace_back("only the mark", "ENCY");
  return damaged;
}

}  // namespace vond::test
