#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "tests/support/test_support.h"

// `vondctl watch` as a program: which files it hears of, by either way of the kernel, and what it does with matches.
namespace vond::test {
namespace {

namespace fs = std::filesystem;
using auto_resources::ManagedFD;
using nlohmann::json;
using std::chrono::seconds;

constexpr seconds kPatience{60};
constexpr int kUsage = 64;

std::string Content(const ManagedFD& fd) {
  std::string text;
  std::array<char, 65536> buffer{};
  while (true) {
    const ssize_t count = ::pread(fd.Get(), buffer.data(), buffer.size(), static_cast<off_t>(text.size()));
    if (count <= 0) {
      return text;
    }
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A vondctl that watches until it is told to end.
class Watch {
 public:
  // `arguments` come behind "watch"; returns once it watches, or has ended.
  explicit Watch(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {VONDCTL_PATH, "watch", "--format", "jsonl", "--all"});
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
      argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(out_.Get(), 1);
      ::dup2(err_.Get(), 2);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    EXPECT_TRUE(WaitUntil([this] { return Says("watching ") || HasEnded(); }, kPatience)) << Errors();
  }
  ~Watch() {
    if (!HasEnded()) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  [[nodiscard]] pid_t Pid() const { return pid_; }
  [[nodiscard]] std::string Errors() const { return Content(err_); }
  [[nodiscard]] bool Says(const std::string& text) const { return Errors().find(text) != std::string::npos; }
  [[nodiscard]] bool WaitFor(const std::string& text) const {
    return WaitUntil([&] { return Says(text); }, kPatience);
  }
  // All whole lines so far.
  [[nodiscard]] std::vector<json> Results() const {
    std::vector<json> results;
    const std::string text = Content(out_);
    for (const std::string& line : Lines(text.substr(0, text.rfind('\n') + 1))) {
      results.push_back(json::parse(line));
    }
    return results;
  }
  // The last outcome of each file by its path.
  [[nodiscard]] std::map<std::string, std::string> Files() const {
    std::map<std::string, std::string> files;
    for (const json& line : Results()) {
      if (line["type"] == "file") {
        files[line["path"]] = line["outcome"];
      }
    }
    return files;
  }
  [[nodiscard]] bool WaitForFile(const std::string& path, const std::string& outcome) const {
    const auto has = [&] {
      const auto files = Files();
      const auto file = files.find(path);
      return file != files.end() && file->second == outcome;
    };
    EXPECT_TRUE(WaitUntil(has, kPatience)) << path << " is not " << outcome << "\n" << Content(out_) << Errors();
    return has();
  }
  [[nodiscard]] json Summary() const {
    const std::vector<json> results = Results();
    return !results.empty() && results.back()["type"] == "summary" ? results.back() : json();
  }
  void Signal(int signal) const { ::kill(pid_, signal); }
  // Stops it until Signal(SIGCONT), so that the kernel keeps what happens.
  void Freeze() const {
    Signal(SIGSTOP);
    EXPECT_TRUE(WaitUntil([this] {
      std::string stat = ReadFile("/proc/" + std::to_string(pid_) + "/stat");
      return stat.find(") T ") != std::string::npos;
    }));
  }
  // Its status as of waitpid, once it has ended.
  [[nodiscard]] int WaitForEnd() {
    EXPECT_TRUE(WaitUntil([this] { return HasEnded(); }, kPatience)) << Errors();
    return status_;
  }
  // The same as an exit status, or -1 if a signal ended it.
  [[nodiscard]] int ExitStatus() {
    const int status = WaitForEnd();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // Ends it as usual.
  [[nodiscard]] int Stop() {
    Signal(SIGTERM);
    return ExitStatus();
  }

 private:
  [[nodiscard]] bool HasEnded() {
    ended_ = ended_ || ::waitpid(pid_, &status_, WNOHANG) == pid_;
    return ended_;
  }

  ManagedFD out_ = MakeFile("");
  ManagedFD err_ = MakeFile("");
  pid_t pid_ = -1;
  bool ended_ = false;
  int status_ = 0;
};

std::string WhyNoFanotify() {
  const ManagedFD group(::fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC, O_RDONLY));
  if (!group.IsValid() || ::fanotify_mark(group.Get(), FAN_MARK_ADD | FAN_MARK_MOUNT, FAN_CLOSE_WRITE, AT_FDCWD,
                                          testing::TempDir().c_str()) != 0) {
    return std::string("fanotify is not permitted: ") + std::strerror(errno);
  }
  return "";
}

class WatchTest : public testing::Test {
 public:
  WatchTest() {
    fs::remove_all(folder_);
    fs::create_directories(Path("w"));
    Write("rules.yar",
          "rule Alpha { meta: id = \"a\" action = \"block\" strings: $a = \"alpha\" condition: $a }\n"
          // Busy for longer than any of these tests lets it.
          "rule Slow { meta: id = \"s\" action = \"block\" strings: $a = \"slow\" "
          "condition: $a and for all i in (0..1099511627776) : (i >= 0) }\n");
  }
  ~WatchTest() override {
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
  }

 protected:
  [[nodiscard]] std::string Path(const std::string& name) const { return folder_ + "/" + name; }
  void Write(const std::string& name, const std::string& content) const {
    fs::create_directories(fs::path(Path(name)).parent_path());
    std::ofstream(Path(name), std::ios::binary) << content;
  }
  [[nodiscard]] std::string WriteProgram(const std::string& name, const std::string& text) const {
    Write(name, "#!/bin/sh\n" + text);
    fs::permissions(Path(name), fs::perms::owner_all);
    return Path(name);
  }
  // What every watch here begins with.
  [[nodiscard]] std::vector<std::string> Arguments(const std::string& watcher,
                                                   const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments{"--watcher", watcher, "--rules", Path("rules.yar"), Path("w")};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }

  const std::string folder_ =
      fs::canonical(testing::TempDir()).string() + "/vond-watch-test-" + std::to_string(::getpid());
};

class WatchByEither : public WatchTest, public testing::WithParamInterface<std::string> {
 protected:
  void SetUp() override {
    if (const std::string why = WhyNoFanotify(); GetParam() == "fanotify" && !why.empty()) {
      GTEST_SKIP() << why;
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Watchers, WatchByEither, testing::Values("fanotify", "inotify"),
                         [](const auto& test) { return test.param; });

TEST_P(WatchByEither, HearsOfEachFileThatIsClosedAfterWritingAndOfNoOther) {
  Write("w/old", "alpha");
  Write("w/rewritten", "beta");
  Write("w/.git/x", "alpha");
  Write("outside", "alpha");
  fs::create_symlink(Path("outside"), Path("w/link"));
  fs::create_directory_symlink(Path("w"), Path("also"));
  ASSERT_EQ(::mkfifo(Path("w/pipe").c_str(), 0600), 0);
  std::vector<std::string> arguments = Arguments(GetParam(), {"--exclude", ".git", "--exclude", "*.tmp"});
  // By another name of the folder, which is the one that the results have.
  std::replace(arguments.begin(), arguments.end(), Path("w"), Path("also/"));
  Watch watch(arguments);
  const std::set<int> before = OpenDescriptors(watch.Pid());

  EXPECT_EQ(ReadFile(Path("w/old")), "alpha");
  Write("w-beside/x", "alpha");
  Write("outside", "alpha again");
  Write("w/.git/x", "alpha again");
  Write("w/x.tmp", "alpha");
  { const ManagedFD both(::open(Path("w/pipe").c_str(), O_RDWR | O_CLOEXEC)); }
  Write("w/new", "an alpha");
  Write("w/rewritten", "alpha");
  Write("w/a/b/c/deep", "alpha");
  Write("w/a/b/empty", "");
  Write("w/with \xff and \n", "beta");
  const std::map<std::string, std::string> expected{{Path("also/new"), "match"},
                                                    {Path("also/rewritten"), "match"},
                                                    {Path("also/a/b/c/deep"), "match"},
                                                    {Path("also/a/b/empty"), "clean"},
                                                    {Path("also/with \uFFFD and \n"), "clean"}};
  for (const auto& [path, outcome] : expected) {
    ASSERT_TRUE(watch.WaitForFile(path, outcome));
  }
  Write("w/a/b/empty", "alpha");  // in a folder that is known by now
  ASSERT_TRUE(watch.WaitForFile(Path("also/a/b/empty"), "match"));
  // The whole mount is watched, so files that others write come and go in either listing.
  const auto came_back = [&] {
    const std::set<int> now = OpenDescriptors(watch.Pid());
    return std::includes(before.begin(), before.end(), now.begin(), now.end());
  };
  EXPECT_TRUE(WaitUntil(came_back, kPatience));

  EXPECT_EQ(watch.Stop(), 1);
  std::map<std::string, std::string> all = expected;
  all[Path("also/a/b/empty")] = "match";
  EXPECT_EQ(watch.Files(), all);
  EXPECT_EQ(watch.Summary()["end"], "complete");
  EXPECT_EQ(watch.Summary()["exit"], 1);
  EXPECT_EQ(watch.Summary()["watch"]["watcher"], GetParam());
  EXPECT_EQ(watch.Summary()["watch"]["lost"], 0);
}

TEST_P(WatchByEither, WhatWasClosedBeforeTheSignalIsScanned) {
  constexpr std::size_t kFiles = 300;  // more than are taken up at once
  Watch watch(Arguments(GetParam(), {"--max-size", "100"}));
  watch.Freeze();
  for (std::size_t i = 0; i < kFiles; ++i) {
    Write("w/" + std::to_string(i), "beta");
    Write("w/0", "beta");
  }
  watch.Signal(SIGTERM);
  watch.Signal(SIGCONT);
  EXPECT_EQ(watch.ExitStatus(), 0);
  EXPECT_EQ(watch.Files().size(), kFiles);
  EXPECT_EQ(watch.Summary()["end"], "complete");
  EXPECT_EQ(watch.Summary()["clean"], watch.Summary()["files"]);
}

TEST_P(WatchByEither, AFileThatIsRemovedAtOnceIsScannedOrCounted) {
  Watch watch(Arguments(GetParam()));
  watch.Freeze();
  Write("w/brief", "alpha");
  fs::remove(Path("w/brief"));
  Write("w/stays (deleted)", "alpha");
  watch.Signal(SIGCONT);
  ASSERT_TRUE(watch.WaitForFile(Path("w/stays (deleted)"), "match"));
  const bool by_descriptor = GetParam() == "fanotify";
  if (by_descriptor) {
    EXPECT_TRUE(watch.WaitForFile(Path("w/brief"), "match"));
  }
  EXPECT_EQ(watch.Stop(), 1);
  EXPECT_EQ(watch.Summary()["match"], by_descriptor ? 2 : 1);
  EXPECT_EQ(watch.Summary()["watch"]["gone"], by_descriptor ? 0 : 1);
}

TEST_P(WatchByEither, ADaemonThatDiesWhileNothingHappensIsReplaced) {
  const std::string fragile =
      WriteProgram("fragile", "echo $$ >> '" + Path("pids") + "'\nexec '" + std::string(VOND_PATH) + "' \"$@\"\n");
  Watch watch(Arguments(GetParam(), {"--vond", fragile}));
  ::kill(std::stoi(ReadFile(Path("pids"))), SIGKILL);
  Write("w/file", "alpha");
  ASSERT_TRUE(watch.WaitForFile(Path("w/file"), "match"));
  // And one that can't be ends the watch.
  const std::string pids = ReadFile(Path("pids"));
  fs::remove(fragile);
  ::kill(std::stoi(Lines(pids).back()), SIGKILL);
  Write("w/another", "alpha");
  const int status = watch.WaitForEnd();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 4) << status;
  EXPECT_TRUE(watch.Says("vond could not be started again")) << watch.Errors();
  EXPECT_EQ(watch.Files()[Path("w/another")], "error");
  EXPECT_EQ(watch.Summary()["restarts"], 1);
}

TEST_F(WatchTest, InotifyHearsOfWhatIsMovedInAndFollowsNoLinkOut) {
  Write("outside/file", "alpha");
  Write("outside/tree/sub/file", "alpha");
  Write("outside/leaves", "alpha");
  Write("w/known/file", "alpha");
  Watch watch(Arguments("inotify"));
  fs::rename(Path("outside/file"), Path("w/moved"));
  fs::rename(Path("outside/tree"), Path("w/tree"));
  fs::rename(Path("w/known"), Path("w/renamed"));
  ASSERT_TRUE(watch.WaitForFile(Path("w/moved"), "match"));
  ASSERT_TRUE(watch.WaitForFile(Path("w/tree/sub/file"), "match"));
  Write("w/renamed/file2", "alpha");
  ASSERT_TRUE(watch.WaitForFile(Path("w/renamed/file2"), "match"));
  // While it looks elsewhere, a link takes a file's place, another that of a folder, and a pipe that of a file.
  watch.Freeze();
  Write("w/swapped", "beta");
  fs::remove(Path("w/swapped"));
  fs::create_symlink(Path("outside/leaves"), Path("w/swapped"));
  Write("w/tree/leaves", "beta");
  fs::rename(Path("w/tree"), Path("outside/tree"));
  fs::create_directory_symlink(Path("outside"), Path("w/tree"));
  Write("w/pipe", "beta");
  fs::remove(Path("w/pipe"));
  ASSERT_EQ(::mkfifo(Path("w/pipe").c_str(), 0600), 0);
  watch.Signal(SIGCONT);
  Write("outside/tree/left", "alpha");  // it has gone out with its watch
  Write("w/last", "beta");
  ASSERT_TRUE(watch.WaitForFile(Path("w/last"), "clean"));
  EXPECT_EQ(watch.Stop(), 1);
  const std::map<std::string, std::string> expected{{Path("w/moved"), "match"},
                                                    {Path("w/tree/sub/file"), "match"},
                                                    {Path("w/renamed/file2"), "match"},
                                                    {Path("w/last"), "clean"}};
  EXPECT_EQ(watch.Files(), expected);
}

TEST_F(WatchTest, LostEventsAreSaidAndMakeTheStatus) {
  const int limit = std::stoi(ReadFile("/proc/sys/fs/inotify/max_queued_events"));
  if (limit > 100'000) {
    GTEST_SKIP() << "the kernel's queue holds " << limit << " events";
  }
  Watch watch(Arguments("inotify"));
  watch.Freeze();
  const std::array<std::string, 2> paths{Path("w/a"), Path("w/b")};  // the kernel folds equal ones behind each other
  for (int i = 0; i < limit + 10; ++i) {
    const ManagedFD fd(::open(paths.at(static_cast<std::size_t>(i) % 2).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  }
  Write("w/made/meanwhile/file", "alpha");  // these events are lost
  watch.Signal(SIGCONT);
  ASSERT_TRUE(watch.WaitFor("events were lost"));
  ASSERT_TRUE(watch.WaitForFile(Path("w/made/meanwhile/file"), "match"));
  Write("w/made/meanwhile/another", "alpha");
  ASSERT_TRUE(watch.WaitForFile(Path("w/made/meanwhile/another"), "match"));
  EXPECT_EQ(watch.Stop(), 2);
  EXPECT_EQ(watch.Summary()["watch"]["lost"], 1);
  EXPECT_EQ(watch.Summary()["match"], watch.Summary()["files"].get<int>() - watch.Summary()["clean"].get<int>());
}

TEST_F(WatchTest, AProgramGetsEachMatchAndNoShellSeesIt) {
  const std::string program = WriteProgram(
      "program", "cd '" + folder_ + "' || exit 1\ncat > got.$$\nprintf '%s\\n' \"$@\" > args.$$\necho heard\nexit 3\n");
  Watch watch(
      Arguments("auto", {"--on-match", program, "--on-match-arg", "$(touch y); touch z", "--on-match-arg", "-x"}));
  const std::string name = Path("w/$(touch x); touch x");
  Write("w/clean", "beta");
  Write("w/$(touch x); touch x", "alpha");
  ASSERT_TRUE(watch.WaitFor("ended with status 3"));
  EXPECT_EQ(watch.Stop(), 1);
  EXPECT_TRUE(watch.Says("heard\n"));
  EXPECT_EQ(watch.Summary()["watch"]["commands"], 1);
  EXPECT_EQ(watch.Summary()["watch"]["commands_failed"], 1);
  std::vector<std::string> got;
  std::vector<std::string> arguments;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder_)) {
    const std::string file = entry.path().filename();
    EXPECT_FALSE(file == "x" || file == "y" || file == "z") << "a shell has seen it";
    if (file.starts_with("got.")) {
      got.push_back(ReadFile(entry.path()));
    } else if (file.starts_with("args.")) {
      arguments.push_back(ReadFile(entry.path()));
    }
  }
  EXPECT_EQ(arguments, std::vector<std::string>{"$(touch y); touch z\n-x\n"});
  ASSERT_EQ(got.size(), 1U);
  EXPECT_EQ(Lines(got.front()).size(), 1U);
  const json line = json::parse(got.front());
  EXPECT_EQ(line["path"], name);
  EXPECT_EQ(line["matches"][0]["rule"], "Alpha");
  const std::vector<json> results = watch.Results();
  EXPECT_NE(std::find(results.begin(), results.end(), line), results.end()) << "not what the results say";
}

TEST_F(WatchTest, AProgramInheritsNothingButItsThreeStreams) {
  Watch watch(Arguments("auto", {"--on-match", "ls", "--on-match-arg", "/proc/self/fd"}));
  Write("w/file", "alpha");
  ASSERT_TRUE(watch.WaitForFile(Path("w/file"), "match"));
  EXPECT_EQ(watch.Stop(), 1);
  EXPECT_TRUE(watch.Says("\n0\n1\n2\n3\n")) << watch.Errors();  // 3 is its own, for the listing
  EXPECT_FALSE(watch.Says("\n4\n")) << watch.Errors();
  EXPECT_EQ(watch.Summary()["watch"]["commands_failed"], 0);
}

TEST_F(WatchTest, AProgramThatHangsIsKilledWithItsGroup) {
  const std::string program = WriteProgram("program", "sleep 1000 &\necho $! > '" + Path("child.tmp") + "'\nmv '" +
                                                          Path("child.tmp") + "' '" + Path("child") + "'\nwait\n");
  const auto child_is_gone = [this] {
    const pid_t child = std::stoi(ReadFile(Path("child")));
    const std::string stat = ReadFile("/proc/" + std::to_string(child) + "/stat");
    return stat.empty() || stat.find(") Z ") != std::string::npos;
  };
  {
    Watch watch(Arguments("auto", {"--on-match", program, "--on-match-timeout", "2"}));
    Write("w/file", "alpha");
    ASSERT_TRUE(watch.WaitFor("took longer than 2 s and was killed"));
    EXPECT_TRUE(WaitUntil(child_is_gone, kPatience));
    EXPECT_EQ(watch.Stop(), 1);
    EXPECT_EQ(watch.Summary()["watch"]["commands_failed"], 1);
  }
  fs::remove(Path("child"));
  Watch watch(Arguments("auto", {"--on-match", program}));
  Write("w/file", "alpha");
  ASSERT_TRUE(WaitUntil([this] { return fs::exists(Path("child")); }, kPatience));
  EXPECT_EQ(watch.Stop(), 1);
  EXPECT_TRUE(watch.Says("was killed, vondctl was told to end")) << watch.Errors();
  EXPECT_TRUE(WaitUntil(child_is_gone, kPatience));
}

TEST_F(WatchTest, AScanThatGoesOnAndOnAfterTheSignalIsGivenUp) {
  Watch watch(Arguments("auto", {"--timeout", "0"}));
  Write("w/first", "slow");
  Write("w/done", "beta");
  Write("w/second", "slow");
  ASSERT_TRUE(WaitUntil(
      [&] {  // the descriptors of the files are held while they are scanned
        const fs::path fds = "/proc/" + std::to_string(watch.Pid()) + "/fd";
        std::set<std::string> open;
        for (const fs::directory_entry& fd : fs::directory_iterator(fds)) {
          std::error_code closed_meanwhile;
          open.insert(fs::read_symlink(fd.path(), closed_meanwhile).filename());
        }
        return open.contains("first") && open.contains("second");
      },
      kPatience));
  EXPECT_EQ(watch.Stop(), -1);
  EXPECT_EQ(WTERMSIG(watch.WaitForEnd()), SIGTERM);
  EXPECT_EQ(watch.Files()[Path("w/first")], "error");
  EXPECT_EQ(watch.Files()[Path("w/second")], "error");
  EXPECT_EQ(watch.Summary()["end"], "interrupted");
  EXPECT_EQ(watch.Summary()["exit"], 128 + SIGTERM);
}

struct Refusal {
  const char* name;
  std::vector<std::string> arguments;  // behind "watch", in the test's folder
  int exit_status;
  const char* says;
};

TEST_F(WatchTest, WhatCannotBeWatchedOrStartedIsSaidAtOnce) {
  Write("plain", "x");
  const std::vector<Refusal> refusals{
      {"no folder", {"-r", "rules.yar"}, kUsage, "PATH"},
      {"no rules", {"w"}, kUsage, "--rules or --policy"},
      {"a file", {"-r", "rules.yar", "plain"}, 2, "plain can't be watched, only folders can"},
      {"nothing there", {"-r", "rules.yar", "none"}, 2, "none: No such file"},
      {"no program",
       {"-r", "rules.yar", "w", "--on-match", "no-such-program"},
       kUsage,
       "no program \"no-such-program\""},
      {"not executable", {"-r", "rules.yar", "w", "--on-match", "./plain"}, kUsage, "no program \"./plain\""},
      {"a folder as program", {"-r", "rules.yar", "w", "--on-match", "./w"}, kUsage, "no program \"./w\""},
      {"arguments of none", {"-r", "rules.yar", "w", "--on-match-arg", "x"}, kUsage, "--on-match"},
      {"no time", {"-r", "rules.yar", "w", "--on-match", "ls", "--on-match-timeout", "0"}, kUsage, "0 is too small"},
      {"another watcher", {"-r", "rules.yar", "w", "--watcher", "dnotify"}, kUsage, "dnotify"},
  };
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.name);
    std::vector<std::string> arguments{"/bin/sh", "-c", "cd '" + folder_ + "' && exec \"$0\" watch \"$@\"",
                                       VONDCTL_PATH};
    arguments.insert(arguments.end(), refusal.arguments.begin(), refusal.arguments.end());
    const ChildResult result = RunChild(arguments);
    EXPECT_EQ(result.exit_status, refusal.exit_status);
    EXPECT_NE(result.err.find(refusal.says), std::string::npos) << result.err;
  }
}

}  // namespace
}  // namespace vond::test
