#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "utils/managed_fd.h"

namespace vond::fuzz {

/// Ends the process, as a finding, unless `holds`. `property` says what should hold.
void Require(bool holds, const char* property);

/// Once, before the first input: no log, the cryptographic library, and scans guarded as they are in the daemon, so
/// that a fault inside libyara reaches the sanitizer's handler instead of libyara's own. Later calls do nothing.
void SetUp();

/// A memfd that holds `content`, its position at the end. Ends the process when there is none to be had.
[[nodiscard]] auto_resources::ManagedFD MakeFile(std::string_view content);

/// What an input is made of, piece by piece. An exhausted input gives zeros and empty pieces.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  [[nodiscard]] bool IsEmpty() const { return rest_.empty(); }
  std::string_view Take(std::size_t size);
  std::uint8_t TakeByte();
  /// A size of one byte, then as many bytes. 255 stands for everything that is left.
  std::string_view TakeSized();
  std::string_view TakeRest() { return Take(rest_.size()); }

 private:
  std::string_view rest_;
};

}  // namespace vond::fuzz

/// Every target's entry. Defined once in each program.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
