// A rule-set file: bytes as they come, or packed by this harness and damaged on the way, so that what lies behind the
// cipher is reached. An input is: a byte of flags; two damages (see Damage) if flagged; the rest.

#include <Poco/Crypto/Cipher.h>
#include <Poco/Crypto/CipherFactory.h>
#include <Poco/Crypto/CipherKey.h>
#include <Poco/Exception.h>
#include <zlib.h>

#include <optional>
#include <string>

#include "fuzz/fuzz_support.h"
#include "static_pattern_matching/rule_set_decoder.h"
#include "tests/support/packed_rules.h"
#include "utils/rule_set_file.h"

namespace {

using korvo::utils::kPackedRuleSetMark;
using vond::fuzz::Input;
using vond::fuzz::Require;

constexpr std::size_t kMaxText = 65536;
enum Flag : unsigned { kCompress = 1, kEncrypt = 2, kDamagePlain = 4, kDamageFile = 8 };

// The text of what is exactly one gzip member of at most kMaxText bytes of text, in one call.
std::optional<std::string> Gunzip(std::string packed) {
  z_stream stream{};
  std::string text(kMaxText + 1, '\0');
  Require(::inflateInit2(&stream, 15 + 16) == Z_OK, "inflate");
  stream.next_in = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_in = static_cast<uInt>(packed.size());
  stream.next_out = reinterpret_cast<Bytef*>(text.data());
  stream.avail_out = static_cast<uInt>(text.size());
  const bool whole = ::inflate(&stream, Z_FINISH) == Z_STREAM_END && stream.avail_in == 0;
  text.resize(stream.total_out);
  ::inflateEnd(&stream);
  return whole && text.size() <= kMaxText ? std::optional(text) : std::nullopt;
}

// What a file stands for, if it is whole.
std::optional<std::string> Expected(const std::string& file) {
  if (!file.starts_with(kPackedRuleSetMark)) {
    return file;
  }
  const std::string_view key = korvo::utils::kPackedRuleSetKey;
  using ByteVec = Poco::Crypto::CipherKey::ByteVec;
  const Poco::Crypto::CipherKey cipher_key(korvo::utils::kPackedRuleSetCipher, ByteVec(key.begin(), key.end()), {});
  try {
    Poco::Crypto::Cipher::Ptr cipher = Poco::Crypto::CipherFactory::defaultFactory().createCipher(cipher_key);
    return Gunzip(cipher->decryptString(file.substr(kPackedRuleSetMark.size())));
  } catch (const Poco::Exception&) {
    return std::nullopt;
  }
}

// A damage is three bytes: what to do, and where (modulo the size).
void Damage(Input& input, std::string& bytes) {
  const unsigned kind = input.TakeByte();
  const std::size_t where = (input.TakeByte() + 256U * (kind / 32)) % (bytes.size() + 1);
  const char byte = static_cast<char>(input.TakeByte());
  switch (kind % 4) {
    case 0:
      bytes.resize(where);
      break;
    case 1:
      bytes.insert(where, 1, byte);
      break;
    case 2:
      bytes += bytes.substr(where);
      break;
    default:
      if (where < bytes.size()) {
        bytes[where] = static_cast<char>(bytes[where] ^ byte);
      }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vond::fuzz::SetUp();
  Input input(data, size);
  const unsigned flags = input.TakeByte();
  const std::string_view six = input.Take((flags & (kDamagePlain | kDamageFile)) != 0 ? 6 : 0);
  Input damages(reinterpret_cast<const std::uint8_t*>(six.data()), six.size());
  const std::string text(input.TakeRest());

  std::string file = (flags & kCompress) != 0 ? vond::test::Gzip(text) : text;
  if ((flags & kDamagePlain) != 0) {
    Damage(damages, file);
  }
  if ((flags & kEncrypt) != 0) {
    file = vond::test::Encrypt(file);
  }
  if ((flags & kDamageFile) != 0) {
    Damage(damages, file);
  }

  std::optional<std::string> decoded;
  try {
    decoded = korvo::static_pattern_matching_daemon::DecodeRuleSet(file, kMaxText);
  } catch (const std::exception&) {
  }
  Require(decoded == Expected(file), "a whole file gives its text, any other none");
  const bool packed = (flags & kCompress) != 0 && file.starts_with(kPackedRuleSetMark);
  Require(!packed || !decoded || *decoded == text, "nothing comes out but what was packed");
  return 0;
}
