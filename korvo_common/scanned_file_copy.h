#pragma once

#include <sys/types.h>

#include <cstddef>

namespace korvo_common {

/// Files up to this size, in bytes, are copied for a scan instead of mapped.
inline constexpr std::size_t kMaxScannedFileCopy = std::size_t{256} << 10;

/// A small file's content in a buffer of the calling thread, in place of a mapping: reading 16 KB costs a fraction of
/// mapping, touching and unmapping them, does not interrupt the other processors, and nobody can cut short or rewrite
/// the copy under the scan. Beyond the limit the two cost the same. The buffer is the thread's until it ends, and each
/// copy replaces the one before.
///
/// Reads `length` bytes of `fd` from `offset`; behind them come zeros up to the end of the page, as in a mapping. Null,
/// with `errno` set, if the file can't be read, has become shorter (EIO), or there is no memory.
[[nodiscard]] void* CopyScannedFile(int fd, off_t offset, std::size_t length) noexcept;

/// Whether `address` is what CopyScannedFile last returned to the calling thread.
[[nodiscard]] bool IsScannedFileCopy(const void* address) noexcept;

}  // namespace korvo_common
