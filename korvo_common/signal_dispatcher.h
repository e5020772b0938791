#pragma once

#include <csignal>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <unordered_map>

#include "utils/managed_fd.h"

namespace korvo_common {

/// Turns asynchronous signals into ordinary calls: the handler in signal context only writes the signal's siginfo_t
/// into a pipe, Dispatch() reads it and calls the registered handler. Fatal signals are handled at once, on the thread
/// that faulted.
///
/// One per process, never destroyed. Register, Unregister and RegisterFatalHandler belong to start-up: call them, and
/// Dispatch, from one thread. A refused or failed registration writes its assertion line and throws std::runtime_error
/// with the same message.
class SignalDispatcher {
 public:
  /// The process's dispatcher, made on first use. Throws std::runtime_error when the pipe can't be made.
  [[nodiscard]] static SignalDispatcher& Instance();

  SignalDispatcher(const SignalDispatcher&) = delete;
  SignalDispatcher& operator=(const SignalDispatcher&) = delete;

  /// Has `handler` called by Dispatch for each `signum` that arrives, and unblocks it in the calling thread. SIGABRT
  /// and a second registration are refused. `keep` says that the registration is for the life of the process; it is
  /// for the reader alone.
  void Register(int signum, std::function<void(int)> handler, bool keep);

  /// Gives `signum` its default action back and forgets its handler.
  void Unregister(int signum);

  /// Replaces the process's one fatal handler and installs the trampoline for `signals`: it calls `handler` in signal
  /// context on the thread that faulted, on its own stack (so a stack overflow ends the process without a word), then
  /// aborts. A signal that can't be installed is only reported. Faults of
  /// scanned files are not fatal, see scan_fault_guard.h.
  void RegisterFatalHandler(std::initializer_list<int> signals, std::function<void(int)> handler);

  /// Waits up to 500 milliseconds for one signal and runs its handler on this thread. Errors and signals without a
  /// handler are passed over in silence.
  void Dispatch();

  /// Blocks signals in the calling thread and the threads it will start.
  static void Block(int signum);
  static void Block(std::initializer_list<int> signals);
  /// pthread_sigmask for one signal; `how` is SIG_BLOCK or SIG_UNBLOCK. Failure is only reported.
  static void SetMask(int how, int signum);

  /// "SIGTERM", or "UNKNOWN".
  [[nodiscard]] static std::string_view SignalName(int signum) noexcept;
  /// "SIGTERM [15]".
  [[nodiscard]] static std::string SignalText(int signum);

 private:
  SignalDispatcher();

  static void OnSignal(int signum, siginfo_t* info, void* ucontext) noexcept;
  static void OnFatalSignal(int signum, siginfo_t* info, void* ucontext) noexcept;

  std::unordered_map<int, std::function<void(const siginfo_t&)>> handlers_;
  std::function<void(int)> fatal_handler_;
  auto_resources::ManagedFD read_end_;
  auto_resources::ManagedFD write_end_;
  pid_t pid_;
};

}  // namespace korvo_common
