// Preloaded into vond: makes one call fail, once. VOND_FAIL=<call>:<n>:<error> picks the n-th call of that name that
// vond's own code makes (libstdc++ may stand in between) and the errno it fails with; with error 0, `read`, `pread` and
// `write` move half of what was asked for. A line on standard error tells that the call was reached.

#include <dlfcn.h>
#include <link.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string_view>

namespace {

// Set by the first thing that vond does. The allocations before it, of static initialisation, are as many and all
// alike.
constinit std::atomic<bool> running{false};

// Steps out to the first frame that is neither here nor in the standard library, and notes whether it is vond's. The
// executable is the file without a name. Templates of the standard library lie in it too, for all libraries' use, and
// protobuf's map, which is left out: one that finds no memory for its table can't be destroyed any more.
_Unwind_Reason_Code Step(_Unwind_Context* context, void* by_vond) {
  void* const address = reinterpret_cast<void*>(::_Unwind_GetIP(context));
  dl_find_object object{};
  if (::_dl_find_object(address, &object) != 0) {
    return _URC_NORMAL_STOP;
  }
  const std::string_view file = object.dlfo_link_map->l_name;
  Dl_info info{};
  const bool named = file.empty() && ::dladdr(address, &info) != 0 && info.dli_sname != nullptr;
  const std::string_view symbol = named ? info.dli_sname : "";
  *static_cast<bool*>(by_vond) = file.empty() && symbol.find("InnerMap") == std::string_view::npos;
  bool standard = file.find("libstdc++") != std::string_view::npos;
  for (const char* const mangled : {"_ZNSt", "_ZNKSt", "_ZSt", "_ZN9__gnu_cxx"}) {
    standard = standard || symbol.starts_with(mangled);
  }
  return standard || file.find("vond_failing_calls") != std::string_view::npos ? _URC_NO_REASON : _URC_NORMAL_STOP;
}

// Whether this is the call that fails; errno is then set. Called in signal context too: does not allocate.
bool Fails(const char* call) {
  static constinit std::atomic<long> calls{0};
  const char* const plan = std::getenv("VOND_FAIL");
  const std::size_t length = std::strlen(call);
  if (plan == nullptr || std::strncmp(plan, call, length) != 0 || plan[length] != ':') {
    return false;
  }
  bool by_vond = false;
  ::_Unwind_Backtrace(&Step, &by_vond);
  char* error = nullptr;
  if (!by_vond || ++calls != std::strtol(plan + length + 1, &error, 10)) {
    return false;
  }
  constexpr std::string_view kReached = "vond_fail: reached\n";
  ::syscall(SYS_write, STDERR_FILENO, kReached.data(), kReached.size());
  errno = std::atoi(error + 1);
  return true;
}

template <typename Function>
Function* Next(Function* /*type*/, const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

// The bytes to move: all, or half of them in a call that falls short. -1 in one that fails.
ssize_t BytesToMove(const char* call, std::size_t wanted) {
  if (!Fails(call)) {
    return static_cast<ssize_t>(wanted);
  }
  return errno == 0 ? static_cast<ssize_t>(wanted / 2) : -1;
}

}  // namespace

#define FAIL_OR_CALL(failure, function, ...) \
  return Fails(#function) ? (failure) : Next(&::function, #function)(__VA_ARGS__)

extern "C" {

ssize_t recvmsg(int fd, msghdr* message, int flags) { FAIL_OR_CALL(-1, recvmsg, fd, message, flags); }
int poll(pollfd* fds, nfds_t count, int timeout) { FAIL_OR_CALL(-1, poll, fds, count, timeout); }
off_t lseek(int fd, off_t offset, int whence) noexcept { FAIL_OR_CALL(-1, lseek, fd, offset, whence); }
int pipe(int* ends) noexcept {
  running = true;
  FAIL_OR_CALL(-1, pipe, ends);
}
int sigaction(int signum, const struct sigaction* action, struct sigaction* old) noexcept {
  FAIL_OR_CALL(-1, sigaction, signum, action, old);
}
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*), void* argument) noexcept {
  FAIL_OR_CALL(errno, pthread_create, thread, attributes, run, argument);
}
void* mmap(void* address, std::size_t length, int protection, int flags, int fd, off_t offset) noexcept {
  FAIL_OR_CALL(reinterpret_cast<void*>(-1), mmap, address, length, protection, flags, fd, offset);
}

ssize_t write(int fd, const void* data, std::size_t size) {
  const ssize_t bytes = BytesToMove("write", size);
  return bytes < 0 ? bytes : Next(&::write, "write")(fd, data, static_cast<std::size_t>(bytes));
}
ssize_t read(int fd, void* data, std::size_t size) {
  const ssize_t bytes = BytesToMove("read", size);
  return bytes < 0 ? bytes : Next(&::read, "read")(fd, data, static_cast<std::size_t>(bytes));
}

ssize_t pread(int fd, void* data, std::size_t size, off_t offset) {
  const ssize_t bytes = BytesToMove("pread", size);
  return bytes < 0 ? bytes : Next(&::pread, "pread")(fd, data, static_cast<std::size_t>(bytes), offset);
}

// POCO's initialisation of OpenSSL, by its mangled name.
void _ZN4Poco6Crypto16initializeCryptoEv() {
  constexpr const char* kName = "_ZN4Poco6Crypto16initializeCryptoEv";
  Fails("crypto") ? throw std::runtime_error("no entropy") : Next(&_ZN4Poco6Crypto16initializeCryptoEv, kName)();
}

}  // extern "C"

#ifndef VOND_SANITIZED  // has an operator new of its own, with a delete to match
// NOLINTNEXTLINE(misc-new-delete-overloads): the standard library's delete frees what malloc gave
void* operator new(std::size_t size) {
  void* const memory = running && Fails("new") ? nullptr : std::malloc(size);
  return memory == nullptr ? throw std::bad_alloc() : memory;
}
#endif
