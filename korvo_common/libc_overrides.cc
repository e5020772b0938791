// The executable's own sigaction(), mmap(), munmap() and madvise(), which the dynamic linker finds before libc's for
// every caller in the process, libyara included. See scan_fault_guard.h and scanned_file_copy.h for why.

#include "korvo_common/libc_overrides.h"

#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/types.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>

#include "korvo_common/scan_fault_guard.h"
#include "korvo_common/scanned_file_copy.h"

namespace {

using SigactionFunction = int (*)(int, const struct sigaction*, struct sigaction*);
using MmapFunction = void* (*)(void*, std::size_t, int, int, int, off_t);
using MunmapFunction = int (*)(void*, std::size_t);
using MadviseFunction = int (*)(void*, std::size_t, int);

// The next function of this name in the link order: libc's, or a sanitizer's. Not a function-local static, whose guard
// signal context must not take.
template <typename Function>
Function Next(std::atomic<Function>& cache, const char* name) {
  Function function = cache.load(std::memory_order_acquire);
  if (function == nullptr) {
    function = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
    cache.store(function, std::memory_order_release);
  }
  return function;
}

constinit std::atomic<SigactionFunction> next_sigaction{nullptr};
constinit std::atomic<MmapFunction> next_mmap{nullptr};
constinit std::atomic<MunmapFunction> next_munmap{nullptr};
constinit std::atomic<MadviseFunction> next_madvise{nullptr};

}  // namespace

void korvo_common::ResolveOverriddenFunctions() noexcept {
  static_cast<void>(Next(next_sigaction, "sigaction"));
  static_cast<void>(Next(next_mmap, "mmap"));
  static_cast<void>(Next(next_munmap, "munmap"));
  static_cast<void>(Next(next_madvise, "madvise"));
}

extern "C" __attribute__((visibility("default"))) int sigaction(int signum, const struct sigaction* action,
                                                                struct sigaction* old_action) noexcept {
  if ((signum == SIGBUS || signum == SIGSEGV) && korvo_common::IsScanFaultGuardActive()) {
    // libyara hands this straight back to us at the end of the scan, where it is ignored as well.
    if (old_action != nullptr) {
      std::memset(old_action, 0, sizeof(*old_action));
    }
    return 0;
  }
  const SigactionFunction next = Next(next_sigaction, "sigaction");
  if (next == nullptr) {
    errno = ENOSYS;
    return -1;
  }
  return next(signum, action, old_action);
}

// Named by its symbol: where off_t is chosen by macro, the header's mmap stands for another one.
extern "C" __attribute__((visibility("default"))) void* VondMmap(void* address, std::size_t length, int protection,
                                                                 int flags, int fd, off_t offset) noexcept
    __asm__("mmap");

extern "C" void* VondMmap(void* address, std::size_t length, int protection, int flags, int fd, off_t offset) noexcept {
  if (length <= korvo_common::kMaxScannedFileCopy && korvo_common::IsScannedFile(fd)) {
    void* const copy = korvo_common::CopyScannedFile(fd, offset, length);
    return copy != nullptr ? copy : MAP_FAILED;
  }
  const MmapFunction next = Next(next_mmap, "mmap");
  if (next == nullptr) {
    errno = ENOSYS;
    return MAP_FAILED;
  }
  void* const mapped = next(address, length, protection, flags, fd, offset);
  if (mapped != MAP_FAILED) {
    korvo_common::NoteMapping(mapped, length, fd);
  }
  return mapped;
}

extern "C" __attribute__((visibility("default"))) int munmap(void* address, std::size_t length) noexcept {
  if (korvo_common::IsScannedFileCopy(address)) {
    return 0;  // stays the thread's
  }
  const MunmapFunction next = Next(next_munmap, "munmap");
  if (next == nullptr) {
    errno = ENOSYS;
    return -1;
  }
  return next(address, length);
}

extern "C" __attribute__((visibility("default"))) int madvise(void* address, std::size_t length, int advice) noexcept {
  if (korvo_common::IsScannedFileCopy(address)) {
    return 0;
  }
  const MadviseFunction next = Next(next_madvise, "madvise");
  if (next == nullptr) {
    errno = ENOSYS;
    return -1;
  }
  return next(address, length, advice);
}
