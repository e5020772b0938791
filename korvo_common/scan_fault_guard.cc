#include "korvo_common/scan_fault_guard.h"

#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace korvo_common {
namespace {

std::atomic<bool> armed{false};
std::uintptr_t page_size = 4096;

// Signal handlers read these; constinit keeps them free of lazy initialisation.
constinit thread_local volatile std::sig_atomic_t in_scan = 0;
constinit thread_local volatile std::sig_atomic_t faulted = 0;

// Address of the instruction that faulted, 0 where we don't know how to find it.
std::uintptr_t InstructionAddress([[maybe_unused]] const void* ucontext) noexcept {
#if defined(__x86_64__)
  return static_cast<std::uintptr_t>(static_cast<const ucontext_t*>(ucontext)->uc_mcontext.gregs[REG_RIP]);
#elif defined(__aarch64__)
  return static_cast<std::uintptr_t>(static_cast<const ucontext_t*>(ucontext)->uc_mcontext.pc);
#else
  return 0;
#endif
}

}  // namespace

ScanFaultScope::ScanFaultScope() noexcept {
  faulted = 0;
  in_scan = 1;
}

ScanFaultScope::~ScanFaultScope() { in_scan = 0; }

bool ScanFaultScope::HasFaulted() const noexcept { return faulted != 0; }

ScanFaultPause::ScanFaultPause() noexcept : was_in_scan_(in_scan != 0) { in_scan = 0; }

ScanFaultPause::~ScanFaultPause() { in_scan = was_in_scan_ ? 1 : 0; }

void ArmScanFaultGuard() noexcept {
  page_size = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  armed.store(true, std::memory_order_release);
}

bool IsScanFaultGuardActive() noexcept { return in_scan != 0 && armed.load(std::memory_order_acquire); }

bool HandleScanFault(int signum, const siginfo_t& info, const void* ucontext) noexcept {
  if (signum != SIGBUS || info.si_code != BUS_ADRERR || !IsScanFaultGuardActive()) {
    return false;
  }
  const std::uintptr_t page = reinterpret_cast<std::uintptr_t>(info.si_addr) & ~(page_size - 1);
  // A program file cut short on disk faults the same way, but on the page of the instruction itself: zeros there would
  // be executed.
  if (page == (InstructionAddress(ucontext) & ~(page_size - 1))) {
    return false;
  }
  const int saved_errno = errno;
  void* const mapped =
      ::mmap(reinterpret_cast<void*>(page), page_size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
  errno = saved_errno;
  if (mapped == MAP_FAILED) {
    return false;
  }
  faulted = 1;
  return true;
}

}  // namespace korvo_common
