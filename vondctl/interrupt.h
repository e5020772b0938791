#pragma once

#include <functional>

namespace vond::vondctl {

// What ends vondctl from outside: SIGINT (Ctrl-C), SIGTERM, SIGHUP, and SIGPIPE (whoever read the output has gone).
//
// A verb that does nothing about them ends within moments, by that same signal; a shell shows it as status 130, 143,
// 129 or 141, and stops its loop at Ctrl-C, which it would not for a plain exit(130). The daemon goes too, since its
// channel ends with this process. What must not stay behind, such as a temporary file, goes into an AtInterrupt:
//
//     const AtInterrupt remove([&] { ::unlink(temporary.c_str()); });
//     ... write it, rename it into place ...
//
// A verb with something to wind up holds an InterruptScope while it can, looks at InterruptSignal() in its loop, and
// once that is not 0 stops, tidies up, writes no errors (the daemon may be gone, or the output) and returns:
//
//     agent::Client client(...);  // ended and reaped by its destructor; and in case of a second signal:
//     const AtInterrupt reap([&] { client.Process().Kill(SIGKILL); static_cast<void>(client.Process().Wait(1s)); });
//     const InterruptScope scope([&] { finished_.Wake(); });
//     while (InterruptSignal() == 0 && more) { ... }
//     ... clear the progress line, write the summary ...
//     if (InterruptSignal() != 0) return InterruptStatus();  // main turns it into the signal
//
// A loop that waits in poll() adds InterruptFd(). With DaemonOptions::own_process_group Ctrl-C reaches this process
// alone, so that the daemon does not die first and look like one that failed.
//
// The second signal ends the process at once, and so does kInterruptPatience after the first one; the actions of
// AtInterrupt are run in each case.

/// How long a verb with an InterruptScope may take to end, in seconds.
inline constexpr int kInterruptPatience = 10;

/// Starts looking out for the signals. Called once, before any other thread is started: they inherit the signal mask.
/// A signal that this process was started with as ignored (nohup) stays so, but for SIGPIPE.
void WatchInterrupts();

/// The first signal that came, 0 while there was none. Any thread.
[[nodiscard]] int InterruptSignal() noexcept;

/// Says that the signal was the ordinary end of the verb, which has wound up: its own exit status counts then.
void AcceptInterrupt() noexcept;

/// Whether AcceptInterrupt has been called.
[[nodiscard]] bool InterruptIsAccepted() noexcept;

/// 128 + InterruptSignal(), the status by which a shell knows it.
[[nodiscard]] int InterruptStatus() noexcept;

/// A descriptor that is readable from the first signal on, and never read from; -1 before WatchInterrupts.
[[nodiscard]] int InterruptFd() noexcept;

/// Ends the process by InterruptSignal(), which must not be 0. The caller has written what it had to write.
[[noreturn]] void EndBySignal();

/// Calls `action` when a signal is about to end the process without the verb's own tidying up. Not called otherwise.
/// It is run on a thread of its own, must be quick and must not throw; the last registered comes first. Once the
/// destructor has returned it won't be run; the destructor must not be waited for by the action.
class AtInterrupt {
 public:
  explicit AtInterrupt(std::function<void()> action);
  ~AtInterrupt();
  AtInterrupt(const AtInterrupt&) = delete;
  AtInterrupt& operator=(const AtInterrupt&) = delete;

  void Run() const { action_(); }

 private:
  std::function<void()> action_;
};

/// While one is there, the first signal does not end the process: its owner sees to that. `wake` is called once, under
/// the conditions of an AtInterrupt's action, when the signal has come; it may be empty. One at a time.
class InterruptScope {
 public:
  explicit InterruptScope(std::function<void()> wake = {});
  ~InterruptScope();
  InterruptScope(const InterruptScope&) = delete;
  InterruptScope& operator=(const InterruptScope&) = delete;

  void Wake() const;

 private:
  std::function<void()> wake_;
};

}  // namespace vond::vondctl
