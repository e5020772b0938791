// Scenes that need a process of their own, because they end it or change what the whole process shares. Each is named
// on the command line, takes one number, and is judged by how it ends and what it wrote.

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>

#include "korvo_common/scan_fault_guard.h"
#include "korvo_common/signal_dispatcher.h"
#include "static_pattern_matching/ksd_main.h"

namespace {

using korvo_common::ScanFaultPause;
using korvo_common::ScanFaultScope;
using korvo_common::SignalDispatcher;

struct Argument {
  int index;
  int value;
};

// From here on the kernel answers system call `number` with `error` (0: it returns 0) instead of doing it, when its
// arguments are as given. Of two rules for a call the later one counts.
void Deny(int number, int error, Argument first = {-2, 0}, Argument second = {-2, 0}) {
  const auto load = [](int index) {  // the call's number is at 0, its arguments start at 16
    return sock_filter{BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<unsigned>(16 + 8 * index)};
  };
  const auto compare = [number](Argument argument, unsigned char steps_to_end) {
    const int value = argument.index < 0 ? number : argument.value;
    return sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, steps_to_end, static_cast<unsigned>(value)};
  };
  std::array<sock_filter, 8> filter{
      load(-2),
      compare({-2, 0}, 5),
      load(first.index),
      compare(first, 3),
      load(second.index),
      compare(second, 1),
      sock_filter{BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)},
      sock_filter{BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW}};
  const sock_fprog program{filter.size(), filter.data()};
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
    std::perror("seccomp");
  }
}

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
  Deny(SYS_rt_sigaction, EPERM, {0, SIGTERM});
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
  std::printf("%d", calls);
  Deny(SYS_write, 0, {2, sizeof(siginfo_t)});
  ::raise(SIGUSR1);
}

// The daemon, hit by `signum` as soon as it stands; 0 is a real fault.
void Daemon(int signum) {
  static int hit;
  hit = signum;
  struct sigaction alarm {};
  alarm.sa_handler = [](int) {
    SignalDispatcher::SetMask(SIG_UNBLOCK, SIGSEGV);  // sanitizers block everything in handlers
    struct sigaction last {};
    ::sigaction(SIGTERM, nullptr, &last);
    if (last.sa_handler == SIG_DFL) {
      ::ualarm(5000, 0);  // look again
    } else {
      hit == 0 ? NullWrite() : static_cast<void>(::raise(hit));
    }
  };
  ::sigaction(SIGALRM, &alarm, nullptr);
  ::ualarm(5000, 0);
  std::array<int, 2> ends{};
  ::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data());
  std::array<std::string, 3> arguments{"vond", "-c", std::to_string(ends[0]) + ":requests"};
  std::array<char*, 4> argv{arguments[0].data(), arguments[1].data(), arguments[2].data(), nullptr};
  korvo::static_pattern_matching_daemon::ksd_main(3, argv.data());
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
const std::map<std::string, void (*)(int)> scenes = {SCENE(Refusals),
                                                     SCENE(Calls),
                                                     SCENE(FullPipe),
                                                     SCENE(Daemon),
                                                     SCENE(SecondHandler),
                                                     SCENE(FaultInHandler),
                                                     SCENE(FaultInHandlerDuringScan),
                                                     SCENE(ReadDuringScan),
                                                     SCENE(FaultDuringScan)};

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IONBF, 0);  // a scene may die at any moment
  if (argc != 3 || !scenes.contains(argv[1])) {
    return 98;
  }
  scenes.at(argv[1])(std::stoi(argv[2]));
  return 0;
}
