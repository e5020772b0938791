#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "agent/client.h"
#include "agent/relay_protocol.h"
#include "tests/support/running_daemon.h"
#include "tests/support/test_support.h"
#include "utils/unix_fds.h"

// `vondctl start` and `status` as programs, and agents that connect to them.
namespace vond::test {
namespace {

namespace fs = std::filesystem;
using agent::Client;
using auto_resources::ManagedFD;
using korvo::static_pattern_matching_daemon::unix_send_fds;
using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kLong = seconds(120);
constexpr uid_t kNobody = 65534;

std::string Rule(const std::string& name, const std::string& text, const std::string& condition = "$a",
                 const std::string& meta = "") {
  return "rule " + name + " { meta: id = \"" + name + "\" action = \"block\" " + meta + " strings: $a = \"" + text +
         "\" condition: " + condition + " }\n";
}
const std::string kAlpha = Rule("Alpha", "alpha");
// Busy with files that hold "slow" for longer than any test lets it.
const std::string kSlow = Rule("Slow", "slow", "$a and for all i in (0..1099511627776) : (i >= 0)");
// Some tens of milliseconds with files that hold "work".
const std::string kWork = Rule("Work", "work", "$a and for all i in (0..500000) : (i >= 0)");

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
  return address;
}

template <typename Call>
int WithAddress(Call call, int fd, const std::string& path) {
  const sockaddr_un address = AddressOf(path);
  return call(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

// One packet with a request to scan `file`; false when the other end is gone.
bool SendScan(int socket, std::uint64_t id, int file, int flags = 0) {
  korvo_daemon::Request request = MakeScan(0, {0});
  request.mutable_header()->set_id(id);
  const std::string packet = request.SerializeAsString();
  while (unix_send_fds(socket, &file, 1, packet.data(), packet.size(), MSG_NOSIGNAL | flags) != 0) {
    pollfd writable{socket, POLLOUT, 0};
    if (errno != EAGAIN || flags != 0 || ::poll(&writable, 1, 60000) != 1) {
      return false;
    }
  }
  return true;
}

class RelayTest : public testing::Test {
 public:
  RelayTest() {
    fs::remove_all(folder_);
    fs::create_directories(folder_);
    fs::permissions(folder_, fs::perms::owner_all | fs::perms::others_exec | fs::perms::group_exec);
  }
  ~RelayTest() override {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
  }
  RelayTest(const RelayTest&) = delete;
  RelayTest& operator=(const RelayTest&) = delete;

 protected:
  [[nodiscard]] std::string Path(const std::string& name) const { return folder_ + "/" + name; }
  void Write(const std::string& name, const std::string& content) const {
    std::ofstream(Path(name), std::ios::binary) << content;
  }

  // Starts `vondctl start` with these rules, if any, and with more arguments; does not wait.
  void Spawn(const std::string& rules, const std::vector<std::string>& more = {},
             const std::vector<std::string>& environment = {}) {
    std::vector<std::string> arguments{VONDCTL_PATH, "start", "--listen", Socket()};
    if (!rules.empty()) {
      Write("r.yar", rules);
      arguments.insert(arguments.end(), {"--rules", Path("r.yar")});
    }
    arguments.insert(arguments.end(), more.begin(), more.end());
    std::vector<std::string> entries = environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      entries.emplace_back(*entry);
    }
    const auto pointers = [](std::vector<std::string>& strings) {
      std::vector<char*> result;
      for (std::string& string : strings) {
        result.push_back(string.data());
      }
      result.push_back(nullptr);
      return result;
    };
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&actions, err_.Get(), 1);
    ::posix_spawn_file_actions_adddup2(&actions, err_.Get(), 2);
    ASSERT_EQ(
        ::posix_spawn(&pid_, VONDCTL_PATH, &actions, nullptr, pointers(arguments).data(), pointers(entries).data()), 0);
    ::posix_spawn_file_actions_destroy(&actions);
  }
  // Starts it and waits until it is ready.
  void Start(const std::string& rules, const std::vector<std::string>& more = {},
             const std::vector<std::string>& environment = {}) {
    Spawn(rules, more, environment);
    ASSERT_TRUE(WaitForOutput("ready at")) << Output();
  }
  [[nodiscard]] std::string Socket() const { return Path("socket"); }
  [[nodiscard]] std::string Output() const {
    std::string text(1 << 16, '\0');
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(0, ::pread(err_.Get(), text.data(), text.size(), 0))));
    return text;
  }
  [[nodiscard]] bool WaitForOutput(const std::string& text) const {
    return WaitUntil([&] { return Output().find(text) != std::string::npos; }, kLong);
  }
  void Signal(int signal) const { ::kill(pid_, signal); }
  // The exit status; -1 after a signal.
  [[nodiscard]] int WaitForEnd() {
    int status = 0;
    if (!WaitUntil([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, kLong)) {
      return -2;
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  [[nodiscard]] std::unique_ptr<Client> Connect() const {
    return std::make_unique<Client>(agent::ConnectToRelay(Socket()));
  }
  [[nodiscard]] vond_relay::Status Status() const { return agent::AskForStatus(*Connect(), kLong); }
  // Kills the daemon and waits until another has taken its place.
  void KillDaemon() const {
    const vond_relay::Status before = Status();
    ASSERT_GT(before.daemon_pid(), 0);
    ::kill(static_cast<pid_t>(before.daemon_pid()), SIGKILL);
    ASSERT_TRUE(WaitUntil([&] { return Status().restarts() > before.restarts(); }, kLong));
  }
  [[nodiscard]] std::string VerdictOn(const std::string& content) const {
    return Verdict(Connect()->Scan(MakeFile(content).Get(), BlockScan(), kLong));
  }
  // Runs vondctl with the socket's path in the place of "@".
  [[nodiscard]] ChildResult Vondctl(std::vector<std::string> arguments) const {
    std::replace(arguments.begin(), arguments.end(), std::string("@"), Socket());
    arguments.insert(arguments.begin(), VONDCTL_PATH);
    return RunChild(arguments, {}, kLong);
  }
  // Puts other rules in the place of those in force and waits for the relay's word on them.
  void Reload(const std::string& rules) const {
    const vond_relay::Policy before = Status().policy();
    Write("r.yar", rules);
    Signal(SIGHUP);
    ASSERT_TRUE(WaitUntil(
        [&] {
          const vond_relay::Policy now = Status().policy();
          return now.generation() + now.refused() > before.generation() + before.refused();
        },
        kLong));
  }

  std::string folder_ = testing::TempDir() + "vond-relay-" + std::to_string(::getpid());
  ManagedFD err_ = [] {
    ManagedFD file = MakeFile("");
    ::fcntl(file.Get(), F_SETFL, O_APPEND);
    return file;
  }();
  pid_t pid_ = -1;
};

// An agent that scans without a break on a thread of its own, files with "alpha" and others in turn.
class BusyAgent {
 public:
  BusyAgent(const std::string& socket, std::size_t files) : client_(agent::ConnectToRelay(socket)), files_(files) {
    thread_ = std::thread([this] { Run(); });
  }
  ~BusyAgent() {
    stop_ = true;
    Join();
  }
  BusyAgent(const BusyAgent&) = delete;
  BusyAgent& operator=(const BusyAgent&) = delete;

  void Join() {
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  void Stop() { stop_ = true; }
  [[nodiscard]] std::size_t Answered() const { return answered_; }
  [[nodiscard]] std::size_t Sent() const { return sent_; }
  // The first answer that was not right; empty if there is none.
  [[nodiscard]] std::string Wrong() {
    const korvo::utils::MutexLock lock(mutex_);
    return wrong_;
  }

 private:
  void Run() {
    const ManagedFD alpha = MakeFile("an alpha file");
    const ManagedFD clean = MakeFile("a file without it");
    for (std::size_t i = 0; i < files_ && !stop_; ++i) {
      const bool matches = i % 2 == 0;
      ++sent_;
      client_.ScanAsync((matches ? alpha : clean).Get(), BlockScan(), std::chrono::steady_clock::now() + kLong,
                        [this, matches](const agent::ScanAnswer& answer) {
                          const std::string verdict = Verdict(answer);
                          if (verdict != (matches ? "Alpha" : "")) {
                            const korvo::utils::MutexLock lock(mutex_);
                            wrong_ = wrong_.empty() ? "not right: " + verdict : wrong_;
                          }
                          ++answered_;
                        });
    }
    EXPECT_TRUE(WaitUntil([this] { return answered_ == sent_; }, kLong));
  }

  korvo::utils::Mutex mutex_;
  std::string wrong_ GUARDED_BY(mutex_);
  std::atomic<std::size_t> answered_{0};
  std::atomic<std::size_t> sent_{0};
  std::atomic<bool> stop_{false};
  Client client_;
  std::size_t files_;
  std::thread thread_;
};

// A process of its own that sends scans and reads nothing, until it is killed. Made before there are threads.
class KilledAgent {
 public:
  explicit KilledAgent(const std::string& socket) {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    told_.Reset(ends[0]);
    ManagedFD tell(ends[1]);
    const ManagedFD file = MakeFile("alpha");
    pid_ = ::fork();
    if (pid_ == 0) {
      const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
      if (WithAddress(::connect, fd, socket) == 0) {
        for (std::uint64_t id = 0; id < 40 && SendScan(fd, id, file.Get(), MSG_DONTWAIT); ++id) {
        }
        static_cast<void>(!::write(tell.Get(), "x", 1));
      }
      while (true) {
        ::pause();
      }
    }
  }
  ~KilledAgent() { Kill(); }
  KilledAgent(const KilledAgent&) = delete;
  KilledAgent& operator=(const KilledAgent&) = delete;

  void WaitUntilAtWork() const {
    pollfd readable{told_.Get(), POLLIN, 0};
    EXPECT_EQ(::poll(&readable, 1, 60000), 1);
  }
  void Kill() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
      pid_ = -1;
    }
  }

 private:
  ManagedFD told_;
  pid_t pid_ = -1;
};

TEST_F(RelayTest, OneThatReadsNothingOneThatTalksNonsenseAndOneThatIsKilledDoNotDisturbTheOthers) {
  // Answers of 20 KB, so that one who reads none fills any buffer.
  const std::string text = " = \"" + std::string(7000, 'x') + "\" ";
  Start(Rule("Alpha", "alpha", "$a", "a" + text + "b" + text + "c" + text), {"--client-timeout", "2"});
  const std::size_t descriptors = OpenDescriptors(pid_).size();
  KilledAgent killed(Socket());
  killed.WaitUntilAtWork();

  std::atomic<bool> unread_closed{false};
  std::thread unread([&] {
    const ManagedFD fd = agent::ConnectToRelay(Socket());
    const ManagedFD file = MakeFile("alpha");
    std::uint64_t id = 0;
    while (id < 100'000 && SendScan(fd.Get(), id, file.Get())) {
      ++id;
    }
    unread_closed = id < 100'000;
  });
  std::vector<std::unique_ptr<BusyAgent>> agents;
  for (int i = 0; i < 5; ++i) {
    agents.push_back(std::make_unique<BusyAgent>(Socket(), 200));
  }
  killed.Kill();
  for (const std::string& nonsense : {std::string("\xff\xff nonsense"), std::string(200'000, 'x')}) {
    const ManagedFD fd = agent::ConnectToRelay(Socket());
    const ManagedFD file = MakeFile("alpha");
    EXPECT_TRUE(SendScan(fd.Get(), 1, file.Get()));
    ASSERT_EQ(::send(fd.Get(), nonsense.data(), nonsense.size(), MSG_NOSIGNAL), static_cast<ssize_t>(nonsense.size()));
    char byte = 0;
    EXPECT_TRUE(WaitUntil([&] { return ::recv(fd.Get(), &byte, 1, MSG_DONTWAIT) == 0; }, kLong)) << "not closed";
  }
  for (const auto& agent : agents) {
    agent->Join();
    EXPECT_EQ(agent->Answered(), 200U);
    EXPECT_EQ(agent->Wrong(), "");
  }
  unread.join();
  EXPECT_TRUE(unread_closed) << "who reads nothing is closed at last";
  const vond_relay::Status status = Status();
  EXPECT_EQ(status.clients().malformed(), 2U);
  EXPECT_EQ(status.clients().stalled(), 1U);
  EXPECT_EQ(status.restarts(), 0U) << Output();
  agents.clear();
  EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors(pid_).size() == descriptors; }, kLong))
      << "descriptors of the clients stay open";
}

TEST_F(RelayTest, OneWithManyRequestsDoesNotKeepAnotherWaiting) {
  Start(kAlpha + kWork);
  auto greedy = Connect();
  const ManagedFD file = MakeFile("work");
  std::atomic<std::size_t> answered{0};
  constexpr std::size_t kMany = 90;  // that one client may have open
  for (std::size_t i = 0; i < kMany; ++i) {
    greedy->ScanAsync(file.Get(), BlockScan(), std::chrono::steady_clock::now() + kLong,
                      [&](const agent::ScanAnswer&) { ++answered; });
  }
  EXPECT_EQ(VerdictOn("alpha"), "Alpha");
  EXPECT_LT(answered, kMany / 2) << "the others waited for the one with many";
  greedy.reset();  // what it had is dropped
  EXPECT_TRUE(WaitUntil([&] { return Status().waiting() + Status().in_flight() == 0; }, kLong));
}

TEST_F(RelayTest, ADaemonThatIsKilledIsReplacedAndNoScanIsLost) {
  Start(Rule("Beta", "beta"));
  Reload(kAlpha);
  const vond_relay::Status before = Status();
  BusyAgent first(Socket(), 1'000'000);
  BusyAgent second(Socket(), 1'000'000);
  for (int kills = 0; kills < 2; ++kills) {
    const std::size_t answered = first.Answered() + second.Answered();
    ASSERT_TRUE(WaitUntil([&] { return first.Answered() + second.Answered() > answered + 100; }, kLong));
    KillDaemon();
  }
  first.Stop();
  second.Stop();
  for (BusyAgent* const agent : {&first, &second}) {
    agent->Join();
    EXPECT_EQ(agent->Wrong(), "") << "the last policy in force is the one that comes back";
    EXPECT_EQ(agent->Answered(), agent->Sent());
  }
  const vond_relay::Status after = Status();
  EXPECT_EQ(after.restarts(), 2U);
  EXPECT_EQ(after.policy().generation(), 2U);
  EXPECT_EQ(after.policy().sha256(), before.policy().sha256());
  EXPECT_TRUE(after.alive());
  EXPECT_NE(Output().find("vond was killed by signal 9 (SIGKILL); starting it again in 0.1 s"), std::string::npos)
      << Output();
  // One that does nothing when its daemon dies notices it too.
  KillDaemon();
  EXPECT_EQ(VerdictOn("alpha"), "Alpha");
}

TEST_F(RelayTest, AFileThatHangsTheDaemonTwiceIsGivenUp) {
  Start(kAlpha + kSlow, {"--timeout", "0", "--deadline", "1"});
  const auto client = Connect();
  const ManagedFD slow = MakeFile("slow");
  agent::ScanAnswer slow_answer;
  std::atomic<bool> ended{false};
  client->ScanAsync(slow.Get(), BlockScan(), std::chrono::steady_clock::now() + kLong, [&](agent::ScanAnswer answer) {
    slow_answer = std::move(answer);
    ended = true;
  });
  EXPECT_EQ(VerdictOn("alpha"), "Alpha");
  ASSERT_TRUE(WaitUntil([&] { return ended.load(); }, kLong)) << Output();
  EXPECT_EQ(Verdict(slow_answer), "vond hung with this file, twice, and was killed");
  EXPECT_EQ(VerdictOn("alpha"), "Alpha");
  const vond_relay::Status status = Status();
  EXPECT_EQ(status.restarts(), 2U);
  EXPECT_EQ(status.scans().timeout(), 1U);
}

TEST_F(RelayTest, FiveCrashesWithinAMinuteAreTheEnd) {
  Start(kAlpha);
  for (int kills = 0; kills < 4; ++kills) {
    KillDaemon();
  }
  const auto client = Connect();
  const vond_relay::Status status = agent::AskForStatus(*client, kLong);
  EXPECT_EQ(status.restarts(), 4U);
  ::kill(static_cast<pid_t>(status.daemon_pid()), SIGKILL);
  EXPECT_EQ(WaitForEnd(), 4);
  EXPECT_NE(Output().find("given up: vond was killed by signal 9 (SIGKILL); that was crash 5 within a minute"),
            std::string::npos)
      << Output();
  EXPECT_FALSE(fs::exists(Socket()));
  EXPECT_EQ(Verdict(client->Scan(MakeFile("alpha").Get(), BlockScan(), kLong)), "the relay has closed the connection");
}

TEST_F(RelayTest, TheFirstDaemonThatFailsIsSaidSo) {
  Spawn(kAlpha, {"--vond", "/bin/true"});
  EXPECT_EQ(WaitForEnd(), 4);
  EXPECT_NE(Output().find("vondctl: "), std::string::npos);
  EXPECT_FALSE(fs::exists(Socket()));
}

TEST_F(RelayTest, ReloadingDropsNoScanAndARefusedPolicyChangesNothing) {
  Start(kAlpha);
  BusyAgent agent(Socket(), 1'000'000);
  for (int reloads = 2; reloads <= 4; ++reloads) {
    const std::size_t answered = agent.Answered();
    ASSERT_TRUE(WaitUntil([&] { return agent.Answered() > answered + 50; }, kLong));
    Reload(kAlpha + Rule("New" + std::to_string(reloads), "gamma"));
    EXPECT_EQ(VerdictOn("gamma"), "New" + std::to_string(reloads));
  }
  const vond_relay::Policy before = Status().policy();
  EXPECT_EQ(before.generation(), 4U);
  Reload("rule Broken {");
  EXPECT_TRUE(WaitForOutput("the policy was not put in force, the former one stays: it has errors")) << Output();
  EXPECT_NE(Output().find("policy refused: 3 errors"), std::string::npos) << Output();
  const vond_relay::Policy after = Status().policy();
  EXPECT_EQ(after.generation(), 4U);
  EXPECT_EQ(after.refused(), 1U);
  EXPECT_EQ(after.sha256(), before.sha256());
  EXPECT_EQ(VerdictOn("gamma"), "New4");
  agent.Stop();
  agent.Join();
  EXPECT_EQ(agent.Wrong(), "");
  EXPECT_EQ(Status().restarts(), 0U);
}

TEST_F(RelayTest, AnAgentOfTheOwnerMaySetThePolicyAndItOutlivesTheDaemonAndItsFiles) {
  Start(kAlpha);
  {
    const auto client = Connect();
    const ManagedFD rules = MakeFile(Rule("Delta", "delta"));
    agent::Policy policy;
    policy.document.add_rule_sets();
    policy.rule_set_fds = {rules.Get()};
    client->ApplyPolicy(policy, kLong);
    ASSERT_EQ(::ftruncate(rules.Get(), 0), 0);
    policy.document.mutable_rule_sets(0)->set_fd_index(5);
    EXPECT_THROW(client->ApplyPolicy(policy, kLong), agent::Error);
  }
  KillDaemon();
  EXPECT_EQ(VerdictOn("delta alpha"), "Delta");
  EXPECT_EQ(Status().policy().generation(), 2U);
}

// What a process of another user gets: "refused" (by the kernel), "closed", or the verdict on "alpha" and the relay's
// word on a policy of its own.
std::string AsNobody(const std::string& socket) {
  std::array<int, 2> ends{};
  EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  const ManagedFD out(ends[0]);
  ManagedFD in(ends[1]);
  const pid_t pid = ::fork();
  if (pid == 0) {
    std::string text = "no other user";
    if (::setgroups(0, nullptr) == 0 && ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0) {
      try {
        Client client(agent::ConnectToRelay(socket));
        agent::Policy policy;
        policy.json = "{}";
        text = Verdict(client.Scan(MakeFile("alpha").Get(), BlockScan(), kLong));
        client.ApplyPolicy(policy, kLong);
        text += " policy taken";
      } catch (const agent::Error& e) {
        text += e.Code() == agent::ErrorCode::kStartFailed     ? "refused"
                : e.Code() == agent::ErrorCode::kPolicyRefused ? " policy refused"
                                                               : std::string(" ") + e.what();
        text = text.substr(text.starts_with("no other user") ? std::strlen("no other user") : 0);
      }
    }
    static_cast<void>(!::write(in.Get(), text.data(), text.size()));
    ::_exit(0);
  }
  in.Reset();
  std::string text(1000, '\0');
  text.resize(static_cast<std::size_t>(std::max<ssize_t>(0, ::read(out.Get(), text.data(), text.size()))));
  ::waitpid(pid, nullptr, 0);
  return text;
}

TEST_F(RelayTest, OtherUsersMayScanIfTheyAreLetInAndNeverSetThePolicy) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "only root can be another user";
  }
  const std::string closed = "the relay has closed the connection the relay has closed the connection";
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
      {{}, "refused"},
      {{"--mode", "0666"}, "Alpha policy refused"},
      {{"--allow-uid", "65534"}, "Alpha policy refused"},
      {{"--allow-gid", "7", "--allow-gid", "65534"}, "Alpha policy refused"},
      {{"--allow-uid", "12345", "--allow-gid", "7"}, closed},
  };
  for (const auto& [arguments, expected] : cases) {
    Start(kAlpha, arguments);
    EXPECT_EQ(AsNobody(Socket()), expected) << testing::PrintToString(arguments);
    EXPECT_EQ(VerdictOn("alpha"), "Alpha");
    Signal(SIGTERM);
    EXPECT_EQ(WaitForEnd(), 0);
    ASSERT_EQ(::ftruncate(err_.Get(), 0), 0);
  }
}

TEST_F(RelayTest, TakesThePlaceOfADeadSocketOnly) {
  {
    const ManagedFD dead(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    ASSERT_EQ(WithAddress(::bind, dead.Get(), Socket()), 0);
  }
  Start(kAlpha, {"--mode", "0640"});
  struct stat status {};
  ASSERT_EQ(::stat(Socket().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0640U);
  EXPECT_EQ(VerdictOn("alpha"), "Alpha");

  const std::vector<std::string> again{"start", "--listen", "@", "--rules", Path("r.yar")};
  ChildResult second = Vondctl(again);
  EXPECT_EQ(second.exit_status, 2);
  EXPECT_NE(second.err.find("somebody answers at " + Socket()), std::string::npos) << second.err;
  EXPECT_EQ(VerdictOn("alpha"), "Alpha") << "the first one's socket is left alone";

  // A socket that somebody else has made meanwhile under that name is not removed at the end.
  ASSERT_EQ(::unlink(Socket().c_str()), 0);
  Write("socket", "a file");
  Signal(SIGTERM);
  EXPECT_EQ(WaitForEnd(), 0);
  second = Vondctl(again);
  EXPECT_EQ(second.exit_status, 2);
  EXPECT_NE(second.err.find("is no socket and is left alone"), std::string::npos) << second.err;
  EXPECT_TRUE(fs::is_regular_file(Socket()));
}

TEST_F(RelayTest, TellsTheServiceManagerAndEndsWithWhatIsUnderWay) {
  const ManagedFD manager(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(WithAddress(::bind, manager.Get(), Path("notify")), 0);
  const auto next = [&] {
    std::string text(1000, '\0');
    pollfd readable{manager.Get(), POLLIN, 0};
    const ssize_t size =
        ::poll(&readable, 1, 60000) == 1 ? ::recv(manager.Get(), text.data(), text.size(), 0) : ssize_t{0};
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return text;
  };
  Start(kAlpha + kWork, {}, {"NOTIFY_SOCKET=" + Path("notify")});
  EXPECT_TRUE(next().starts_with("READY=1\n"));
  Signal(SIGHUP);
  EXPECT_TRUE(next().starts_with("RELOADING=1\nMONOTONIC_USEC="));
  EXPECT_TRUE(next().starts_with("READY=1\n"));

  const auto client = Connect();
  const ManagedFD work = MakeFile("work");
  std::atomic<int> scanned{0};
  std::atomic<int> ended{0};
  constexpr int kScans = 20;
  for (int i = 0; i < kScans; ++i) {
    client->ScanAsync(work.Get(), BlockScan(), std::chrono::steady_clock::now() + kLong,
                      [&](const agent::ScanAnswer& answer) {
                        scanned += Verdict(answer) == "Work" ? 1 : 0;
                        ++ended;
                      });
  }
  ASSERT_TRUE(WaitUntil([&] { return Status().in_flight() > 0; }, kLong));
  Signal(SIGTERM);
  EXPECT_EQ(next(), "STOPPING=1");
  EXPECT_EQ(WaitForEnd(), 0);
  EXPECT_TRUE(WaitUntil([&] { return ended == kScans; }, kLong)) << "each one has an end";
  EXPECT_GT(scanned, 0) << "what was with the daemon was answered";
  EXPECT_FALSE(fs::exists(Socket()));
}

TEST_F(RelayTest, StatusAndMetricsTellWhatWasScanned) {
  EXPECT_EQ(Vondctl({"status", "--connect", "@"}).exit_status, 4);
  EXPECT_EQ(Vondctl({"status", "--connect", "@", "--wait", "0.2"}).exit_status, 4);
  Spawn(kAlpha, {"--prometheus", Path("metrics")});
  ChildResult result = Vondctl({"status", "--connect", "@", "--wait", "100", "--json"});
  ASSERT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(json::parse(result.out)["policy"]["generation"], 1);

  const auto client = Connect();
  for (const char* const content : {"alpha", "clean", "alpha too"}) {
    static_cast<void>(client->Scan(MakeFile(content).Get(), BlockScan(), kLong));
  }
  // Neither a pipe nor a type without rules reads as clean.
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  const ManagedFD out(ends[0]);
  const ManagedFD in(ends[1]);
  const agent::Answer pipe = client->Send(MakeScan(0, {0}), {out.Get()}, kLong);
  EXPECT_TRUE(pipe.response.has_generic_result());
  EXPECT_FALSE(client->Send(MakeScan(7, {0}), {MakeFile("alpha").Get()}, kLong).error);
  EXPECT_FALSE(client->Send(MakeScan(0, {0}), {}, kLong).error) << "without a descriptor";
  // The other requests go through as they are.
  korvo_daemon::Request request;
  request.mutable_stats();
  EXPECT_TRUE(client->Send(request, {}, kLong).response.has_stats());
  request.mutable_plugin_request()->set_function_name("another");
  const korvo_daemon::Response header_alone = client->Send(request, {}, kLong).response;
  EXPECT_EQ(header_alone.data_case(), korvo_daemon::Response::DATA_NOT_SET);

  result = Vondctl({"status", "--connect", "@", "--format", "jsonl"});
  EXPECT_EQ(result.exit_status, 0);
  const json status = json::parse(result.out);
  EXPECT_EQ(status["alive"], true);
  EXPECT_EQ(status["scans"],
            (json{{"match", 2}, {"clean", 1}, {"timeout", 0}, {"skipped", 1}, {"error", 2}, {"retried", 0}}));
  EXPECT_EQ(status["bytes"], 24);
  EXPECT_EQ(status["latency"]["count"], 5);
  EXPECT_GT(status["latency"]["p99"], 0);
  EXPECT_EQ(status["rules"], (json::array({{{"rule", "Alpha"}, {"rule_type", "block"}, {"hits", 2}}})));
  EXPECT_EQ(status["policy"]["rule_sets"], (json::array({{{"file_type", 0}, {"rule_type", "block"}, {"rules", 1}}})));
  EXPECT_EQ(status["policy"]["sha256"].get<std::string>().size(), 64U);

  result = Vondctl({"status", "--connect", "@"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_NE(result.out.find("\nscans     6: 2 matched, 1 clean, 0 timed out, 1 skipped, 2 failed\n"), std::string::npos)
      << result.out;
  EXPECT_NE(result.out.find("\nrules     2 Alpha (block)\n"), std::string::npos) << result.out;

  Signal(SIGTERM);
  EXPECT_EQ(WaitForEnd(), 0);
  std::ifstream file(Path("metrics"));
  const std::string metrics{std::istreambuf_iterator<char>(file), {}};
  EXPECT_NE(metrics.find("\nvond_scans_total{outcome=\"match\"} 2\n"), std::string::npos) << metrics;
  EXPECT_NE(metrics.find("\nvond_rule_hits_total{rule=\"Alpha\",type=\"block\"} 2\n"), std::string::npos) << metrics;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder_)) {
    EXPECT_FALSE(entry.path().filename().string().starts_with("metrics.")) << "a temporary file is left";
  }
}

TEST_F(RelayTest, PromtoolTakesTheMetrics) {
  if (RunChild({"/bin/sh", "-c", "command -v promtool"}).exit_status != 0) {
    GTEST_SKIP() << "promtool is not installed";
  }
  Start(kAlpha, {"--prometheus", Path("metrics")});
  EXPECT_EQ(VerdictOn("alpha"), "Alpha");
  Signal(SIGTERM);
  EXPECT_EQ(WaitForEnd(), 0);
  const ChildResult result = RunChild({"/bin/sh", "-c", "promtool check metrics < '" + Path("metrics") + "'"});
  EXPECT_EQ(result.exit_status, 0) << result.out << result.err;
  EXPECT_EQ(result.out + result.err, "");
}

TEST_F(RelayTest, ScanWithConnectIsAsOneWithADaemonOfItsOwn) {
  fs::create_directories(Path("tree"));
  Write("tree/a", "alpha");
  Write("tree/b", "clean");
  Write("tree/large", std::string(2000, 'x'));
  Write("policy.json", R"({"max_sample_size":1000,"rule_sets":[{"path":"p.yar"}]})");
  Write("p.yar", kAlpha);
  EXPECT_EQ(Vondctl({"scan", "--connect", "@", Path("tree")}).exit_status, 4);
  Start("", {"--policy", Path("policy.json")});
  const ChildResult own = Vondctl({"scan", "--all", "-q", "--policy", Path("policy.json"), Path("tree")});
  const ChildResult relayed = Vondctl({"scan", "--all", "-q", "--connect", "@", Path("tree")});
  EXPECT_EQ(own.exit_status, 2);
  EXPECT_EQ(relayed.exit_status, own.exit_status);
  EXPECT_NE(own.out.find("/tree/a: Alpha"), std::string::npos) << own.out;
  EXPECT_NE(own.out.find("max_sample_size"), std::string::npos) << own.out;
  const auto sorted = [](const std::string& text) {
    std::vector<std::string> lines = Lines(text);
    std::sort(lines.begin(), lines.end());
    return lines;
  };
  EXPECT_EQ(sorted(relayed.out), sorted(own.out));
  EXPECT_EQ(relayed.err, own.err);
  const ChildResult both = Vondctl({"scan", "--connect", "@", "--rules", Path("p.yar"), Path("tree")});
  EXPECT_EQ(both.exit_status, 64);
  EXPECT_NE(both.err.find("--connect"), std::string::npos) << both.err;
  // What agents check on their side the relay checks for those that do not.
  const auto client = Connect();
  const ManagedFD large = MakeFile(std::string(2000, 'x'));
  const agent::ScanAnswer answer = client->Scan(large.Get(), BlockScan(), kLong);
  ASSERT_TRUE(answer.error);
  EXPECT_EQ(answer.error->Code(), agent::ErrorCode::kFileTooLarge);
}

}  // namespace
}  // namespace vond::test
