#include <fcntl.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "tests/support/case_table.h"
#include "tests/support/running_daemon.h"
#include "tests/support/test_support.h"
#include "utils/ipc_channel.h"
#include "utils/unix_fds.h"

// Input that must do no harm: one table in tests/data per kind, its columns and notation explained there. After every
// row the same daemon answers, the rules of before decide, and no descriptor is left open.
namespace vond::test {
namespace {

using auto_resources::ManagedFD;
using google::protobuf::TextFormat;
using korvo::utils::MutexLock;
using korvo_daemon::Request;
using std::chrono::seconds;

const std::string kRuleA = "rule A { meta: id = \"a\" action = \"block\" strings: $a = \"alpha\" condition: $a }";
const std::string kRuleB = "rule B { meta: id = \"b\" action = \"block\" strings: $b = \"beta\" condition: $b }";
const std::string kDocument = R"({"yara_timeout_in_seconds":1,"rule_sets":[{}]})";
const std::string kAnswerA = "results { key: 0 value { result { matched_rules { name: \"A\" } } } }";
const std::string kAccepted = "config_result { success: true }";
const std::string kInstalled = "INFO New configuration loaded successfully";

std::string ConfigPacket(const std::string& document) {
  Request request;
  request.mutable_config()->set_log_level(6);
  request.mutable_config()->mutable_user_config()->set_data(document);
  return request.SerializeAsString();
}

// The real vond on a bare channel: most of what is sent here the agent library would refuse to send.
class Daemon {
 public:
  Daemon() { static_cast<void>(TakeLog()); }
  explicit Daemon(const std::string& rules) : Daemon() { InstallRules(rules); }

  [[nodiscard]] agent::DaemonProcess& Process() { return process_; }

  void Send(const std::string& packet, const std::vector<int>& fds) {
    const int channel = process_.ChannelFd();
    const bool sent = fds.empty() ? ::send(channel, packet.data(), packet.size(), MSG_NOSIGNAL) >= 0
                                  : korvo::static_pattern_matching_daemon::unix_send_fds(
                                        channel, fds.data(), fds.size(), packet.data(), packet.size()) == 0;
    ASSERT_TRUE(sent);
  }
  // The answer as text; the scan response within a generic one takes its place, without the metadata of rules.
  std::string Ask(const std::string& packet, const std::vector<int>& fds = {}) {
    Send(packet, fds);
    korvo_daemon::Response response;
    EXPECT_EQ(channel_.ReceiveMessage(response, std::size_t{1} << 20, 60000), 0);
    std::string scanned;
    if (response.has_generic_data_response()) {
      auto scan = ParseScan(response);
      for (auto& [rule_type, entry] : *scan.mutable_results()) {
        for (int i = 0; i < entry.result().matched_rules_size(); ++i) {
          entry.mutable_result()->mutable_matched_rules(i)->clear_metadata_items();
        }
      }
      scanned = " scan " + scan.ShortDebugString();
      response.clear_data();
    }
    return response.ShortDebugString() + scanned;
  }
  std::string AskWithoutHeader(const std::string& packet, const std::vector<int>& fds) {
    return Replace(Ask(packet, fds), "header { } ", "");
  }
  std::string Scan(const std::vector<int>& fds) {
    return Replace(AskWithoutHeader(MakeScan(0, {0}).SerializeAsString(), fds), "scan ", "");
  }
  void InstallRules(const std::string& rules) {
    ASSERT_EQ(AskWithoutHeader(ConfigPacket(kDocument), {MakeFile(rules).Get()}), kAccepted);
    for (const std::string& line : TakeLog()) {
      ASSERT_TRUE(line.starts_with("INFO ")) << line;
      routine_.insert(line);
    }
    routine_.erase(kInstalled);
  }

  // What the daemon has logged since the last time, but for the lines that every good policy logs on its way. If one
  // has been `installed`, the line that says so must be the last one, and is taken off.
  std::vector<std::string> TakeLog(bool installed = false) {
    // The log goes its own way to us: once all lines of this policy are there, so is what was before them.
    static_cast<void>(Ask(ConfigPacket("marker")));
    std::vector<std::string> lines;
    EXPECT_TRUE(WaitUntil([&] {
      const MutexLock lock(mutex_);
      const auto marker = std::find_if(log_.begin(), log_.end(), [](const std::string& line) {
        return line.starts_with("ERROR Failed converting JSON=marker ");
      });
      const bool complete = marker != log_.end() && log_.back().starts_with("ERROR ProcessConfig failed");
      if (complete) {
        lines.assign(log_.begin(), marker);
        log_.clear();
      }
      return complete;
    }));
    std::erase_if(lines, [&](const std::string& line) { return routine_.contains(line); });
    if (installed) {
      EXPECT_TRUE(!lines.empty() && lines.back() == kInstalled);
      lines.resize(std::max<std::size_t>(lines.size(), 1) - 1);
    }
    return lines;
  }
  std::vector<std::string> TakeLastLog() {
    EXPECT_TRUE(process_.WaitForOutputEnd(seconds(20)));
    const MutexLock lock(mutex_);
    return log_;
  }

  // Else fails fatally: a dead daemon would fail every further row, slowly.
  void ExpectServing(const std::string& answer = kAnswerA) {
    ASSERT_EQ(Scan({MakeFile("alpha").Get()}), answer);
    // The answer goes out before the descriptors are closed. An idle daemon has its streams, channel and signal pipe.
    ASSERT_TRUE(WaitUntil([&] { return OpenDescriptors(process_.Pid()) == std::set<int>{0, 1, 2, 3, 4, 5}; }));
  }

 private:
  agent::DaemonOptions Options() {
    agent::DaemonOptions options;
    options.executable = VOND_PATH;
    options.sandbox = TestSandbox();
    options.on_output = [this](agent::OutputStream stream, const std::string& line) {
      const MutexLock lock(mutex_);
      if (stream == agent::OutputStream::kStdout) {
        log_.push_back(line);
      }
    };
    return options;
  }

  korvo::utils::Mutex mutex_;
  std::vector<std::string> log_ GUARDED_BY(mutex_);
  std::set<std::string> routine_{"INFO Processing new configuration.."};
  agent::DaemonProcess process_{Options()};
  korvo::static_pattern_matching_daemon::IpcChannel channel_{::dup(process_.ChannelFd())};
};

void CheckPolicies(const Table& table, const std::function<std::string(Daemon&, const std::string&)>& install) {
  Daemon daemon(kRuleA);
  for (const auto& row : table.Rows()) {
    SCOPED_TRACE(row.at(0));
    const std::string input = table.Expand(row.at(0));
    const bool accepted = row.size() > 2;  // then a scan shows by what
    EXPECT_EQ(install(daemon, input), accepted ? kAccepted : "config_result { }");
    EXPECT_EQ(daemon.TakeLog(accepted), table.LogLines(row.at(1), input));
    if (accepted) {
      const std::string answer = daemon.Scan({MakeFile(table.Expand(row.at(2))).Get()});
      EXPECT_EQ(answer, table.Expand(row.at(3)));
      const bool looked_up = answer.find("ScanStatus_YaraScanFailed") == std::string::npos;
      EXPECT_EQ(daemon.TakeLog(), Lines(looked_up ? "" : "ERROR ScanFile failed with error: _Map_base::at"));
      daemon.InstallRules(kRuleA);
    }
    ASSERT_NO_FATAL_FAILURE(daemon.ExpectServing());
  }
}

TEST(BadInput, Documents) {
  const ManagedFD a = MakeFile(kRuleA);
  const ManagedFD b = MakeFile(kRuleB);
  CheckPolicies(Table("bad_documents.txt", 150), [&](Daemon& daemon, const std::string& document) {
    return daemon.AskWithoutHeader(ConfigPacket(document), {a.Get(), b.Get()});
  });
}

TEST(BadInput, Rules) {
  CheckPolicies(Table("bad_rules.txt", 140), [](Daemon& daemon, const std::string& source) {
    const std::string document = R"({"yara_timeout_in_seconds":2,"rule_sets":[{}]})";
    return daemon.AskWithoutHeader(ConfigPacket(document), {MakeFile(source).Get()});
  });
}

std::string Packet(const std::string& text) {
  Request request;
  static_pattern_matching_proto::ScanRequest scan;
  if (text.starts_with("hex:")) {
    return Bytes(text.substr(4));
  }
  if (text.starts_with("data:")) {
    request.mutable_generic_data_request()->set_data(Bytes(text.substr(5)));
  } else if (text.starts_with("scan:")) {
    EXPECT_TRUE(TextFormat::ParseFromString(text.substr(5), &scan));
    request.mutable_generic_data_request()->set_data(scan.SerializeAsString());
  } else {
    EXPECT_TRUE(TextFormat::ParseFromString(text, &request));
  }
  return request.SerializeAsString();
}

TEST(BadInput, Packets) {
  const Table table("bad_packets.txt", 90);
  const ManagedFD file = MakeFile("alpha");
  Daemon fresh;
  Daemon daemon(kRuleA);
  for (const auto& row : table.Rows()) {
    SCOPED_TRACE(row.at(1));
    const std::string packet = Packet(table.Expand(row.at(1)));
    if (row.at(0) == "ends") {
      Daemon ending;
      ending.Send(packet, std::vector<int>(packet.empty() ? 0 : 1, file.Get()));
      const auto status = ending.Process().Wait(seconds(20));
      ASSERT_TRUE(status);
      EXPECT_FALSE(status->signaled);
      EXPECT_EQ(status->status, 0);
      EXPECT_EQ(ending.TakeLastLog(), table.LogLines(row.at(2)));
      continue;
    }
    Daemon& asked = row.at(0) == "fresh" ? fresh : daemon;
    const std::string answer = asked.Ask(packet, {file.Get()});
    EXPECT_EQ(answer, table.Expand(row.at(2)));
    EXPECT_EQ(asked.TakeLog(answer.ends_with(kAccepted)), table.LogLines(row.at(3)));
    ASSERT_NO_FATAL_FAILURE(asked.ExpectServing(row.at(0) == "fresh" ? table.Expand("<<!failed 0>>") : kAnswerA));
    static_cast<void>(asked.TakeLog());
  }
}

// The descriptors that a row of the table names; the other ends of pipes and sockets go to `kept`.
std::vector<ManagedFD> OpenDescriptorsOfKind(const std::string& kind, std::vector<ManagedFD>& kept) {
  ManagedFD file = MakeFile(kRuleA);
  const auto one_of = [&](const std::array<int, 2>& pair, std::size_t index) {
    kept.emplace_back(pair.at(1 - index));
    return pair.at(index);
  };
  const auto pipe_end = [&](std::size_t index) {
    std::array<int, 2> pair{};
    return ::pipe2(pair.data(), O_CLOEXEC) == 0 ? one_of(pair, index) : -1;
  };
  const auto socket = [&](int type) {
    std::array<int, 2> pair{};
    return ::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, pair.data()) == 0 ? one_of(pair, 0) : -1;
  };
  const auto sparse = [](off_t size) {
    const int fd = ::memfd_create("test", MFD_CLOEXEC);
    return ::ftruncate(fd, size) == 0 ? fd : -1;
  };
  const auto sealed = [&] {
    const int fd = ::memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    const bool written = ::write(fd, kRuleA.data(), kRuleA.size()) > 0;
    return written && ::fcntl(fd, F_ADD_SEALS, F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE) == 0 ? fd : -1;
  };
  const std::map<std::string, std::function<int()>> kinds{
      {"half-read memfd", [&] { return ::lseek(file.Get(), 20, SEEK_SET) == 20 ? ::dup(file.Get()) : -1; }},
      {"empty memfd", [] { return ::memfd_create("test", MFD_CLOEXEC); }},
      {"sparse memfd of 64 GiB", [&] { return sparse(off_t{64} << 30); }},
      {"sparse memfd of 0x7ffff001 bytes", [&] { return sparse(0x7ffff001); }},
      {"sealed memfd", sealed},
      {"reading end of a pipe", [&] { return pipe_end(0); }},
      {"writing end of a pipe", [&] { return pipe_end(1); }},
      {"stream socket", [&] { return socket(SOCK_STREAM); }},
      {"packet socket", [&] { return socket(SOCK_SEQPACKET); }},
      {"eventfd", [] { return ::eventfd(0, EFD_CLOEXEC); }},
      {"timerfd", [] { return ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC); }},
      {"epoll", [] { return ::epoll_create1(EPOLL_CLOEXEC); }},
      {"inotify", [] { return ::inotify_init1(IN_CLOEXEC); }}};
  static const std::map<std::string, int> kFlags{
      {"read", O_RDONLY}, {"write", O_WRONLY}, {"both", O_RDWR}, {"path", O_PATH}};
  const std::vector<std::string> words = Split(kind, ' ');
  std::vector<ManagedFD> sent;
  if (kFlags.contains(words.back())) {  // a path and how it is opened
    const std::string path = Replace(words[0], "memfd", "/proc/self/fd/" + std::to_string(file.Get()));
    sent.emplace_back(::open(path.c_str(), kFlags.at(words.back()) | O_CLOEXEC));
  } else if (words.back() == "memfds") {
    for (int i = std::stoi(words[0]); i > 0; --i) {
      sent.emplace_back(::dup(file.Get()));
    }
  } else {
    sent.emplace_back(kinds.at(kind)());
  }
  return sent;
}

TEST(BadInput, Descriptors) {
  const Table table("bad_descriptors.txt", 25);
  Daemon daemon(kRuleA);
  RunningDaemon guarded;
  ASSERT_TRUE(guarded.SetRules({kRuleA}, "\"yara_timeout_in_seconds\":1,"));
  for (const auto& row : table.Rows()) {
    SCOPED_TRACE(row.at(0));
    std::vector<ManagedFD> kept;
    std::vector<int> fds;
    const std::vector<ManagedFD> sent = OpenDescriptorsOfKind(row.at(0), kept);
    for (const ManagedFD& fd : sent) {
      ASSERT_TRUE(fd.IsValid());
      fds.push_back(fd.Get());
    }
    EXPECT_EQ(daemon.Scan(fds), table.Expand(row.at(1)));
    EXPECT_EQ(daemon.TakeLog(), table.LogLines(row.at(2)));
    const bool accepted = row.at(3).empty();
    EXPECT_EQ(daemon.AskWithoutHeader(ConfigPacket(kDocument), fds), accepted ? kAccepted : "config_result { }");
    EXPECT_EQ(daemon.TakeLog(accepted), table.LogLines(row.at(3)));
    if (accepted) {
      daemon.InstallRules(kRuleA);
    }
    if (sent.size() == 1) {
      EXPECT_EQ(Replace(guarded.Verdict(fds[0]), "descriptor " + std::to_string(fds[0]) + " is ", ""), row.at(4));
    }
    ASSERT_NO_FATAL_FAILURE(daemon.ExpectServing());
  }
}

TEST(BadInput, CommandLines) {
  namespace fs = std::filesystem;
  const Table table("bad_command_lines.txt", 110);
  std::array<int, 2> pair{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()), 0);
  const ManagedFD socket(pair[0]);
  ManagedFD(pair[1]).Reset();
  const fs::path folder = testing::TempDir() + "vond-bad-input-" + std::to_string(::getpid());
  fs::remove_all(folder);
  fs::create_directories(folder / "empty");
  for (const auto& [word, content] : table.Words()) {
    if (word.starts_with("!file ")) {
      const fs::path path = folder / table.Expand(word.substr(6));
      fs::create_directories(path.parent_path());
      std::ofstream(path) << table.Expand(content);
    }
  }
  for (const char* const parent : {".", "tree"}) {
    ASSERT_EQ(::mkfifo((folder / parent / "pipe").c_str(), 0600), 0);
  }
  fs::create_symlink("tree/beta", folder / "link");
  fs::create_symlink("alpha", folder / "tree/link");
  std::jthread writer([&folder](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      std::ofstream(folder / "growing", std::ios::app) << '.';
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });
  const auto expect = [&](const std::string& text, const std::string& cell) {
    const std::string expected = table.Expand(cell);
    const std::size_t dots = std::min(expected.find("..."), expected.size());
    EXPECT_TRUE(dots == expected.size()
                    ? text == expected
                    : text.starts_with(expected.substr(0, dots)) && text.ends_with(expected.substr(dots + 3)))
        << text << "instead of " << expected;
  };
  for (const auto& row : table.Rows()) {
    SCOPED_TRACE(row.at(0));
    std::vector<std::string> arguments = Split(row.at(0), ' ');
    for (std::string& argument : arguments) {
      argument = Replace(Replace(table.Expand(argument), "@", std::to_string(socket.Get())), "%", folder / "");
    }
    const std::string name = arguments[0];
    arguments[0] = name == "vond" ? VOND_PATH : VONDCTL_PATH;
    const ChildResult result = RunChild(arguments, {}, seconds(30), {socket.Get()});
    const bool aborts = row.at(1) == "aborts";
    EXPECT_EQ(result.signal, aborts ? SIGABRT : 0);
    EXPECT_EQ(result.exit_status, aborts ? -1 : std::stoi(row.at(1)));
    expect(Replace(result.out, folder / "", "%"), row.at(2));
    expect(Replace(Replace(result.err, arguments[0], name), folder / "", "%"), row.at(3));
  }
  writer.request_stop();
  writer.join();
  fs::remove_all(folder);
}

}  // namespace
}  // namespace vond::test
