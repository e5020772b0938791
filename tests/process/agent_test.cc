#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <map>
#include <thread>
#include <tuple>

#include "agent/client.h"
#include "agent/rule_packer.h"
#include "tests/support/running_daemon.h"
#include "tests/support/test_support.h"

namespace vond::agent {
namespace {

using auto_resources::ManagedFD;
using korvo_daemon::Request;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using test::BlockScan;
using test::MakeFile;
using test::OpenDescriptors;
using test::WaitUntil;

constexpr milliseconds kLong = seconds(60);

Client::Deadline In(milliseconds timeout) { return steady_clock::now() + timeout; }

DaemonOptions Vond(std::size_t socket_buffer_bytes = std::size_t{64} << 20) {
  DaemonOptions options;
  options.executable = VOND_PATH;
  options.socket_buffer_bytes = socket_buffer_bytes;
  options.sandbox = test::TestSandbox();
  return options;
}

// Another program in the daemon's place, with the daemon's descriptors.
DaemonOptions Shell(const std::string& script) {
  DaemonOptions options;
  options.executable = "/bin/sh";
  options.extra_arguments = {"-c", script};
  return options;
}

// Rules r0, r1, ... that match "r0;" and so on, each with `about` to report.
std::string Rules(int count, const std::string& about = "") {
  std::string text;
  for (int i = 0; i < count; ++i) {
    const std::string name = "r" + std::to_string(i);
    text += "rule " + name + " { meta: id = \"" + name + "\" action = \"block\" about = \"" + about +
            "\" strings: $a = \"" + name + ";\" condition: $a }\n";
  }
  return text;
}

void Apply(Client& client, const std::string& rules, std::uint32_t max_sample_size = 0, std::uint32_t log_level = 6) {
  const ManagedFD file = MakeFile(rules);
  Policy policy;
  policy.document.set_max_sample_size(max_sample_size);
  policy.document.add_rule_sets();
  policy.rule_set_fds = {file.Get()};
  policy.log_level = log_level;
  client.ApplyPolicy(policy, kLong);
}

Request Stats() {
  Request request;
  request.mutable_stats();
  return request;
}

Request Padded(std::size_t size) {
  Request request;
  request.mutable_generic_data_request()->set_data(std::string(size, 'x'));
  return request;
}

// Stops the daemon, each of its threads, before it returns.
void Stop(Client& client) {
  siginfo_t info{};
  ASSERT_TRUE(client.Process().Kill(SIGSTOP));
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(client.Process().Pid()), &info, WSTOPPED), 0);
}

std::string End(const std::optional<Error>& error) { return error ? ErrorName(error->Code()) : "answered"; }

std::string Verdict(const ScanAnswer& answer) { return answer.error ? End(answer.error) : test::Verdict(answer); }

// The ends of asynchronous requests, by the requests' names. One that ended twice would stand here twice.
class Ends {
 public:
  using Map = std::multimap<std::string, std::string>;
  Client::Callback Of(const std::string& name) {
    return [this, name](const Answer& answer) { Add(name, End(answer.error)); };
  }
  Client::ScanCallback OfScan(const std::string& name) {
    return [this, name](const ScanAnswer& answer) { Add(name, Verdict(answer)); };
  }
  Map WaitFor(std::size_t count) {
    EXPECT_TRUE(WaitUntil([&] { return All().size() >= count; }, kLong));
    return All();
  }
  Map All() {
    const korvo::utils::MutexLock lock(mutex_);
    return ends_;
  }

 private:
  void Add(const std::string& name, const std::string& end) {
    const korvo::utils::MutexLock lock(mutex_);
    ends_.emplace(name, end);
  }
  korvo::utils::Mutex mutex_;
  Map ends_ GUARDED_BY(mutex_);
};

TEST(AgentClient, PairsAnswersWithRequestsOfManyThreads) {
  Client client(Vond());
  Apply(client, PackRuleSet(Rules(8)));
  Ends ends;
  Ends::Map expected;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    const auto name = [t](int i) { return std::to_string(t) + "." + std::to_string(i); };
    for (int i = 0; i < 150; ++i) {
      expected.emplace(name(i), i % 9 < 8 ? "r" + std::to_string(i % 9) : "");
    }
    threads.emplace_back([&, name] {
      for (int i = 0; i < 150; ++i) {
        const ManagedFD file = MakeFile("a r" + std::to_string(i % 9) + "; here");
        client.ScanAsync(file.Get(), BlockScan(), In(kLong), ends.OfScan(name(i)));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(ends.WaitFor(expected.size()), expected);
  EXPECT_EQ(client.InFlight(), 0U);

  // A callback may start the next one, but not wait.
  const ManagedFD file = MakeFile("r3;");
  Ends chain;
  std::string waited;
  client.SendAsync(Stats(), {}, In(kLong), [&](const Answer&) {
    waited = End(client.Send(Stats(), {}, kLong).error) + " " + Verdict(client.Scan(file.Get(), BlockScan(), kLong));
    client.ScanAsync(file.Get(), BlockScan(), In(kLong), chain.OfScan("next"));
  });
  EXPECT_EQ(chain.WaitFor(1), (Ends::Map{{"next", "r3"}}));
  EXPECT_EQ(waited, "send_failed send_failed");
}

// What else would not be scanned is in tests/data/bad_descriptors.txt.
TEST(AgentClient, RefusesFilesThatAreTooLargeOrClosed) {
  Client client(Vond());
  Apply(client, Rules(1), 100);
  const auto verdict = [&](int fd) { return Verdict(client.Scan(fd, BlockScan(), kLong)); };
  EXPECT_EQ(verdict(MakeFile("r0;" + std::string(98, ' ')).Get()), "file_too_large");
  EXPECT_EQ(verdict(MakeFile("r0;" + std::string(97, ' ')).Get()), "r0");
  EXPECT_EQ(verdict(9999), "bad_descriptor");
  const ManagedFD device(::open("/dev/zero", O_RDONLY | O_CLOEXEC));
  Policy rules_of_a_device;
  rules_of_a_device.rule_set_fds = {device.Get()};
  EXPECT_THROW(client.ApplyPolicy(rules_of_a_device, kLong), Error);
}

TEST(AgentClient, RefusesRequestsThatWouldNotArrive) {
  Client client(Vond());
  Request largest = Padded(kMaxPacketSize - 20);
  largest.mutable_header()->set_id(1);
  largest.mutable_generic_data_request()->mutable_data()->append(kMaxPacketSize - largest.ByteSizeLong(), 'x');
  Request too_large = largest;
  too_large.mutable_generic_data_request()->mutable_data()->push_back('x');
  Request not_text;
  not_text.mutable_file_scan()->set_path("\xff");
  const std::tuple<const char*, Request, std::vector<int>, const char*> rows[] = {
      {"largest packet", largest, {}, "answered"},
      {"too large", too_large, {}, "packet_too_large"},
      {"most descriptors", Stats(), std::vector<int>(kMaxDescriptors, 2), "answered"},
      {"too many", Stats(), std::vector<int>(kMaxDescriptors + 1, 2), "too_many_descriptors"},
      {"one of them closed", Stats(), {2, 9999}, "bad_descriptor"},
      {"not UTF-8", not_text, {}, "send_failed"}};
  for (const auto& [name, request, fds, end] : rows) {
    EXPECT_EQ(End(client.Send(request, fds, kLong).error), end) << name;
  }
  EXPECT_EQ(End(client.Send(Stats(), {}, milliseconds(0)).error), "deadline_exceeded");
  EXPECT_EQ(client.InFlight(), 0U);
}

TEST(AgentClient, TellsWhyAPolicyWasRefused) {
  DaemonOptions options = Vond();
  options.on_output = [](OutputStream, const std::string&) {  // the log comes late
    std::this_thread::sleep_for(milliseconds(3));
  };
  Client client(options);
  Apply(client, Rules(1));
  const std::string good = R"({"max_sample_size": 1, "rule_sets": [{}]})";
  const std::tuple<const char*, std::string, const char*, std::size_t, const char*, const char*> rows[] = {
      {"bad rule", good, "rule x { condition: $b }", 1, "policy_refused", "undefined string \"$b\""},
      {"bad index", good, "", 0, "policy_refused", "ProcessConfig failed with error: vector::_M_range_check"},
      {"bad document", "{", "", 1, "policy_refused", "Failed to read config from policy"},
      {"not UTF-8", "{\"\xff\": 1}", "", 1, "send_failed", "UTF-8"},
      {"too large", std::string(kMaxPacketSize, ' ') + good, "", 1, "packet_too_large", "131072"},
      {"too many rule sets", good, "", 33, "too_many_descriptors", "33"}};
  const ManagedFD file = MakeFile("r0;");
  for (const auto& [name, json, source, rule_sets, error, quote] : rows) {
    const ManagedFD rules = MakeFile(source);
    Policy policy;
    policy.json = json;
    policy.rule_set_fds.assign(rule_sets, rules.Get());
    try {
      client.ApplyPolicy(policy, kLong);
      ADD_FAILURE() << name << " was accepted";
    } catch (const Error& e) {
      EXPECT_STREQ(ErrorName(e.Code()), error) << name;
      EXPECT_NE(std::string(e.what()).find(quote), std::string::npos) << e.what();
    }
    EXPECT_EQ(Verdict(client.Scan(file.Get(), BlockScan(), kLong)), "r0") << name;  // the former one in force
  }

  const ManagedFD rules = MakeFile(Rules(1));
  Policy policy;
  policy.json = R"({"max_sample_size": "2", "of_a_newer_agent": {}, "rule_sets": [{}]})";
  policy.rule_set_fds = {rules.Get()};
  policy.log_level = 0;
  client.ApplyPolicy(policy, kLong);
  EXPECT_EQ(Verdict(client.Scan(file.Get(), BlockScan(), kLong)), "file_too_large");
  ASSERT_FALSE(client.Send({}, {}, kLong).error);
  EXPECT_TRUE(WaitUntil([&] {  // errors stay visible, whatever level the policy wants
    return client.Process().RecentOutput(OutputStream::kStdout).back() == "ERROR Invalid data case request: 0";
  }));
}

TEST(AgentClient, EveryRequestOfAHangingDaemonEndsInTime) {
  Client client(Vond());
  ASSERT_EQ(End(client.Send(Stats(), {}, kLong).error), "answered");
  Stop(client);
  auto start = steady_clock::now();
  EXPECT_EQ(End(client.Send(Stats(), {}, milliseconds(200)).error), "deadline_exceeded");
  EXPECT_GE(steady_clock::now() - start, milliseconds(200));
  EXPECT_LT(steady_clock::now() - start, seconds(3));
  EXPECT_EQ(client.InFlight(), 1U);

  Ends ends;
  Ends::Map expected{{"one too many", "deadline_exceeded"}, {"from a callback", "send_failed"}};
  for (std::size_t i = 1; i < kMaxInFlight; ++i) {  // the later ones sooner
    client.SendAsync(Stats(), {}, In(milliseconds(1500 - 10 * i)), ends.Of(std::to_string(i)));
    expected.emplace(std::to_string(i), "deadline_exceeded");
  }
  start = steady_clock::now();
  client.SendAsync(Stats(), {}, In(milliseconds(200)), ends.Of("one too many"));
  EXPECT_GE(steady_clock::now() - start, milliseconds(200));
  client.SendAsync(Stats(), {-1}, In(kLong),
                   [&](const Answer&) { client.SendAsync(Stats(), {}, In(kLong), ends.Of("from a callback")); });
  EXPECT_EQ(ends.WaitFor(expected.size()), expected);
  EXPECT_EQ(client.InFlight(), kMaxInFlight);

  ASSERT_TRUE(client.Process().Kill(SIGCONT));
  EXPECT_TRUE(WaitUntil([&] { return client.InFlight() == 0; }));
  EXPECT_EQ(End(client.Send(Stats(), {}, kLong).error), "answered");
  EXPECT_EQ(ends.All(), expected);
}

TEST(AgentClient, WithdrawsWhatAFullSocketDoesNotTake) {
  Client client(Vond(4608));
  EXPECT_EQ(End(client.Send(Padded(2 * client.Process().SendBufferBytes()), {}, kLong).error), "send_failed");
  EXPECT_EQ(client.InFlight(), 0U);
  Stop(client);
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(End(client.Send(Padded(3000), {}, milliseconds(100)).error), "deadline_exceeded");
  }
  EXPECT_GT(client.InFlight(), 0U);
  EXPECT_LT(client.InFlight(), 8U);
  Ends ends;
  client.SendAsync(Stats(), {-1}, In(kLong),
                   [&](const Answer&) { client.SendAsync(Padded(3000), {}, In(kLong), ends.Of("from a callback")); });
  std::thread waiting([&] { client.SendAsync(Padded(3000), {}, In(kLong), ends.Of("waiting")); });
  EXPECT_EQ(ends.WaitFor(1), (Ends::Map{{"from a callback", "send_failed"}}));
  ASSERT_TRUE(client.Process().Kill(SIGCONT));
  waiting.join();
  EXPECT_EQ(ends.WaitFor(2), (Ends::Map{{"from a callback", "send_failed"}, {"waiting", "answered"}}));
  EXPECT_TRUE(WaitUntil([&] { return client.InFlight() == 0; }));
}

// The most talkative log level makes some megabytes of log meanwhile, which nothing may wait for.
TEST(AgentClient, FindsTheRequestsWhoseAnswersAreTooLarge) {
  Client client(Vond(4608));
  Apply(client, Rules(2, std::string(6000, 'x')), 0, 8);  // two answers that fit one by one but not together
  const ManagedFD both = MakeFile("r0;r1;");
  const ManagedFD one = MakeFile("r0;");
  const auto start = steady_clock::now();
  Ends ends;
  Ends::Map expected;
  for (int i = 0; i < 400; ++i) {  // mixed, then a whole window of lost ones
    const bool lost = i % 3 == 0 || i >= 150;
    client.ScanAsync(lost ? both.Get() : one.Get(), BlockScan(), In(kLong), ends.OfScan(std::to_string(i)));
    expected.emplace(std::to_string(i), lost ? "answer_too_large" : "r0");
  }
  EXPECT_EQ(ends.WaitFor(expected.size()), expected);
  EXPECT_LT(steady_clock::now() - start, kLong / 2);
  EXPECT_EQ(client.InFlight(), 0U);
}

TEST(AgentClient, EndsAllRequestsWithTheDaemonAndLeavesNothing) {
  const std::set<int> before = OpenDescriptors();
  // How to end it, whether it may answer some requests before, and what the others are told.
  const std::tuple<std::function<void(Client&)>, bool, std::string> rows[] = {
      {[](Client& client) { client.Process().Kill(SIGKILL); }, false, "vond was killed by signal 9 (SIGKILL)"},
      {[](Client& client) { client.Process().Kill(SIGSEGV); }, true, "vond was killed by signal 6 (SIGABRT)"},
      {[](Client& client) { EXPECT_EQ(::send(client.Process().ChannelFd(), "?", 1, 0), 1); }, true,
       "vond exited with status 0; its last words: ERROR Exception in main loop: Failed to read request: Invalid "
       "argument"},
      {nullptr, false, "the client has been closed"}};
  for (const auto& [end, may_answer, how] : rows) {
    std::map<int, std::vector<std::string>> ends;  // on the client's thread until that is gone
    pid_t pid = -1;
    {
      Client client(Vond());
      ASSERT_EQ(End(client.Send(Stats(), {}, kLong).error), "answered");
      pid = client.Process().Pid();
      Stop(client);
      const auto send = [&](int i) {
        client.SendAsync(Stats(), {}, In(kLong), [&ends, i](const Answer& answer) {
          ends[i].push_back(answer.error ? answer.error->what() : "answered");
        });
      };
      for (int i = 1; i < 50; ++i) {
        send(i);
      }
      if (end) {
        end(client);
        client.Process().Kill(SIGCONT);  // one that was killed may be reaped already
        ASSERT_TRUE(WaitUntil([&] { return !client.IsAlive() && client.InFlight() == 0; }));
        EXPECT_FALSE(client.Process().Kill(SIGKILL));
        send(0);
      }
    }
    EXPECT_EQ(ends.size(), end ? 50U : 49U);
    for (const auto& [i, texts] : ends) {
      EXPECT_TRUE(texts.size() == 1 && (texts[0] == how || (i != 0 && may_answer && texts[0] == "answered")))
          << i << " ended " << texts.size() << " times: " << texts[0] << "; expected: " << how;
    }
    EXPECT_EQ(::waitpid(pid, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(OpenDescriptors(), before) << how;
  }
}

// A peer that answers as vond never should, then dies. Request ids count from 1.
TEST(AgentClient, SurvivesAStrangePeer) {
  Client client(Shell(R"(
    read_one() { dd bs=200000 count=1 <&3 >/dev/null 2>&1; }
    lost="ERROR Exception in thread pool:"
    read_one; printf '\377' >&3
    read_one; echo "$lost Failed to send response: Message too long"
    read_one; echo "$lost std::bad_alloc"
    read_one; printf '\012\002\020\004\022\000' >&3
    read_one; read_one; read_one; printf '\012\002\020\006' >&3; sleep 0.2
    echo "$lost Failed to send response: Message too long"
    read_one; echo "$lost Failed to send response: No buffer space available"; sleep 0.2
    printf '\012\002\020\007' >&3
    read_one; printf '\012\002\020\177' >&3
    read_one; printf '\012\002\020\013' >&3; sleep 0.2; echo oops >&2; exit 3)"));
  EXPECT_EQ(End(client.Send(Stats(), {}, kLong).error), "bad_answer");
  EXPECT_EQ(End(client.Send(Stats(), {}, kLong).error), "answer_too_large");
  EXPECT_EQ(End(client.Send(Stats(), {}, kLong).error), "bad_answer");
  EXPECT_EQ(Verdict(client.Scan(MakeFile("").Get(), BlockScan(), kLong)), "bad_answer");
  Ends ends;
  for (const char* name : {"5", "6", "7"}) {
    client.SendAsync(Stats(), {}, In(kLong), ends.Of(name));
  }
  ends.WaitFor(1);
  std::this_thread::sleep_for(milliseconds(500));  // the first line has come, and each of 5 and 7 may be meant
  client.SendAsync(Stats(), {}, In(kLong), ends.Of("8"));
  EXPECT_EQ(ends.WaitFor(4),
            (Ends::Map{{"5", "answer_too_large"}, {"6", "answered"}, {"7", "answered"}, {"8", "answer_too_large"}}));
  EXPECT_EQ(End(client.Send(Stats(), {}, milliseconds(300)).error), "deadline_exceeded");
  // The last request is never read, and so the socket breaks with an answer still in it.
  client.SendAsync(Stats(), {-1}, In(kLong), [](const Answer&) { std::this_thread::sleep_for(milliseconds(500)); });
  client.SendAsync(Stats(), {}, In(kLong), ends.Of("11"));
  const Answer answer = client.Send(Stats(), {}, kLong);
  EXPECT_STREQ(answer.error ? answer.error->what() : "an answer", "vond exited with status 3; its last words: oops");
  EXPECT_EQ(ends.All().find("11")->second, "answered");
}

TEST(DaemonProcess, TheChildHasItsFourDescriptorsAndDefaultSignals) {
  ::signal(SIGPIPE, SIG_IGN);
  sigset_t signals;
  ::sigfillset(&signals);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  for (const int at_least : {4, 200}) {
    ASSERT_GE(::fcntl(1, F_DUPFD, at_least), 0);  // not close-on-exec, and left open
  }
  DaemonOptions options =
      Shell(R"(for f in /proc/$$/fd/*; do [ -L $f ] && l=$(readlink $f) && echo ${f##*/} ${l%%:*}; done
      while read name value; do case $name in SigBlk:|SigIgn:) echo $name $value;; esac; done < /proc/$$/status
      tr '\0' '\n' < /proc/$$/environ | grep -E '^(PATH|VOND_TEST)='; echo "$0 $1")");
  options.environment = {{"VOND_TEST", "new"}, {"PATH", ::getenv("PATH") + std::string(":/added")}};
  std::vector<std::string> lines;
  std::set<int> of_vond;
  std::vector<ManagedFD> standard;  // closed meanwhile, so that what is opened gets the numbers that the child uses
  for (const int fd : {0, 1, 2}) {
    standard.emplace_back(::fcntl(fd, F_DUPFD_CLOEXEC, 10));
    ::close(fd);
  }
  {
    DaemonProcess process(options);
    process.WaitForOutputEnd(kLong);
    lines = process.RecentOutput(OutputStream::kStdout);
    Client client(Vond());
    if (!client.Send(Stats(), {}, kLong).error) {
      of_vond = OpenDescriptors(client.Process().Pid());
    }
  }
  for (const int fd : {0, 1, 2}) {
    ::dup2(standard[static_cast<std::size_t>(fd)].Get(), fd);
  }
  EXPECT_EQ(of_vond, (std::set<int>{0, 1, 2, 3, 4, 5}));  // the last two are its own, for signals
  ASSERT_EQ(lines.size(), 9U);
  const std::vector<std::string> descriptors(lines.begin(), lines.begin() + 4);
  EXPECT_EQ(descriptors, (std::vector<std::string>{"0 /dev/null", "1 pipe", "2 pipe", "3 socket"}));
  EXPECT_EQ(lines[4], "SigBlk: 0000000000000000");
  EXPECT_EQ(std::stoull(lines[5].substr(8), nullptr, 16) & (1U << (SIGPIPE - 1)), 0U) << lines[5];
  EXPECT_EQ(lines[6], "PATH=" + options.environment["PATH"]);
  EXPECT_EQ(lines[7], "VOND_TEST=new");
  EXPECT_EQ(lines[8], "-c 3:requests");
}

TEST(DaemonProcess, KeepsTheLastLinesAndCutsLongOnes) {
  std::size_t lines = 0;
  DaemonOptions options = Shell(
      "i=0; while [ $i -lt 300 ]; do echo line $i; i=$((i+1)); done; echo error >&2\n"
      "head -c 100000 /dev/zero | tr '\\0' x; echo; printf last");
  options.on_output = [&](OutputStream, const std::string&) { ++lines; };
  DaemonProcess process(options);
  ASSERT_TRUE(process.WaitForOutputEnd(kLong));
  EXPECT_EQ(lines, 303U);
  const std::vector<std::string> recent = process.RecentOutput(OutputStream::kStdout);
  ASSERT_EQ(recent.size(), 200U);
  EXPECT_EQ(recent[0], "line 102");
  EXPECT_TRUE(recent[198] == std::string(65536, 'x')) << recent[198].size();
  EXPECT_EQ(recent[199], "last");
  EXPECT_EQ(process.RecentOutput(OutputStream::kStderr), std::vector<std::string>{"error"});
  const std::optional<ExitStatus> status = process.Wait(kLong);
  EXPECT_TRUE(status && !status->signaled && status->status == 0);
}

TEST(DaemonProcess, EndsWhateverTheChildDoes) {
  const std::set<int> before = OpenDescriptors();
  for (const char* script : {"exec sleep 100", "sleep 15 & exit 0", "yes & exit 0", "exec yes", "kill -STOP $$"}) {
    const auto start = steady_clock::now();
    pid_t pid = -1;
    {
      DaemonProcess process(Shell(script));
      pid = process.Pid();
      std::this_thread::sleep_for(milliseconds(100));
    }
    EXPECT_LT(steady_clock::now() - start, seconds(6)) << script;
    EXPECT_EQ(::waitpid(pid, nullptr, WNOHANG), -1) << script;
    EXPECT_EQ(OpenDescriptors(), before) << script;
  }
  DaemonOptions options;
  options.executable = "/etc";
  EXPECT_THROW(DaemonProcess{options}, Error);
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);  // no child, not even a dead one
}

}  // namespace
}  // namespace vond::agent
