#include "fuzz/fuzz_support.h"

#include <Poco/Crypto/Crypto.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <streambuf>

#include "korvo_common/scan_fault_guard.h"
#include "utils/log.h"

namespace vond::fuzz {
namespace {

// Takes everything and keeps nothing. A policy may raise the log level; composing the lines is then part of the target.
class NullBuffer : public std::streambuf {
 protected:
  std::streamsize xsputn(const char* /*text*/, std::streamsize count) override { return count; }
  int_type overflow(int_type c) override { return traits_type::not_eof(c); }
};

}  // namespace

void Require(bool holds, const char* property) {
  if (!holds) {
    std::cerr << "does not hold: " << property << '\n';
    std::abort();
  }
}

void SetUp() {
  static const bool done = [] {
    std::cout.rdbuf(new NullBuffer);  // never deleted: the stream is flushed after everything else has gone
    korvo::utils::SetLogLevel(0);
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    Poco::Crypto::initializeCrypto();
    korvo_common::ArmScanFaultGuard();
    return true;
  }();
  static_cast<void>(done);
}

auto_resources::ManagedFD MakeFile(std::string_view content) {
  auto_resources::ManagedFD fd(::memfd_create("fuzz", MFD_CLOEXEC));
  Require(fd.IsValid() && ::write(fd.Get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()),
          "a file in memory can be made");
  return fd;
}

std::string_view Input::Take(std::size_t size) {
  const std::string_view piece = rest_.substr(0, size);
  rest_.remove_prefix(piece.size());
  return piece;
}

std::uint8_t Input::TakeByte() {
  const std::string_view byte = Take(1);
  return byte.empty() ? 0 : static_cast<std::uint8_t>(byte.front());
}

std::string_view Input::TakeSized() {
  const std::size_t size = TakeByte();
  return size == 255 ? TakeRest() : Take(size);
}

}  // namespace vond::fuzz
