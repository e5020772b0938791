#include "vondctl/interrupt.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "utils/managed_fd.h"
#include "utils/mutex.h"

namespace vond::vondctl {
namespace {

using auto_resources::ManagedFD;
using korvo::utils::Mutex;
using korvo::utils::MutexLock;

constexpr std::array<int, 3> kAskingSignals{SIGINT, SIGTERM, SIGHUP};

// What the signal handler touches.
std::atomic<int> first_signal{0};
std::atomic<int> interrupt_fd{-1};
std::atomic<bool> settled{false};
static_assert(std::atomic<int>::is_always_lock_free);

struct Watch {
  ManagedFD asked;              // an eventfd: the first signal has come
  ManagedFD signals;            // a signalfd
  bool ignores_hangup = false;  // this process was started so (nohup); fixed before there is another thread
  Mutex mutex;
  std::vector<const AtInterrupt*> actions GUARDED_BY(mutex);
  const InterruptScope* scope GUARDED_BY(mutex) = nullptr;
  bool winds_up GUARDED_BY(mutex) = false;  // the first signal came while there was a scope, which is gone by now
  const HangupScope* hangup GUARDED_BY(mutex) = nullptr;
};

// Never destroyed: the watching thread outlives main.
Watch& TheWatch() {
  static Watch& watch = *new Watch;
  return watch;
}

void NoteSignal(int signal) noexcept {
  int none = 0;
  if (first_signal.compare_exchange_strong(none, signal)) {
    ::eventfd_write(interrupt_fd.load(), 1);
  }
}

// SIGPIPE goes to the thread that writes, so no signalfd sees it. Noted before write() returns with EPIPE: whoever
// looks at InterruptSignal() then knows why.
void OnBrokenPipe(int signal) {
  const int saved_errno = errno;
  NoteSignal(signal);
  errno = saved_errno;
}

[[noreturn]] void DieOf(int signal) {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  ::sigaction(signal, &action, nullptr);
  sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, signal);
  ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  ::kill(::getpid(), signal);
  while (true) {  // the signal may take effect on another thread
    ::pause();
  }
}

// Whether a signal asks for nothing, or for what a HangupScope does.
bool IsNoEnd(Watch& watch, int signal) {
  const MutexLock lock(watch.mutex);
  if (signal != SIGHUP || watch.hangup == nullptr) {
    return signal == SIGHUP && watch.ignores_hangup;
  }
  watch.hangup->Run();
  return true;
}

// Waits for a signal that asks for the end, at most `timeout` milliseconds; false if none came.
bool WaitForSignal(Watch& watch, int timeout, bool watch_pipe) {
  std::array<pollfd, 2> fds{pollfd{watch.signals.Get(), POLLIN, 0},
                            pollfd{watch_pipe ? watch.asked.Get() : -1, POLLIN, 0}};
  if (::poll(fds.data(), fds.size(), timeout) == 0) {
    return false;
  }
  signalfd_siginfo info{};
  if (fds[0].revents != 0 && ::read(watch.signals.Get(), &info, sizeof info) == sizeof info &&
      !IsNoEnd(watch, static_cast<int>(info.ssi_signo))) {
    NoteSignal(static_cast<int>(info.ssi_signo));
    return true;
  }
  return fds[1].revents != 0;
}

void WatchSignals() {
  Watch& watch = TheWatch();
  while (first_signal == 0) {
    WaitForSignal(watch, -1, true);
  }
  watch.mutex.lock();
  if (watch.scope != nullptr || watch.winds_up) {
    if (watch.scope != nullptr) {
      watch.scope->Wake();
    }
    watch.mutex.unlock();
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(kInterruptPatience);
    auto left = std::chrono::milliseconds(std::chrono::seconds(kInterruptPatience));
    while (left.count() > 0 && !WaitForSignal(watch, static_cast<int>(left.count()), false)) {
      left = std::chrono::ceil<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
    }
    watch.mutex.lock();
  }
  // The lock is kept to the end: nobody gets beyond the destructor of an action that has been run.
  std::for_each(watch.actions.rbegin(), watch.actions.rend(), [](const AtInterrupt* action) { action->Run(); });
  DieOf(first_signal);
}

}  // namespace

void WatchInterrupts() {
  Watch& watch = TheWatch();
  watch.asked.Reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  interrupt_fd = watch.asked.Get();

  struct sigaction action {};
  sigset_t set;
  ::sigemptyset(&set);
  for (const int signal : kAskingSignals) {
    const bool is_ignored = ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
    if (!is_ignored || signal == SIGHUP) {  // one that is ignored may be wanted later (HangupScope)
      ::sigaddset(&set, signal);
    }
    watch.ignores_hangup = watch.ignores_hangup || (is_ignored && signal == SIGHUP);
  }
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  watch.signals.Reset(::signalfd(-1, &set, SFD_CLOEXEC));
  if (!watch.asked.IsValid() || !watch.signals.IsValid()) {
    throw std::system_error(errno, std::generic_category(), "watching for signals");
  }

  std::thread(&WatchSignals).detach();
  action = {};
  action.sa_handler = &OnBrokenPipe;
  action.sa_flags = SA_RESTART;
  ::sigaction(SIGPIPE, &action, nullptr);
  ::sigemptyset(&set);
  ::sigaddset(&set, SIGPIPE);
  ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);  // POCO blocks it before main
}

int InterruptSignal() noexcept { return first_signal; }

int InterruptStatus() noexcept { return 128 + first_signal; }

void SettleInterrupt() noexcept { settled = true; }

bool InterruptDecides() noexcept { return first_signal != 0 && !settled; }

int InterruptFd() noexcept { return interrupt_fd; }

void EndBySignal() { DieOf(first_signal); }

AtInterrupt::AtInterrupt(std::function<void()> action) : action_(std::move(action)) {
  Watch& watch = TheWatch();
  const MutexLock lock(watch.mutex);
  watch.actions.push_back(this);
}

AtInterrupt::~AtInterrupt() {
  Watch& watch = TheWatch();
  const MutexLock lock(watch.mutex);
  std::erase(watch.actions, this);
}

InterruptScope::InterruptScope(std::function<void()> wake) : wake_(std::move(wake)) {
  Watch& watch = TheWatch();
  const MutexLock lock(watch.mutex);
  watch.scope = this;
}

InterruptScope::~InterruptScope() {
  Watch& watch = TheWatch();
  const MutexLock lock(watch.mutex);
  watch.scope = nullptr;
  watch.winds_up = watch.winds_up || first_signal != 0;
}

HangupScope::HangupScope(std::function<void()> action) : action_(std::move(action)) {
  Watch& watch = TheWatch();
  const MutexLock lock(watch.mutex);
  watch.hangup = this;
}

HangupScope::~HangupScope() {
  Watch& watch = TheWatch();
  const MutexLock lock(watch.mutex);
  watch.hangup = nullptr;
}

void InterruptScope::Wake() const {
  if (wake_) {
    wake_();
  }
}

}  // namespace vond::vondctl
