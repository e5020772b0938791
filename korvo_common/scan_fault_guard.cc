#include "korvo_common/scan_fault_guard.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "korvo_common/libc_overrides.h"

namespace korvo_common {
namespace {

std::atomic<bool> armed{false};
std::uintptr_t page_size = 4096;

// What the calling thread scans. Signal handlers read it, hence volatile; constinit keeps it free of lazy
// initialisation.
struct ThreadState {
  volatile bool in_scan = false;
  volatile bool faulted = false;
  volatile int fd = -1;               // of the scanned file; -1 for memory
  volatile std::uintptr_t begin = 0;  // of what is covered
  volatile std::uintptr_t end = 0;
};

constinit thread_local ThreadState state;

void Begin(int fd, std::uintptr_t begin, std::uintptr_t end) noexcept {
  state.faulted = false;
  state.fd = fd;
  state.begin = begin;
  state.end = end;
  state.in_scan = true;
}

}  // namespace

ScanFaultScope::ScanFaultScope(int fd) noexcept { Begin(fd, 0, 0); }

ScanFaultScope::ScanFaultScope(const void* data, std::size_t length) noexcept {
  const auto begin = reinterpret_cast<std::uintptr_t>(data);
  Begin(-1, begin, begin + length);
}

ScanFaultScope::~ScanFaultScope() { state.in_scan = false; }

bool ScanFaultScope::HasFaulted() const noexcept { return state.faulted; }

ScanFaultPause::ScanFaultPause() noexcept : was_in_scan_(state.in_scan) { state.in_scan = false; }

ScanFaultPause::~ScanFaultPause() { state.in_scan = was_in_scan_; }

void ArmScanFaultGuard() noexcept {
  page_size = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  ResolveOverriddenFunctions();
  armed.store(true, std::memory_order_release);
}

bool IsScanFaultGuardActive() noexcept { return state.in_scan && armed.load(std::memory_order_acquire); }

bool IsScannedFile(int fd) noexcept { return fd >= 0 && fd == state.fd && IsScanFaultGuardActive(); }

void NoteMapping(const void* address, std::size_t length, int fd) noexcept {
  if (state.in_scan && fd >= 0 && fd == state.fd) {
    const auto begin = reinterpret_cast<std::uintptr_t>(address);
    state.begin = begin;
    state.end = begin + ((length + page_size - 1) & ~(page_size - 1));
  }
}

bool HandleScanFault(int signum, const siginfo_t& info) noexcept {
  if (signum != SIGBUS || info.si_code != BUS_ADRERR || !IsScanFaultGuardActive()) {
    return false;
  }
  const auto address = reinterpret_cast<std::uintptr_t>(info.si_addr);
  if (address < state.begin || address >= state.end) {
    return false;
  }
  // The mapping of a file goes as a whole: its result is void anyway, and a page a fault would let a file with many far
  // apart reads run into the kernel's limit on mappings. Memory is the caller's, who gets no more zeros than need be.
  const bool whole = state.fd >= 0;
  const std::uintptr_t begin = whole ? state.begin : address & ~(page_size - 1);
  const std::size_t length = whole ? state.end - begin : page_size;
  const int saved_errno = errno;
  void* const mapped = ::mmap(reinterpret_cast<void*>(begin), length, PROT_READ,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE, -1, 0);
  errno = saved_errno;
  if (mapped == MAP_FAILED) {
    return false;
  }
  state.faulted = true;
  return true;
}

}  // namespace korvo_common
