#include "korvo_common/signal_dispatcher.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <string>
#include <vector>

#include "tests/support/running_daemon.h"
#include "tests/support/test_support.h"

namespace {

using korvo_common::SignalDispatcher;
using vond::test::ChildResult;

// Sanitizers leave the fatal signals to the program.
std::map<std::string, std::string> Environment() {
  const std::string options =
      "detect_leaks=0:verify_asan_link_order=0:handle_segv=0:handle_sigbus=0:handle_abort=0:handle_sigill=0";
  return {{"ASAN_OPTIONS", options}, {"TSAN_OPTIONS", options}};
}

// Runs a scene of test_child.cc.
ChildResult RunScene(const std::string& scene, int number = 0) {
  std::vector<std::string> environment{"LD_PRELOAD=" VOND_FAILING_CALLS_PATH};
  for (const auto& [name, value] : Environment()) {
    environment.push_back(name + "=" + value);
  }
  return vond::test::RunChild({VOND_TEST_CHILD_PATH, scene, std::to_string(number)}, environment);
}

struct Case {
  std::string scene;
  int number;
  int signal;  // that ends the process; 0 when it returns
  std::string out;
  std::string err;
};

void RunCases(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    const ChildResult result = RunScene(c.scene, c.number);
    SCOPED_TRACE(c.scene + " " + std::to_string(c.number));
    EXPECT_EQ(result.signal, c.signal);
    EXPECT_EQ(result.exit_status, c.signal == 0 ? 0 : -1);
    EXPECT_EQ(result.out, c.out);
    EXPECT_EQ(result.err, c.err);
  }
}

std::string Assertion(int line, const std::string& condition, const std::string& message) {
  return "Line " + std::to_string(line) + " @ korvo_common/signal_dispatcher *** Assertion '((" + condition +
         "))' failed *** " + message + "\n";
}

// The line, and the text of the exception.
std::string Refusal(int line, const std::string& condition, const std::string& message) {
  return Assertion(line, condition, message) + message + "\n";
}

TEST(SignalDispatcher, NamesSignals) {
  std::string names;
  for (int number = -1; number < 34; ++number) {
    names.append(SignalDispatcher::SignalName(number)).append(" ");
  }
  EXPECT_EQ(names,
            "UNKNOWN UNKNOWN SIGHUP SIGINT SIGQUIT SIGILL SIGTRAP SIGABRT SIGBUS SIGFPE SIGKILL SIGUSR1 SIGSEGV "
            "SIGUSR2 SIGPIPE SIGALRM SIGTERM UNKNOWN SIGCHLD SIGCONT SIGSTOP SIGTSTP SIGTTIN SIGTTOU SIGURG SIGXCPU "
            "SIGXFSZ SIGVTALRM SIGPROF SIGWINCH SIGIO UNKNOWN UNKNOWN UNKNOWN UNKNOWN ");
  EXPECT_EQ(SignalDispatcher::SignalText(31), "UNKNOWN [31]");
}

TEST(SignalDispatcher, Refuses) {
  const std::string duplicate = Refusal(194, "0 == handlers_.count(signum)", "duplicate registration for SIGTERM [15]");
  const std::string failed = Refusal(205, "false", "sigaction failed for SIGKILL [9]");
  RunCases({{"Refusals", 0, 0, "",
             Refusal(193, "6 != signum", "trying to register SIGABRT") + "accepted\n" + duplicate + failed + failed +
                 Refusal(219, "it != handlers_.end()", "Signal handler for UNKNOWN [31] wasn't registered") +
                 "vond_fail: reached\n" + Refusal(226, "false", "sigaction failed for SIGTERM [15]") + duplicate}});
}

TEST(SignalDispatcher, SetsMasksAndReportsFailures) {
  sigset_t blocked;
  const std::string errors = vond::test::CaptureOutput(STDERR_FILENO, [&blocked] {
    SignalDispatcher::Block(SIGPIPE);
    SignalDispatcher::Block({SIGTERM, 65, SIGHUP});
    SignalDispatcher::SetMask(SIG_UNBLOCK, SIGTERM);
    SignalDispatcher::SetMask(77, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  });
  EXPECT_TRUE(::sigismember(&blocked, SIGPIPE) == 1 && ::sigismember(&blocked, SIGHUP) == 1);
  EXPECT_EQ(::sigismember(&blocked, SIGTERM), 0);
  EXPECT_EQ(errors, Assertion(139, "false", "Failed to set mask for signal 65, ") +
                        Assertion(139, "false", "Failed to set mask for signal 15, "));
}

TEST(SignalDispatcher, CallsHandlersFromTheLoopOfItsProcess) {
  const std::string out =
      "close-on-exec 1 1, errno 77, errno 77, errno 77, SIGTERM [15], SIGTERM [15], SIGUSR1 [10], child 0, waited 1";
  RunCases({{"Calls", 0, SIGUSR1, out, ""}});
}

TEST(SignalDispatcher, FullPipeLosesSignalsWithAReport) {
  constexpr int kSignals = 600;
  const ChildResult result = RunScene("FullPipe", kSignals);
  ASSERT_EQ(result.exit_status, 0) << result.err;
  const int calls = std::stoi(result.out) - 1;
  EXPECT_TRUE(0 < calls && calls < kSignals) << calls;
  std::string expected;
  for (int i = calls; i < kSignals; ++i) {
    expected += Assertion(182, "ret == 0", "Couldn't write siginfo to pipe for signal[SIGUSR1 [10]], err=-11, ");
  }
  expected += "vond_fail: reached\n";
  EXPECT_EQ(result.err, expected);
}

TEST(FatalSignals, CallTheLastHandlerOnceAndAbort) {
  const std::string not_installed = Assertion(329, "false", "sigaction failed for SIGKILL [9], ");
  RunCases({{"SecondHandler", 0, SIGABRT, "", not_installed + "fatal\n"},
            {"FaultInHandler", SIGABRT, SIGABRT, "", "fatal\n"},
            {"FaultInHandler", SIGSEGV, SIGSEGV, "", "fatal\n"},
            {"FaultInHandlerDuringScan", SIGSEGV, SIGSEGV, "", "fatal\n"}});
}

TEST(FatalSignals, DaemonDumpsBacktraceAndAborts) {
  for (const int signum : {SIGABRT, SIGSEGV, SIGILL, SIGBUS, SIGSYS}) {
    SCOPED_TRACE(signum);
    vond::test::RunningDaemon daemon(Environment());
    ASSERT_TRUE(daemon.SetRules({}));
    auto& process = daemon.Client().Process();
    ASSERT_TRUE(process.Kill(signum) && process.WaitForOutputEnd(std::chrono::seconds(20)));
    EXPECT_EQ(process.Wait(std::chrono::seconds(20)).value().signal, SIGABRT);
    EXPECT_EQ(daemon.Log().back(), "INFO New configuration loaded successfully") << "nothing is cleaned up";
    const std::vector<std::string> lines = process.RecentOutput(vond::agent::OutputStream::kStderr);
    ASSERT_TRUE(3 <= lines.size() && lines.size() <= 31) << lines.size();
    EXPECT_EQ(lines[0], "Dumping backtrace");
    for (std::size_t i = 1; i < lines.size(); ++i) {
      EXPECT_TRUE(lines[i].find("[0x") != std::string::npos && lines[i].back() == ']') << lines[i];
    }
  }
}

TEST(ScanFaultGuard, TakesOnlyLostPagesOfScannedFiles) {
  RunCases({{"ReadDuringScan", 0, 0, "97 0, 0 77, 1 0, 0 0 1 97", ""}, {"FaultDuringScan", 7, SIGBUS, "", ""}});
  for (int kind = 0; kind < 7; ++kind) {
    RunCases({{"FaultDuringScan", kind, SIGABRT, "", "fatal\n"}});
  }
}

}  // namespace
