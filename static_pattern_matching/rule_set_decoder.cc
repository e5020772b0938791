#include "static_pattern_matching/rule_set_decoder.h"

#include <Poco/Crypto/Cipher.h>
#include <Poco/Crypto/CipherFactory.h>
#include <Poco/Crypto/CipherKey.h>
#include <Poco/Crypto/CryptoStream.h>
#include <Poco/InflatingStream.h>
#include <Poco/StreamCopier.h>
#include <zlib.h>

#include <array>
#include <istream>
#include <sstream>
#include <stdexcept>
#include <streambuf>

#include "utils/rule_set_file.h"

namespace korvo::static_pattern_matching_daemon {
namespace {

constexpr std::size_t kBufferSize = 8192;

/// Passes a gzip stream on and checks on the way that it is exactly one whole member (RFC 1952): the inflating stream
/// behind it neither looks at the checksum and length at the member's end, nor misses them, nor minds what follows.
/// Inflates once more for that, into nowhere; small beside compiling the text.
class GzipMemberCheck : public std::streambuf {
 public:
  GzipMemberCheck(std::istream& source, std::size_t max_text) : source_(source), max_text_(max_text) {
    if (::inflateInit2(&inflater_, kGzipOnly) != Z_OK) {
      throw std::bad_alloc();
    }
  }
  ~GzipMemberCheck() override { ::inflateEnd(&inflater_); }
  GzipMemberCheck(const GzipMemberCheck&) = delete;
  GzipMemberCheck& operator=(const GzipMemberCheck&) = delete;

  /// Reads the source to its end and throws unless it was one whole member.
  void Finish() {
    while (Fill()) {
    }
    if (!ended_) {
      throw std::runtime_error("Rule-set file is damaged: its compressed text ends too early");
    }
  }

 protected:
  int_type underflow() override { return Fill() ? traits_type::to_int_type(*gptr()) : traits_type::eof(); }

 private:
  static constexpr int kGzipOnly = 15 + 16;  // largest window, gzip header and trailer

  bool Fill() {
    if (!source_.good()) {
      return false;
    }
    source_.read(buffer_.data(), static_cast<std::streamsize>(buffer_.size()));
    const std::streamsize count = source_.gcount();
    if (count <= 0) {
      return false;
    }
    Check(static_cast<std::size_t>(count));
    setg(buffer_.data(), buffer_.data(), buffer_.data() + count);
    return true;
  }

  void Check(std::size_t count) {
    inflater_.next_in = reinterpret_cast<Bytef*>(buffer_.data());
    inflater_.avail_in = static_cast<uInt>(count);
    while (!ended_ && (inflater_.avail_in > 0 || inflater_.avail_out == 0)) {
      inflater_.next_out = scratch_.data();
      inflater_.avail_out = static_cast<uInt>(scratch_.size());
      const int result = ::inflate(&inflater_, Z_NO_FLUSH);
      if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) {
        throw std::runtime_error("Rule-set file is damaged: its compressed text is not valid");
      }
      if (inflater_.total_out > max_text_) {
        throw std::runtime_error("Rule-set file holds more than " + std::to_string(max_text_) + " bytes of text");
      }
      ended_ = result == Z_STREAM_END;
    }
    if (inflater_.avail_in > 0) {
      throw std::runtime_error("Rule-set file is damaged: something follows its compressed text");
    }
  }

  std::istream& source_;
  const std::size_t max_text_;
  z_stream inflater_{};
  bool ended_ = false;
  std::array<char, kBufferSize> buffer_{};
  std::array<Bytef, 4 * kBufferSize> scratch_{};
};

}  // namespace

std::string DecodeRuleSet(std::string content, std::size_t max_text) {
  constexpr std::string_view kMark = korvo::utils::kPackedRuleSetMark;
  if (!content.starts_with(kMark)) {
    return content;
  }
  content.erase(0, kMark.size());

  Poco::Crypto::Cipher::Ptr cipher = [] {
    constexpr std::string_view kKey = korvo::utils::kPackedRuleSetKey;
    const Poco::Crypto::CipherKey::ByteVec key(kKey.begin(), kKey.end());
    const Poco::Crypto::CipherKey::ByteVec no_iv;
    return Poco::Crypto::CipherFactory::defaultFactory().createCipher(
        Poco::Crypto::CipherKey(korvo::utils::kPackedRuleSetCipher, key, no_iv));
  }();
  if (cipher.isNull()) {
    throw std::runtime_error("Couldn't create cipher for decryption");
  }

  std::istringstream encrypted(std::move(content));
  std::string text;
  {
    // Without badbit in the exception mask each stream would swallow what the one below throws and just end.
    Poco::Crypto::DecryptingInputStream decrypting(encrypted, *cipher, kBufferSize);
    decrypting.exceptions(std::ios::badbit);
    GzipMemberCheck check(decrypting, max_text);
    std::istream checked(&check);
    checked.exceptions(std::ios::badbit);
    Poco::InflatingInputStream inflating(checked, Poco::InflatingStreamBuf::STREAM_GZIP);
    inflating.exceptions(std::ios::badbit);
    Poco::StreamCopier::copyToString(inflating, text, kBufferSize);
    check.Finish();
  }
  return text;
}

}  // namespace korvo::static_pattern_matching_daemon
