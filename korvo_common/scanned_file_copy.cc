#include "korvo_common/scanned_file_copy.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace korvo_common {
namespace {

constexpr std::size_t kPageSize = 4096;

struct Free {
  void operator()(char* memory) const noexcept { std::free(memory); }
};

thread_local std::unique_ptr<char, Free> buffer;

}  // namespace

void* CopyScannedFile(int fd, off_t offset, std::size_t length) noexcept {
  if (buffer == nullptr) {
    buffer.reset(static_cast<char*>(std::aligned_alloc(kPageSize, kMaxScannedFileCopy + kPageSize)));
    if (buffer == nullptr) {
      return nullptr;
    }
  }
  const ssize_t count = ::pread(fd, buffer.get(), length, offset);
  if (count != static_cast<ssize_t>(length)) {
    errno = count < 0 ? errno : EIO;
    return nullptr;
  }
  std::memset(buffer.get() + length, 0, (length + kPageSize - 1) / kPageSize * kPageSize - length);
  return buffer.get();
}

bool IsScannedFileCopy(const void* address) noexcept { return address != nullptr && address == buffer.get(); }

}  // namespace korvo_common
