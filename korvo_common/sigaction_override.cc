// The executable's own sigaction(), which the dynamic linker finds before libc's for every caller in the process,
// libyara included. See scan_fault_guard.h for why.

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "korvo_common/scan_fault_guard.h"

namespace {

using SigactionFunction = int (*)(int, const struct sigaction*, struct sigaction*);

// The next sigaction() in the link order: libc's, or a sanitizer's. Looked up once, before any handler can run: only an
// earlier successful call can have installed one. Not a function-local static, whose guard signal context must not
// take.
SigactionFunction NextSigaction() {
  static std::atomic<SigactionFunction> next{nullptr};
  SigactionFunction function = next.load(std::memory_order_acquire);
  if (function == nullptr) {
    function = reinterpret_cast<SigactionFunction>(::dlsym(RTLD_NEXT, "sigaction"));
    next.store(function, std::memory_order_release);
  }
  return function;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int sigaction(int signum, const struct sigaction* action,
                                                                struct sigaction* old_action) noexcept {
  if ((signum == SIGBUS || signum == SIGSEGV) && korvo_common::IsScanFaultGuardActive()) {
    // libyara hands this straight back to us at the end of the scan, where it is ignored as well.
    if (old_action != nullptr) {
      std::memset(old_action, 0, sizeof(*old_action));
    }
    return 0;
  }
  const SigactionFunction next = NextSigaction();
  if (next == nullptr) {
    errno = ENOSYS;
    return -1;
  }
  return next(signum, action, old_action);
}
