#include "agent/rule_packer.h"

#include <Poco/Crypto/Cipher.h>
#include <Poco/Crypto/CipherFactory.h>
#include <Poco/Crypto/CipherKey.h>
#include <Poco/Crypto/CryptoStream.h>
#include <Poco/Crypto/OpenSSLInitializer.h>
#include <Poco/DeflatingStream.h>

#include <ios>
#include <sstream>
#include <string_view>

#include "utils/rule_set_file.h"

namespace vond::agent {
namespace {

// The gzip stream of nothing (RFC 1952), for which POCO's deflating stream writes nothing at all.
constexpr std::string_view kEmptyGzip("\x1f\x8b\x08\0\0\0\0\0\0\x03\x03\0\0\0\0\0\0\0\0\0", 20);

}  // namespace

std::string PackRuleSet(const std::string& source) {
  // POCO sets OpenSSL up with its first cipher and takes it down with the last one, and two threads may meet between.
  static const Poco::Crypto::OpenSSLInitializer kept_up;
  constexpr std::string_view kKey = korvo::utils::kPackedRuleSetKey;
  const Poco::Crypto::CipherKey::ByteVec key(kKey.begin(), kKey.end());
  const Poco::Crypto::CipherKey::ByteVec no_iv;
  Poco::Crypto::Cipher::Ptr cipher = Poco::Crypto::CipherFactory::defaultFactory().createCipher(
      Poco::Crypto::CipherKey(korvo::utils::kPackedRuleSetCipher, key, no_iv));

  // A stream swallows what the one below it throws unless asked not to.
  constexpr auto kAllFailures = std::ios::badbit | std::ios::failbit;
  std::ostringstream packed;
  packed.exceptions(kAllFailures);
  packed << korvo::utils::kPackedRuleSetMark;
  Poco::Crypto::EncryptingOutputStream encrypting(packed, *cipher);
  encrypting.exceptions(kAllFailures);
  if (source.empty()) {
    encrypting << kEmptyGzip;
  } else {
    Poco::DeflatingOutputStream deflating(encrypting, Poco::DeflatingStreamBuf::STREAM_GZIP);
    deflating.exceptions(kAllFailures);
    deflating.write(source.data(), static_cast<std::streamsize>(source.size()));
    deflating.close();
  }
  encrypting.close();
  return std::move(packed).str();
}

}  // namespace vond::agent
