#include "vondctl/interrupt.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#include "tests/support/test_support.h"

// A signal ends the process, so each case is a child of its own (a death test), judged by its end and by what it wrote
// to standard error, all of it.
namespace vond::vondctl {
namespace {

using test::WaitUntil;

void Say(const std::string& text) { static_cast<void>(!::write(STDERR_FILENO, text.data(), text.size())); }

void WaitForEver() {
  while (true) {
    ::pause();
  }
}

bool IsReadable(int fd) {
  pollfd poll{fd, POLLIN, 0};
  return ::poll(&poll, 1, 0) == 1;
}

class Interrupt : public testing::TestWithParam<int> {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_P(Interrupt, EndsAVerbThatDoesNothingAboutIt) {
  const auto child = [] {
    WatchInterrupts();
    {
      const AtInterrupt gone([] { Say("gone "); });
    }
    const AtInterrupt first([] { Say("first "); });
    const AtInterrupt second([] { Say("second "); });
    ::kill(::getpid(), GetParam());
    WaitForEver();
  };
  EXPECT_EXIT(child(), testing::KilledBySignal(GetParam()), "^second first $");
}

TEST_P(Interrupt, IsLeftToAVerbThatWindsUp) {
  const auto child = [] {
    WatchInterrupts();
    if (InterruptSignal() != 0 || IsReadable(InterruptFd())) {
      Say("too early ");
    }
    {
      std::atomic<bool> woken = false;
      const AtInterrupt never([] { Say("never "); });
      const InterruptScope scope([&woken] { woken = true; });
      ::kill(::getpid(), GetParam());
      Say(WaitUntil([&woken] { return woken.load(); }) ? "woken " : "not woken ");
      Say(InterruptSignal() == GetParam() && InterruptStatus() == 128 + GetParam() ? "known " : "unknown ");
      Say(IsReadable(InterruptFd()) ? "readable " : "not readable ");
    }
    EndBySignal();
  };
  EXPECT_EXIT(child(), testing::KilledBySignal(GetParam()), "^woken known readable $");
}

TEST_P(Interrupt, IsLeftToAVerbThatIsFasterThanWhoeverWatches) {
  const auto child = [] {
    WatchInterrupts();
    const AtInterrupt never([] { Say("never "); });
    {
      const InterruptScope scope;
      ::kill(::getpid(), GetParam());
      while (InterruptSignal() == 0) {
      }
    }
    ::usleep(50'000);  // a summary is written
    Say("wound up");
    EndBySignal();
  };
  EXPECT_EXIT(child(), testing::KilledBySignal(GetParam()), "^wound up$");
}

TEST_P(Interrupt, EndsAtOnceWhenItComesAgain) {
  const auto child = [] {
    WatchInterrupts();
    const AtInterrupt action([] { Say("action"); });
    const InterruptScope scope([] { Say("scope "); });
    ::kill(::getpid(), GetParam());
    static_cast<void>(WaitUntil([] { return IsReadable(InterruptFd()); }));
    ::kill(::getpid(), SIGTERM);
    WaitForEver();
  };
  EXPECT_EXIT(child(), testing::KilledBySignal(GetParam()), "^scope action$");
}

INSTANTIATE_TEST_SUITE_P(Signals, Interrupt, testing::Values(SIGINT, SIGTERM, SIGHUP, SIGPIPE),
                         [](const auto& test) { return std::string(::sigabbrev_np(test.param)); });

TEST_F(Interrupt, OfAClosedPipeIsKnownWhenTheWriteReturns) {
  const auto child = [] {
    sigset_t set;  // as some libraries leave it
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    ::signal(SIGPIPE, SIG_IGN);  // as some parents leave it
    WatchInterrupts();
    const InterruptScope scope;
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) == 0 && ::close(ends[0]) == 0 && ::write(ends[1], "x", 1) < 0 && errno == EPIPE &&
        InterruptSignal() == SIGPIPE) {
      EndBySignal();
    }
  };
  EXPECT_EXIT(child(), testing::KilledBySignal(SIGPIPE), "^$");
}

TEST_F(Interrupt, ThatWasIgnoredAtTheStartStaysSo) {
  const auto child = [] {
    ::signal(SIGHUP, SIG_IGN);
    WatchInterrupts();
    ::kill(::getpid(), SIGHUP);
    ::usleep(100'000);
    std::exit(InterruptSignal() == 0 ? 3 : 4);
  };
  EXPECT_EXIT(child(), testing::ExitedWithCode(3), "^$");
}

}  // namespace
}  // namespace vond::vondctl
