#include "yara/yara_lib/compiled_rules.h"

#include <zlib.h>

namespace korvo::yara::yara_lib {

bool CompiledRules::IsIntact() const { return data_ != nullptr && Checksum(*data_) == checksum_; }

std::uint32_t CompiledRules::Checksum(const Bytes& bytes) {
  return static_cast<std::uint32_t>(::crc32_z(0, bytes.data(), bytes.size()));
}

}  // namespace korvo::yara::yara_lib
