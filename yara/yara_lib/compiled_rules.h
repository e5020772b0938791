#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace korvo::yara::yara_lib {

/// libyara's saved-rules image in memory, with a checksum: libyara itself loads a cut image and crashes on its use.
/// Immutable; copies share the bytes. Default-constructed it holds none.
class CompiledRules {
 public:
  using Bytes = std::vector<std::uint8_t>;

  CompiledRules() = default;
  /// An image as it was saved, with the checksum of that moment.
  CompiledRules(std::shared_ptr<const Bytes> data, std::uint32_t checksum)
      : data_(std::move(data)), checksum_(checksum) {}

  /// Empty only for a default-constructed buffer.
  [[nodiscard]] const std::shared_ptr<const Bytes>& get_data_ptr() const noexcept { return data_; }
  [[nodiscard]] std::uint32_t GetChecksum() const noexcept { return checksum_; }
  /// Whether the bytes are those that were saved. False without bytes.
  [[nodiscard]] bool IsIntact() const;

  /// CRC-32 (that of gzip) of `bytes`.
  [[nodiscard]] static std::uint32_t Checksum(const Bytes& bytes);

 private:
  std::shared_ptr<const Bytes> data_;
  std::uint32_t checksum_ = 0;
};

}  // namespace korvo::yara::yara_lib
