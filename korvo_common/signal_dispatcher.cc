#include "korvo_common/signal_dispatcher.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "korvo_common/scan_fault_guard.h"
#include "utils/assertion.h"

namespace korvo_common {
namespace {

using korvo::utils::AssertionPrefix;
using korvo::utils::FixedLine;
using korvo::utils::WriteAssertion;

constexpr const char* kSource = "korvo_common/signal_dispatcher";
constexpr int kDispatchTimeoutMs = 500;
static_assert(sizeof(siginfo_t) == 128, "one record of the pipe");

// What a signal handler needs to find; set once the dispatcher is whole.
std::atomic<SignalDispatcher*> instance{nullptr};

// For daemons that prefer to leave quietly; this one never sets it.
constexpr bool kExitOnFatalSignal = false;

[[noreturn]] void Fail(int line, std::string_view condition, const std::string& message) {
  WriteAssertion(line, kSource, condition, message);
  throw std::runtime_error(message);
}

void SetCloseOnExec(int fd) {
  const int flags = ::fcntl(fd, F_GETFD);
  if (flags == -1) {
    Fail(104, "-1 != flags", "fcntl F_GETFD failed");
  }
  if (::fcntl(fd, F_SETFD, flags | FD_CLOEXEC) == -1) {
    Fail(119, "false", "fcntl F_SETFD FD_CLOEXEC failed");
  }
}

// Appends "SIGTERM [15]".
FixedLine& AppendSignal(FixedLine& line, int signum) noexcept {
  return line.Append(SignalDispatcher::SignalName(signum)).Append(" [").Append(static_cast<long>(signum)).Append("]");
}

void ResetToDefault(int signum) noexcept {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  ::sigemptyset(&action.sa_mask);
  ::sigaction(signum, &action, nullptr);
}

// Writes one whole record. 0, or a negated errno; -5 for a write that moves nothing.
int WriteRecord(int fd, const siginfo_t& record) noexcept {
  const char* data = reinterpret_cast<const char*>(&record);
  std::size_t left = sizeof(record);
  while (left > 0) {
    const ssize_t n = ::write(fd, data, left);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return -errno;
    }
    if (n == 0) {
      return -5;
    }
    data += n;
    left -= static_cast<std::size_t>(n);
  }
  return 0;
}

bool ReadRecord(int fd, siginfo_t& record) {
  char* data = reinterpret_cast<char*>(&record);
  std::size_t left = sizeof(record);
  while (left > 0) {
    const ssize_t n = ::read(fd, data, left);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    data += n;
    left -= static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

SignalDispatcher& SignalDispatcher::Instance() {
  static auto* const dispatcher = new SignalDispatcher();  // never destroyed: handlers may run until exit
  return *dispatcher;
}

SignalDispatcher::SignalDispatcher() : pid_(::getpid()) {
  std::array<int, 2> ends{-1, -1};
  if (::pipe(ends.data()) != 0) {
    Fail(156, "false", "Couldn't create pipe, ");
  }
  read_end_.Reset(ends[0]);
  write_end_.Reset(ends[1]);
  SetCloseOnExec(read_end_.Get());
  SetCloseOnExec(write_end_.Get());
  // A full pipe must not stall the handler for ever on the very thread that would empty it; the record is then reported
  // as lost.
  ::fcntl(write_end_.Get(), F_SETFL, ::fcntl(write_end_.Get(), F_GETFL) | O_NONBLOCK);
  instance.store(this, std::memory_order_release);
}

void SignalDispatcher::Register(int signum, std::function<void(int)> handler, bool /*keep*/) {
  if (signum == SIGABRT) {
    Fail(193, "6 != signum", "trying to register SIGABRT");
  }
  if (handlers_.contains(signum)) {
    Fail(194, "0 == handlers_.count(signum)", "duplicate registration for " + SignalText(signum));
  }
  handlers_[signum] = [handler = std::move(handler)](const siginfo_t& info) { handler(info.si_signo); };

  struct sigaction action {};
  action.sa_sigaction = &SignalDispatcher::OnSignal;
  action.sa_flags = SA_SIGINFO;
  ::sigemptyset(&action.sa_mask);
  if (::sigaction(signum, &action, nullptr) != 0) {
    handlers_.erase(signum);
    Fail(205, "false", "sigaction failed for " + SignalText(signum));
  }
  SetMask(SIG_UNBLOCK, signum);
}

void SignalDispatcher::Unregister(int signum) {
  const auto it = handlers_.find(signum);
  if (it == handlers_.end()) {
    Fail(219, "it != handlers_.end()", "Signal handler for " + SignalText(signum) + " wasn't registered");
  }
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  ::sigemptyset(&action.sa_mask);
  if (::sigaction(signum, &action, nullptr) != 0) {
    Fail(226, "false", "sigaction failed for " + SignalText(signum));
  }
  handlers_.erase(it);
}

void SignalDispatcher::RegisterFatalHandler(std::initializer_list<int> signals, std::function<void(int)> handler) {
  fatal_handler_ = std::move(handler);
  for (const int signum : signals) {
    struct sigaction action {};
    action.sa_sigaction = &SignalDispatcher::OnFatalSignal;
    action.sa_flags = SA_SIGINFO;
    ::sigemptyset(&action.sa_mask);
    if (::sigaction(signum, &action, nullptr) != 0) {
      FixedLine line = AssertionPrefix(329, kSource, "false").Append("sigaction failed for ");
      AppendSignal(line, signum).Append(", \n").WriteTo(STDERR_FILENO);
    } else if (signum == SIGBUS) {
      ArmScanFaultGuard();
    }
    SetMask(SIG_UNBLOCK, signum);
  }
}

void SignalDispatcher::OnSignal(int signum, siginfo_t* info, void* /*ucontext*/) noexcept {
  const int saved_errno = errno;
  const SignalDispatcher* const self = instance.load(std::memory_order_acquire);
  if (self != nullptr && ::getpid() == self->pid_) {  // a forked child shares the pipe but not the signal
    const int ret = WriteRecord(self->write_end_.Get(), *info);
    if (ret != 0) {
      FixedLine line = AssertionPrefix(182, kSource, "ret == 0").Append("Couldn't write siginfo to pipe for signal[");
      AppendSignal(line, signum).Append("], err=").Append(static_cast<long>(ret)).Append(", \n");
      line.WriteTo(STDERR_FILENO);
    }
  }
  errno = saved_errno;
}

void SignalDispatcher::OnFatalSignal(int signum, siginfo_t* info, void* /*ucontext*/) noexcept {
  if (HandleScanFault(signum, *info)) {
    return;
  }
  const ScanFaultPause pause;  // the actions below are meant, and a fault in the handler is no fault of a scan
  ResetToDefault(signum);
  if (signum != SIGABRT) {
    ResetToDefault(SIGABRT);
  }
  const SignalDispatcher* const self = instance.load(std::memory_order_acquire);
  if (self != nullptr && self->fatal_handler_) {
    self->fatal_handler_(signum);
  }
  if (kExitOnFatalSignal) {
    std::exit(0);
  }
  std::abort();
}

void SignalDispatcher::Dispatch() {
  pollfd poll_fd{read_end_.Get(), POLLIN, 0};
  if (::poll(&poll_fd, 1, kDispatchTimeoutMs) <= 0) {
    return;
  }
  siginfo_t info{};
  if (!ReadRecord(read_end_.Get(), info)) {
    return;
  }
  const auto it = handlers_.find(info.si_signo);
  if (it != handlers_.end()) {
    it->second(info);
  }
}

void SignalDispatcher::Block(int signum) { SetMask(SIG_BLOCK, signum); }

void SignalDispatcher::Block(std::initializer_list<int> signals) {
  for (const int signum : signals) {
    SetMask(SIG_BLOCK, signum);
  }
}

void SignalDispatcher::SetMask(int how, int signum) {
  sigset_t set;
  ::sigemptyset(&set);
  if (::sigaddset(&set, signum) != 0 || ::pthread_sigmask(how, &set, nullptr) != 0) {
    AssertionPrefix(139, kSource, "false")
        .Append("Failed to set mask for signal ")
        .Append(static_cast<long>(signum))
        .Append(", \n")
        .WriteTo(STDERR_FILENO);
  }
}

std::string_view SignalDispatcher::SignalName(int signum) noexcept {
  // By number; the gaps have no name here.
  static constexpr std::array<std::string_view, 30> kNames = {
      "",        "SIGHUP",  "SIGINT",  "SIGQUIT", "SIGILL",  "SIGTRAP", "SIGABRT",   "SIGBUS",  "SIGFPE",   "SIGKILL",
      "SIGUSR1", "SIGSEGV", "SIGUSR2", "SIGPIPE", "SIGALRM", "SIGTERM", "",          "SIGCHLD", "SIGCONT",  "SIGSTOP",
      "SIGTSTP", "SIGTTIN", "SIGTTOU", "SIGURG",  "SIGXCPU", "SIGXFSZ", "SIGVTALRM", "SIGPROF", "SIGWINCH", "SIGIO"};
  if (signum < 0 || static_cast<std::size_t>(signum) >= kNames.size() ||
      kNames[static_cast<std::size_t>(signum)].empty()) {
    return "UNKNOWN";
  }
  return kNames[static_cast<std::size_t>(signum)];
}

std::string SignalDispatcher::SignalText(int signum) {
  return std::string(SignalName(signum)) + " [" + std::to_string(signum) + "]";
}

}  // namespace korvo_common
