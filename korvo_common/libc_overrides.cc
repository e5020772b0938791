// The executable's own sigaction() and mmap(), which the dynamic linker finds before libc's for every caller in the
// process, libyara included. See scan_fault_guard.h for why.

#include "korvo_common/libc_overrides.h"

#include <dlfcn.h>
#include <sys/types.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>

#include "korvo_common/scan_fault_guard.h"

namespace {

using SigactionFunction = int (*)(int, const struct sigaction*, struct sigaction*);
using MmapFunction = void* (*)(void*, std::size_t, int, int, int, off_t);

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

}  // namespace

void korvo_common::ResolveOverriddenFunctions() noexcept {
  static_cast<void>(Next(next_sigaction, "sigaction"));
  static_cast<void>(Next(next_mmap, "mmap"));
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
  const MmapFunction next = Next(next_mmap, "mmap");
  if (next == nullptr) {
    errno = ENOSYS;
    return reinterpret_cast<void*>(-1);
  }
  void* const mapped = next(address, length, protection, flags, fd, offset);
  if (mapped != reinterpret_cast<void*>(-1)) {
    korvo_common::NoteMapping(mapped, length, fd);
  }
  return mapped;
}
