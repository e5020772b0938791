#pragma once

#include <csignal>
#include <cstddef>

namespace korvo_common {

/// The seam between the engine's scans and fatal-signal handling. A scan reads a file through a mapping, and whoever
/// can write to that file can cut it short meanwhile, which turns a read into SIGBUS. libyara answers with signal
/// handlers that it swaps in and out process-wide, without a lock before its version 4.5: two scans at once lose the
/// process's own handlers for good. Instead, while a thread is inside a scan,
///  - the process's sigaction() (libc_overrides.cc) leaves SIGBUS and SIGSEGV alone, so our handler stays;
///  - its mmap() (there too) notes where the scanned file is mapped, or hands out a copy of a small one, which nobody
///    can cut short (scanned_file_copy.h);
///  - the fatal trampoline (SignalDispatcher) asks HandleScanFault(), which puts zeros in the file's place and lets the
///    thread go on. The scan then knows from HasFaulted() that what it saw was not the file.
/// All of it takes effect only once ArmScanFaultGuard() has been called; before that libyara's own way stays.
///
/// Nothing here allocates or locks. State is per thread, but for the process-wide, one-way arming.

/// Marks the calling thread as inside a scan for a scope. Not to be nested.
class ScanFaultScope {
 public:
  /// A scan of the file behind `fd`: covers the mapping of `fd` that the thread makes within the scope, as a whole.
  explicit ScanFaultScope(int fd) noexcept;
  /// A scan of memory, which may be somebody's mapping of a file: covers the block, page by page.
  ScanFaultScope(const void* data, std::size_t length) noexcept;
  ~ScanFaultScope();
  ScanFaultScope(const ScanFaultScope&) = delete;
  ScanFaultScope& operator=(const ScanFaultScope&) = delete;

  /// Whether something of what is scanned has been replaced by zeros since the scope began.
  [[nodiscard]] bool HasFaulted() const noexcept;
};

/// Takes the mark off for a scope: for our own code that runs inside a scan, called by the engine or as the handler of
/// a fatal signal. Does nothing outside one.
class ScanFaultPause {
 public:
  ScanFaultPause() noexcept;
  ~ScanFaultPause();
  ScanFaultPause(const ScanFaultPause&) = delete;
  ScanFaultPause& operator=(const ScanFaultPause&) = delete;

 private:
  bool was_in_scan_;
};

/// Turns the guard on. Called when the fatal trampoline has been installed for SIGBUS.
void ArmScanFaultGuard() noexcept;

/// Whether the guard is armed and the calling thread inside a scan. Safe in signal context.
[[nodiscard]] bool IsScanFaultGuardActive() noexcept;

/// Whether the guard is armed and the calling thread inside a scan of `fd`.
[[nodiscard]] bool IsScannedFile(int fd) noexcept;

/// Called by mmap() for each mapping that the calling thread has made.
void NoteMapping(const void* address, std::size_t length, int fd) noexcept;

/// Called by the handler of `signum` on the faulting thread, with what the kernel passed to it. When the thread is
/// inside a scan and the fault is a read of what is scanned, behind the end of its file or where the file can't be read
/// any more, puts zeros there and returns true: the handler then returns and the read is repeated. False for every
/// other fault. Keeps `errno`.
[[nodiscard]] bool HandleScanFault(int signum, const siginfo_t& info) noexcept;

}  // namespace korvo_common
