// Scenes that need a process of their own, because they end it or change what the whole process shares. Each is named
// on the command line, takes one number, and is judged by how it ends and what it wrote. failing_calls.cc is preloaded.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>

#include "korvo_common/scan_fault_guard.h"
#include "korvo_common/signal_dispatcher.h"

namespace {

using korvo_common::ScanFaultPause;
using korvo_common::ScanFaultScope;
using korvo_common::SignalDispatcher;

// Writes the text of what `action` throws, or "accepted".
template <typename Action, typename... Arguments>
void Attempt(Action action, Arguments... arguments) {
  try {
    action(arguments...);
    std::fputs("accepted\n", stderr);
  } catch (const std::runtime_error& e) {
    std::fprintf(stderr, "%s\n", e.what());
  }
}

__attribute__((no_sanitize("undefined"))) void NullWrite() {
  volatile int* volatile nowhere = nullptr;
  *nowhere = 1;
}

void SayFatal(int /*signum*/) { std::fputs("fatal\n", stderr); }

void Refusals(int /*unused*/) {
  const auto add = [](int signum) {
    SignalDispatcher::Instance().Register(
        signum, [](int) {}, true);
  };
  const auto remove = [](int signum) { SignalDispatcher::Instance().Unregister(signum); };
  for (const int signum : {SIGABRT, SIGTERM, SIGTERM, SIGKILL, SIGKILL}) {
    Attempt(add, signum);  // a failure leaves nothing behind: the second SIGKILL is no duplicate
  }
  Attempt(remove, SIGSYS);
  ::setenv("VOND_FAIL", "sigaction:1:1", 1);
  Attempt(remove, SIGTERM);
  Attempt(add, SIGTERM);  // still registered
}

void Calls(int /*unused*/) {
  const int pipe = ::dup(0);  // the dispatcher takes the next free ones
  ::close(pipe);
  auto& dispatcher = SignalDispatcher::Instance();
  std::printf("close-on-exec %d %d", ::fcntl(pipe, F_GETFD), ::fcntl(pipe + 1, F_GETFD));
  SignalDispatcher::Block({SIGTERM, SIGUSR1});
  const auto print = [](int signum) { std::printf(", %s", SignalDispatcher::SignalText(signum).c_str()); };
  dispatcher.Register(SIGTERM, print, true);
  dispatcher.Register(SIGUSR1, print, true);
  for (const int signum : {SIGTERM, SIGTERM, SIGUSR1}) {
    errno = 77;
    ::raise(signum);
    std::printf(", errno %d", errno);
  }
  for (int i = 0; i < 3; ++i) {
    dispatcher.Dispatch();
  }
  ::raise(SIGUSR1);
  dispatcher.Unregister(SIGUSR1);
  dispatcher.Dispatch();  // a record without a handler
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(::raise(SIGTERM));
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  const auto begin = std::chrono::steady_clock::now();
  dispatcher.Dispatch();
  const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - begin;
  std::printf(", child %d, waited %d", status, waited.count() > 0.45 && waited.count() < 5);
  ::raise(SIGUSR1);  // has its default action again
}

void FullPipe(int signals) {
  int calls = 0;
  SignalDispatcher::Instance().Register(
      SIGUSR1, [&calls](int) { ++calls; }, true);
  for (int i = 0; i < signals; ++i) {
    ::raise(SIGUSR1);
  }
  for (int i = 0; i < signals; i = calls == i + 1 ? calls : signals) {
    SignalDispatcher::Instance().Dispatch();
  }
  ::setenv("VOND_FAIL", "write:1:0", 1);  // this one is written in two parts
  ::raise(SIGUSR1);
  SignalDispatcher::Instance().Dispatch();
  std::printf("%d", calls);
}

void SecondHandler(int /*unused*/) {
  auto& dispatcher = SignalDispatcher::Instance();
  dispatcher.RegisterFatalHandler({SIGSEGV}, [](int) { std::fputs("first\n", stderr); });
  SignalDispatcher::Block(SIGSEGV);  // unblocked below
  dispatcher.RegisterFatalHandler({SIGKILL, SIGSEGV}, &SayFatal);
  NullWrite();
}

// The handler of `signum` brings the same signal about.
void FaultInHandler(int signum) {
  SignalDispatcher::Instance().RegisterFatalHandler({SIGABRT, SIGSEGV, SIGBUS}, [](int nested) {
    SayFatal(nested);
    static bool again = false;
    if (again) {
      ::_exit(1);
    }
    again = true;
    SignalDispatcher::SetMask(SIG_UNBLOCK, nested);
    ::raise(nested);
  });
  ::raise(signum);
}

void FaultInHandlerDuringScan(int signum) {
  const ScanFaultScope scope(0);
  FaultInHandler(signum);
}

constexpr std::size_t half = 1 << 19;  // of a file so large that it is mapped for its scan

// A file of two halves.
int MakeFile() {
  const int fd = ::memfd_create("cut", 0);
  const std::string content(2 * half, 'a');
  return ::write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()) ? fd : -1;
}

// Maps the file, which then loses its second half.
const volatile char* MapAndCut(int fd) {
  void* const address = ::mmap(nullptr, 2 * half, PROT_READ, MAP_PRIVATE, fd, 0);
  return ::ftruncate(fd, static_cast<off_t>(half)) == 0 ? static_cast<char*>(address) : nullptr;
}

void ReadDuringScan(int /*unused*/) {
  SignalDispatcher::Instance().RegisterFatalHandler({SIGBUS}, &SayFatal);
  const int fd = MakeFile();
  {
    const ScanFaultScope scope(fd);
    const volatile char* const file = MapAndCut(fd);
    { const ScanFaultPause pause; }
    errno = 77;
    std::printf("%d %d, ", file[half - 1], scope.HasFaulted());
    const int lost = file[half] + file[2 * half - 1];
    std::atomic_signal_fence(std::memory_order_seq_cst);  // the handler must not have changed errno
    std::printf("%d %d, ", lost, errno);
    std::printf("%d %d, ", scope.HasFaulted(), file[half - 1]);  // the mapping goes as a whole
  }
  const volatile char* const memory = MapAndCut(fd);
  const ScanFaultScope next(const_cast<const char*>(memory), 2 * half);
  std::printf("%d ", next.HasFaulted());
  std::printf("%d ", memory[half]);
  std::printf("%d %d", next.HasFaulted(), memory[half - 1]);  // the caller's: no more than need be
}

// Faults that the guard leaves alone: before a scan (0), in a pause (1), one that was sent with its address (2), a null
// write (3), of another file (4), of the same file mapped before the scan (5), on another thread (6), while the guard
// is not armed (7).
void FaultDuringScan(int kind) {
  SignalDispatcher::Instance().RegisterFatalHandler({kind == 7 ? SIGSYS : SIGBUS, SIGSEGV}, &SayFatal);
  const int fd = MakeFile();
  const volatile char* file = kind == 0 || kind == 5 ? MapAndCut(fd) : nullptr;
  const auto read = [&file] { std::printf("%d", file[half]); };
  { const ScanFaultPause pause; }
  if (kind == 0) {
    read();
  }
  const ScanFaultScope scope(fd);
  if (file == nullptr) {
    file = MapAndCut(fd);
  }
  if (kind == 4) {
    file = MapAndCut(MakeFile());
  }
  if (kind == 1) {
    const ScanFaultPause pause;
    read();
  }
  if (kind == 6) {
    std::thread(read).join();
  }
  siginfo_t sent{};
  sent.si_code = SI_QUEUE;
  sent.si_addr = const_cast<char*>(file + half);
  kind == 2   ? static_cast<void>(::syscall(SYS_rt_sigqueueinfo, ::getpid(), SIGBUS, &sent))
  : kind == 3 ? NullWrite()
              : read();
}

#define SCENE(name) \
  { #name, &(name) }
const std::map<std::string, void (*)(int)> scenes = {SCENE(Refusals),       SCENE(Calls),
                                                     SCENE(FullPipe),       SCENE(SecondHandler),
                                                     SCENE(FaultInHandler), SCENE(FaultInHandlerDuringScan),
                                                     SCENE(ReadDuringScan), SCENE(FaultDuringScan)};

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IONBF, 0);  // a scene may die at any moment
  if (argc != 3 || !scenes.contains(argv[1])) {
    return 98;
  }
  scenes.at(argv[1])(std::stoi(argv[2]));
  return 0;
}
