#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/test_support.h"

// `vondctl scan` as a program: what becomes of each file, and of the run when something goes wrong.
namespace vond::test {
namespace {

namespace fs = std::filesystem;
using auto_resources::ManagedFD;
using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

const std::string kAlphaRule =
    "rule Alpha : x y { meta: id = \"a\" action = \"block\" author = \"Ann\" n = 5 n = 6 seen = true "
    "strings: $a = \"alpha\" condition: $a }\n";
const std::string kPrivateRule =
    "private rule Hidden { meta: id = \"h\" action = \"block\" strings: $a = \"beta\" condition: $a }\n";
// Busy for a minute with files that hold "slow"; longer than any of these tests lets it.
const std::string kSlowRule =
    "rule Slow { meta: id = \"s\" action = \"block\" strings: $a = \"slow\" "
    "condition: $a and for all i in (0..1099511627776) : (i >= 0) }\n";

class Stopwatch {
 public:
  [[nodiscard]] seconds Elapsed() const { return std::chrono::duration_cast<seconds>(steady_clock::now() - start_); }

 private:
  steady_clock::time_point start_ = steady_clock::now();
};

// What a run with JSON Lines has printed.
// NOLINTNEXTLINE(bugprone-exception-escape): moving a map of strings
struct Scanned {
  ChildResult child;
  std::map<std::string, std::string> outcomes;  // by path, below the test's folder
  std::map<std::string, json> files;
  json policy;
  json summary;

  [[nodiscard]] std::string Text() const {
    std::string text;
    for (const auto& [path, outcome] : outcomes) {
      text += (text.empty() ? "" : " ") + path + ":" + outcome;
    }
    return text;
  }
};

class ScanTest : public testing::Test {
 public:
  ScanTest() {
    fs::remove_all(folder_);
    fs::create_directories(folder_);
    Write("a.yar", kAlphaRule);
  }
  ~ScanTest() override {
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
  }

 protected:
  [[nodiscard]] std::string Path(const std::string& name) const { return folder_ + "/" + name; }
  void Write(const std::string& name, const std::string& content) const {
    fs::create_directories(fs::path(Path(name)).parent_path());
    std::ofstream(Path(name), std::ios::binary) << content;
  }
  // Runs a command of the shell in the test's folder; `vondctl` and `vond` are there as $vondctl and $vond.
  [[nodiscard]] ChildResult Shell(const std::string& command, milliseconds timeout = seconds(200)) const {
    return RunChild({"/bin/sh", "-c", "cd '" + folder_ + "' && " + command},
                    {"vondctl=" VONDCTL_PATH, "vond=" VOND_PATH}, timeout);
  }
  // Runs `vondctl scan` with these arguments, all files reported; `before` and `after` are what the shell has around
  // it.
  [[nodiscard]] Scanned Scan(const std::string& arguments, const std::string& before = "",
                             const std::string& after = "") const {
    return Parse(Shell(before + " $vondctl scan --format jsonl --all " + arguments + " " + after));
  }
  [[nodiscard]] static Scanned Parse(ChildResult child) {
    Scanned scanned;
    for (const std::string& line : Lines(child.out)) {
      const json object = json::parse(line, nullptr, false);
      const std::string type = object.is_object() ? object.value("type", "") : "";
      if (type == "policy") {
        scanned.policy = object;
      } else if (type == "summary") {
        scanned.summary = object;
      } else {
        EXPECT_EQ(type, "file") << line;
        const std::string path = object.value("path", "");
        EXPECT_TRUE(scanned.files.emplace(path, object).second) << "twice: " << path;
        scanned.outcomes[path] = object.value("outcome", "");
      }
    }
    scanned.child = std::move(child);
    ExpectSumsUp(scanned);
    return scanned;
  }
  // Every file is in one class, and the summary has the number of each.
  static void ExpectSumsUp(const Scanned& scanned) {
    if (scanned.summary.is_null()) {
      return;
    }
    std::size_t sum = 0;
    for (const char* const outcome : {"match", "clean", "timeout", "skipped", "error", "changed"}) {
      const auto count = std::count_if(scanned.outcomes.begin(), scanned.outcomes.end(),
                                       [&](const auto& entry) { return entry.second == outcome; });
      EXPECT_EQ(scanned.summary[outcome], count) << outcome;
      sum += static_cast<std::size_t>(count);
    }
    EXPECT_EQ(scanned.summary["files"], sum);
    if (scanned.child.signal == 0) {
      EXPECT_EQ(scanned.summary["exit"], scanned.child.exit_status);
    }
  }
  // A program in vond's place: vond that gets `signal` as soon as it has the file `poison` open; only the first one of
  // them if `once`.
  void WriteFragileVond(const std::string& signal, bool once) const {
    Write("fragile", "#!/bin/sh\n" + std::string(once ? "if mkdir '" + Path("once") + "' 2>/dev/null; then\n" : "{\n") +
                         "  (exec 3>&- >/dev/null 2>&1; while kill -0 $$; do\n"
                         "    if ls -l /proc/$$/fd | grep -q /poison; then kill -" +
                         signal + " $$; exit; fi; sleep 0.02\n  done) &\n" + (once ? "fi\n" : "}\n") + "exec '" +
                         std::string(VOND_PATH) + "' \"$@\"\n");
    fs::permissions(Path("fragile"), fs::perms::owner_all);
  }

  const std::string folder_ = testing::TempDir() + "vond-scan-test-" + std::to_string(::getpid());
};

// A vondctl whose standard error is a terminal, or a plain run in the background.
class Background {
 public:
  explicit Background(const std::vector<std::string>& arguments) {
    terminal_.Reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    EXPECT_EQ(::grantpt(terminal_.Get()), 0);
    EXPECT_EQ(::unlockpt(terminal_.Get()), 0);
    const winsize size{24, 100, 0, 0};
    EXPECT_EQ(::ioctl(terminal_.Get(), TIOCSWINSZ, &size), 0);
    std::array<char, 64> name{};
    EXPECT_EQ(::ptsname_r(terminal_.Get(), name.data(), name.size()), 0);
    std::vector<std::string> owned = arguments;
    std::vector<char*> argv;
    for (std::string& argument : owned) {
      argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(::open(name.data(), O_RDWR | O_NOCTTY), 2);
      ::dup2(out_.Get(), 1);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
  }
  ~Background() {
    if (!ended_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

  [[nodiscard]] pid_t Pid() const { return pid_; }
  // What has been written to the terminal so far, each piece as it was read.
  [[nodiscard]] const std::string& Screen() {
    pollfd readable{terminal_.Get(), POLLIN, 0};
    std::array<char, 4096> buffer{};
    while (::poll(&readable, 1, 0) > 0) {
      const ssize_t count = ::read(terminal_.Get(), buffer.data(), buffer.size());
      if (count <= 0) {
        break;
      }
      screen_.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return screen_;
  }
  [[nodiscard]] std::string Output() const {
    std::string text;
    std::array<char, 4096> buffer{};
    for (off_t at = 0;;) {
      const ssize_t count = ::pread(out_.Get(), buffer.data(), buffer.size(), at);
      if (count <= 0) {
        return text;
      }
      text.append(buffer.data(), static_cast<std::size_t>(count));
      at += count;
    }
  }
  // The status as of waitpid.
  [[nodiscard]] int Wait() {
    int status = 0;
    EXPECT_TRUE(WaitUntil(
        [&] {
          static_cast<void>(Screen());
          return ::waitpid(pid_, &status, WNOHANG) == pid_;
        },
        seconds(60)));
    ended_ = true;
    static_cast<void>(Screen());
    return status;
  }

 private:
  ManagedFD terminal_;
  ManagedFD out_ = MakeFile("");
  pid_t pid_ = -1;
  bool ended_ = false;
  std::string screen_;
};

// The child processes of `pid`.
std::set<pid_t> ChildrenOf(pid_t pid) {
  std::set<pid_t> children;
  for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    std::ifstream stream(task.path() / "children");
    for (pid_t child = 0; stream >> child;) {
      children.insert(child);
    }
  }
  return children;
}

std::size_t Occurrences(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}

TEST_F(ScanTest, WalksWhatItIsAskedTo) {
  for (const char* const name : {"t/1", "t/sub/2", "t/sub/deep/3", "t/cache/4", "t/sub/cache/5"}) {
    Write(name, "alpha");
  }
  Write("t/b.txt", "beta");
  ASSERT_EQ(::mkfifo(Path("t/pipe").c_str(), 0600), 0);
  fs::create_symlink("..", Path("t/loop"));
  fs::create_symlink("2", Path("t/sub/link"));
  fs::create_symlink("/nowhere", Path("t/sub/dangling"));
  fs::create_symlink("/dev/zero", Path("t/sub/zero"));
  Write("list", "t/1\n\nt/sub/2\nmissing\n");
  struct Case {
    const char* arguments;
    const char* outcomes;
    const char* before = "";
  };
  const Case cases[] = {
      {"t", "t/1:match t/b.txt:clean t/cache/4:match t/sub/2:match t/sub/cache/5:match t/sub/deep/3:match"},
      {"-R t", "t/1:match t/b.txt:clean t/cache/4:match t/sub/2:match t/sub/cache/5:match t/sub/deep/3:match"},
      {"--recursive=0 t", "t/1:match t/b.txt:clean"},
      {"--recursive=1 t", "t/1:match t/b.txt:clean t/cache/4:match t/sub/2:match"},
      {"--recursive=0 t t/sub/", "t/1:match t/b.txt:clean t/sub/2:match"},
      {"-R0 t", "t/1:match t/b.txt:clean"},
      {"--exclude cache t", "t/1:match t/b.txt:clean t/sub/2:match t/sub/deep/3:match"},
      {"--exclude cache/ --exclude '*.txt' t", "t/1:match t/sub/2:match t/sub/deep/3:match"},
      {"--exclude sub/cache t", "t/1:match t/b.txt:clean t/cache/4:match t/sub/2:match t/sub/deep/3:match"},
      {"--exclude '*/sub/*' t", "t/1:match t/b.txt:clean t/cache/4:match"},
      {"--include '*.txt' --include 5 t", "t/b.txt:clean t/sub/cache/5:match"},
      {"--include '*.txt' --exclude 'b*' t", ""},
      {"--include '*.txt' t/1 t/b.txt", "t/b.txt:clean"},
      {"--max-size 4 t/1 t/b.txt", "t/1:skipped t/b.txt:clean"},
      {"--max-size 1K t/1", "t/1:match"},
      {"--follow t/sub/deep t/sub/deep", "t/sub/deep/3:match"},
      {"t/loop --exclude '*'", ""},
      {"--files-from list", "missing:error t/1:match t/sub/2:match"},
      {"--files-from list t/b.txt", "missing:error t/1:match t/b.txt:clean t/sub/2:match"},
      {"--files-from -", "t/1:match t/b.txt:clean", "printf 't/1\\nt/b.txt' |"},
      {"--files-from - -0", "t/1:match t/b.txt:clean t/n\nl:error", "printf 't/1\\0t/b.txt\\0t/n\\nl' |"},
      {"--files-from -", "t/1:match t/b.txt:clean", "(echo t/1; sleep 0.5; echo t/b.txt) |"},
      {"--files-from t", "--files-from:error"},
      {"--files-from -", "./-:error", "echo - |"},
      {"-- -", "-:match", "echo an alpha |"},
      {"- t/b.txt", "-:clean t/b.txt:clean", "printf '' |"},
      {"-", "-:match", "cat t/1 |"},
      {"- < t/1", "-:match"},
      {"- < t", "-:error"},
      {"--max-size 1M -", "-:skipped", "head -c 1048577 /dev/zero |"},
      {"--max-size 4 - < t/1", "-:skipped"},
      {"t/pipe /dev/zero /proc/self/maps t/1", "/dev/zero:skipped /proc/self/maps:skipped t/1:match t/pipe:skipped"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments);
    const Scanned scanned = Scan(std::string("-r a.yar ") + c.arguments, c.before);
    EXPECT_EQ(scanned.Text(), c.outcomes) << scanned.child.err;
    EXPECT_EQ(scanned.summary["end"], "complete");
  }
  // Every folder once, although the loop leads through all of them for ever.
  const Scanned followed = Scan("-r a.yar --follow t");
  EXPECT_EQ(followed.summary["left_out"], 3);  // the pipe, the link to nowhere, the device
  EXPECT_EQ(followed.outcomes.at("t/loop/a.yar"), "match");
  EXPECT_EQ(followed.outcomes.at("t/sub/link"), "match");
  EXPECT_EQ(Occurrences(followed.Text(), "/deep/3:match"), 1U);
  EXPECT_EQ(Scan("-r a.yar t").summary["left_out"], 5);
}

TEST_F(ScanTest, KernelAndOtherFileSystemsAreEnteredOnlyIfAsked) {
  const fs::path other = fs::path("/dev/shm") / fs::path(folder_).filename();
  struct stat dev {};
  struct stat shm {};
  ASSERT_EQ(::stat("/dev", &dev), 0);
  if (::stat("/dev/shm", &shm) != 0 || dev.st_dev == shm.st_dev) {
    GTEST_SKIP() << "/dev/shm is no file system of its own here";
  }
  std::ofstream(other) << "alpha";
  const std::string include = "-r a.yar --include '" + other.filename().string() + "' ";
  EXPECT_EQ(Scan(include + "/dev").Text(), other.string() + ":match");
  EXPECT_EQ(Scan(include + "--one-file-system /dev").Text(), "");
  EXPECT_EQ(Scan(include + "--one-file-system /dev/shm").Text(), other.string() + ":match");
  fs::remove(other);
  // Not all of /proc, nor anything in it, by way of the root.
  const Scanned root = Scan("-r a.yar --recursive=1 --include version --include status --include uptime /");
  EXPECT_FALSE(root.outcomes.contains("/proc/version")) << root.Text();
  EXPECT_EQ(Scan("-r a.yar --recursive=0 --include version /proc").Text(), "/proc/version:skipped");
}

TEST_F(ScanTest, NamesReachEveryOutputWhole) {
  Write("t/new\nline\033[2J", "alpha");
  Write("t/raw\xff", "alpha");
  const Scanned scanned = Scan("-r a.yar t");
  EXPECT_EQ(scanned.files.at("t/raw\xef\xbf\xbd")["path_b64"], "dC9yYXf/");
  EXPECT_FALSE(scanned.files.at("t/new\nline\033[2J").contains("path_b64"));
  EXPECT_EQ(scanned.summary["slowest"].size(), 2U);
  const std::string text = Shell("$vondctl scan -r a.yar t").out;
  EXPECT_NE(text.find("t/new\\x0aline\\x1b[2J: Alpha"), std::string::npos) << text;
}

TEST_F(ScanTest, ShowsWhatIsAskedFor) {
  Write("rules.yar", kAlphaRule + kPrivateRule);
  Write("allow.yar", "rule Good { meta: id = \"g\" action = \"allow\" condition: filesize == 5 }\n");
  Write("t/1", "alpha");
  Write("t/2", "beta");
  struct Case {
    const char* arguments;
    int status;
    const char* out;
  };
  const Case cases[] = {
      {"-r rules.yar t", 1, "t/1: Alpha (block, id a, action block)\n"},
      {"-r rules.yar --tags t", 1, "t/1: Alpha (block, id a, action block, tags x y)\n"},
      {"-r rules.yar --meta t", 1,
       "t/1: Alpha (block, id a, action block)\n    id = \"a\"\n    action = \"block\"\n    author = \"Ann\"\n"
       "    n = 5\n    n = 6\n    seen = true\n"},
      {"-r rules.yar -j 1 --all t", 1, "t/1: Alpha (block, id a, action block)\nt/2: clean\n"},
      {"-r rules.yar --private t/2", 1, "t/2: Hidden (block, id h, action block, private)\n"},
      {"-r rules.yar t/2", 0, ""},
      {"-r rules.yar -c t none", 2, "match 1\nclean 1\ntimeout 0\nskipped 0\nerror 1\nchanged 0\n"},
      {"-r rules.yar --color always t/1", 1, "t/1: \033[1;31mAlpha\033[0m (block, id a, action block)\n"},
      {"-r rules.yar --allow-rules allow.yar t/1", 1,
       "t/1: Alpha (block, id a, action block)\nt/1: Good (allow, id g, action allow)\n"},
      {"-r rules.yar --allow-rules allow.yar --rule-type allow t", 1, "t/1: Good (allow, id g, action allow)\n"},
      {"-r rules.yar --allow-rules allow.yar --rule-type allow,block t/2", 0, ""},
      {"-r rules.yar --rule-type allow t", 64, ""},
      {"-r rules.yar --confirm 3 -j 1 t", 1, "t/1: Alpha (block, id a, action block)\n"},
      {"-r rules.yar -c --format jsonl --max-errors 1 none t", 2, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments);
    const ChildResult result = Shell(std::string("$vondctl scan -q ") + c.arguments);
    EXPECT_EQ(result.exit_status, c.status);
    if (c.out != nullptr) {
      EXPECT_EQ(result.out, c.out);
    } else {
      EXPECT_TRUE(result.out.starts_with("{\"type\":\"summary\",\"files\":1,")) << result.out;
      EXPECT_NE(result.out.find("\"end\":\"max-errors\""), std::string::npos) << result.out;
    }
  }
}

TEST_F(ScanTest, EachFileThatCannotBeScannedIsSaidWhy) {
  Write("rules.yar", kAlphaRule + kSlowRule +
                         "rule Often { meta: id = \"o\" action = \"block\" "
                         "strings: $o = \"o\" condition: #o > 2000000 }\n");
  Write("t/closed", "alpha");
  Write("t/often", std::string(1'500'000, 'o'));
  Write("t/slow", "slow");
  Write("t/fine", "alpha");
  fs::permissions(Path("t/closed"), fs::perms::none);
  // Without its capabilities root has no more rights than others.
  const std::string before = ::geteuid() == 0 ? "setpriv --inh-caps=-all --bounding-set=-all" : "";
  const Scanned scanned = Scan("-r rules.yar --timeout 6 t", before);
  EXPECT_EQ(scanned.Text(), "t/closed:error t/fine:match t/often:error t/slow:timeout") << scanned.child.err;
  EXPECT_EQ(scanned.child.exit_status, 2);
  const auto error = [&](const char* path) { return scanned.files.at(path).value("error", ""); };
  EXPECT_EQ(error("t/closed"), "Permission denied; vondctl opens the files, so its user's rights count (uid " +
                                   std::to_string(::geteuid()) + "), not the daemon's");
  EXPECT_EQ(error("t/often"), "a string of the rules occurs too often in it");
  EXPECT_EQ(scanned.files.at("t/often")["engine_error"], 30);
  EXPECT_EQ(error("t/slow"), "the scan took longer than 6 s");
  EXPECT_EQ(scanned.summary["slowest"][0]["path"], "t/slow");
  EXPECT_GE(scanned.summary["slowest"][0]["seconds"], 5.9);
  const std::string summary = Shell("$vondctl scan -r rules.yar --timeout 1 t/slow").err;
  EXPECT_NE(summary.find("slowest:\n     1."), std::string::npos) << summary;
  EXPECT_NE(summary.find(" s  t/slow\n"), std::string::npos) << summary;
}

TEST_F(ScanTest, ALostAnswerShowsTheLogAndTheLimit) {
  // More than any socket takes in one piece.
  std::string meta;
  for (int i = 0; i < 1400; ++i) {
    meta += " m = \"" + std::string(8000, 'x') + "\"";
  }
  Write("large.yar",
        "rule Large { meta: id = \"l\" action = \"block\"" + meta + " strings: $a = \"alpha\" condition: $a }");
  Write("t/1", "alpha");
  Write("t/2", "beta");
  const Scanned scanned = Scan("-r large.yar t");
  EXPECT_EQ(scanned.Text(), "t/1:error t/2:clean") << scanned.child.err;
  const std::string error = scanned.files.at("t/1").value("error", "");
  EXPECT_TRUE(error.starts_with("the answer is too large for vond's socket, whose buffer has ")) << error;
  EXPECT_NE(error.find(" bytes; its log says: ERROR Exception in thread pool: Failed to send response: "),
            std::string::npos)
      << error;
}

TEST_F(ScanTest, ADaemonKilledInMidScanIsReplaced) {
  Write("rules.yar", kAlphaRule + kSlowRule);
  std::string expected;
  for (int i = 10; i < 50; ++i) {
    const std::string name = "t/" + std::to_string(i);
    Write(name, i % 2 == 0 ? "alpha" : "beta");
    expected += name + (i % 2 == 0 ? ":match " : ":clean ");
  }
  Write("t/poison", "slow");
  Write("t/z", "beta");
  struct Case {
    const char* signal;
    bool once;
    const char* poison;  // what it ends as
    const char* error;
  };
  const Case cases[] = {
      {"KILL", true, "timeout", "the scan took longer than 2 s"},
      {"SEGV", false, "error", "vond ended each of the two times it had this file: vond was killed by signal "},
      {"STOP", true, "timeout", "the scan took longer than 2 s"},
      {"STOP", false, "timeout", "no answer for 5 s, twice; vond hung with it and was killed"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.signal) + (c.once ? " once" : ""));
    fs::remove_all(Path("once"));
    WriteFragileVond(c.signal, c.once);
    const Scanned scanned = Scan("-r rules.yar --timeout 2 --deadline 5 --vond ./fragile t");
    EXPECT_EQ(scanned.Text(), expected + "t/poison:" + c.poison + " t/z:clean") << scanned.child.err;
    // A second one only where more was with the daemon than the file that ends it.
    const auto restarts = scanned.summary.value("restarts", std::size_t{0});
    EXPECT_TRUE(restarts == 1 || (restarts == 2 && !c.once)) << restarts;
    EXPECT_EQ(scanned.child.exit_status, 2);
    EXPECT_TRUE(scanned.files.at("t/poison").value("error", "").starts_with(c.error)) << scanned.files.at("t/poison");
    EXPECT_EQ(Occurrences(scanned.child.err, "; starting it again for "), restarts) << scanned.child.err;
  }
}

TEST_F(ScanTest, ADaemonThatCannotBeReplacedFailsTheRun) {
  Write("rules.yar", kAlphaRule + kSlowRule);
  Write("t/1", "alpha");
  Write("t/poison", "slow");
  Write("t/z", "beta");
  WriteFragileVond("KILL", true);
  // There is no second one.
  Write("only_once",
        "#!/bin/sh\nmkdir '" + Path("started") + "' 2>/dev/null && exec '" + Path("fragile") + "' \"$@\"\n");
  fs::permissions(Path("only_once"), fs::perms::owner_all);
  const Scanned scanned = Scan("-r rules.yar --timeout 30 --vond ./only_once t");
  EXPECT_EQ(scanned.child.exit_status, 4);
  EXPECT_EQ(scanned.summary["end"], "daemon-failed");
  EXPECT_EQ(scanned.outcomes.at("t/poison"), "error");
  EXPECT_NE(scanned.child.err.find("vond could not be started again"), std::string::npos) << scanned.child.err;
}

TEST_F(ScanTest, AnInterruptedRunSaysSoAndLeavesNothing) {
  Write("rules.yar", kAlphaRule + kSlowRule);
  Write("t/1", "alpha");
  Write("t/slow", "slow");
  for (const int signal : {SIGINT, SIGTERM}) {
    Background run(
        {VONDCTL_PATH, "scan", "-r", Path("rules.yar"), "--timeout", "0", "--report", Path("report"), Path("t")});
    ASSERT_TRUE(WaitUntil([&] { return run.Screen().find("t/slow") != std::string::npos; })) << run.Screen();
    const std::set<pid_t> daemons = ChildrenOf(run.Pid());
    ASSERT_EQ(daemons.size(), 1U);
    ASSERT_EQ(::kill(run.Pid(), signal), 0);
    const int status = run.Wait();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << status;
    EXPECT_EQ(run.Output(), Path("t/1") + ": Alpha (block, id a, action block)\n");
    EXPECT_NE(run.Screen().find("1 file (0.0 MB)"), std::string::npos) << run.Screen();
    EXPECT_NE(run.Screen().find("interrupted; the rest was not scanned"), std::string::npos) << run.Screen();
    EXPECT_TRUE(WaitUntil([&] { return ::kill(*daemons.begin(), 0) != 0; }, seconds(5)));
    std::ifstream report(Path("report"));
    const std::string text(std::istreambuf_iterator<char>(report), {});
    EXPECT_NE(text.find("\"end\":\"interrupted\",\"exit\":" + std::to_string(128 + signal)), std::string::npos) << text;
  }
}

TEST_F(ScanTest, ProgressIsALineOnATerminalAndGoesAway) {
  Write("rules.yar", kAlphaRule + kSlowRule);
  for (int i = 0; i < 50; ++i) {
    Write("t/" + std::to_string(i), i == 0 ? "alpha" : "beta");
  }
  Write("t/x slow and a \033[2J long name " + std::string(150, 'n') + "end", "slow");
  const Stopwatch watch;
  Background run({VONDCTL_PATH, "scan", "-r", Path("rules.yar"), "--timeout", "2", Path("t")});
  static_cast<void>(run.Wait());
  const std::string& screen = run.Screen();
  const std::size_t lines = Occurrences(screen, "\033[?7l");
  EXPECT_GE(lines, 4U) << screen;  // though the last file alone takes all the time
  EXPECT_LE(lines, static_cast<std::size_t>((watch.Elapsed().count() + 1) * 5));
  EXPECT_NE(screen.find("\r\033[K\033[?7l50 of 51 files, 0.0 MB, 0.0 MB/s, 1 found, 0 errors, 0:0"), std::string::npos)
      << screen;
  EXPECT_NE(screen.find("nnnnnend\033[?7h"), std::string::npos) << screen;
  EXPECT_EQ(screen.find("\033[2J"), std::string::npos);
  // Taken away before the summary, which is the rest.
  const std::size_t last = screen.rfind("\033[?7h");
  EXPECT_TRUE(screen.substr(last).starts_with("\033[?7h\r\033[K51 files")) << screen;
  for (std::size_t at = screen.find("\033[?7l"); at != std::string::npos; at = screen.find("\033[?7l", at + 1)) {
    EXPECT_LT(screen.find("\033[?7h", at) - at - 5, 100U);
  }
  for (const char* const arguments : {"-q", "-v"}) {
    Background without({VONDCTL_PATH, "scan", arguments, "-r", Path("rules.yar"), "--timeout", "1", Path("t")});
    static_cast<void>(without.Wait());
    EXPECT_EQ(without.Screen().find("\033[?7l"), std::string::npos) << without.Screen();
  }
  EXPECT_EQ(Shell("$vondctl scan -r rules.yar --timeout 1 t").err.find('\033'), std::string::npos);
}

TEST_F(ScanTest, TheReportIsThereCompleteOrNotAtAll) {
  Write("t/1", "alpha");
  Write("t/2", "beta");
  const ChildResult both = Shell("$vondctl scan -r a.yar --format jsonl --report report t none; cat report >&2");
  EXPECT_EQ(both.out, both.err);
  EXPECT_EQ(Lines(both.out).size(), 4U);
  const ChildResult text = Shell("$vondctl scan -q -c -r a.yar --report report t none; cat report");
  EXPECT_NE(text.out.find("\"path\":\"none\""), std::string::npos) << text.out;
  EXPECT_EQ(Shell("ls | grep tmp").out, "");

  Write("old", "old");
  struct Case {
    const char* arguments;
    int status;
    const char* error;
  };
  const Case cases[] = {
      {"--report none/report t", 2, "none/report: No such file or directory"},
      {"--report t t", 2, "t: Is a directory"},
      {"--report /dev/full t", 2, "/dev/full: Invalid argument"},
      {"--report old --vond /none t", 4, "cannot start /none"},
      {"--report old --files-from none", 2, "none: No such file or directory"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments);
    const ChildResult result = Shell(std::string("$vondctl scan -r a.yar ") + c.arguments);
    EXPECT_EQ(result.exit_status, c.status);
    EXPECT_NE(result.err.find(c.error), std::string::npos) << result.err;
    EXPECT_EQ(Shell("cat old; ls | grep tmp").out, "old");
  }
  // What can't be written is said, be it standard output or the report, and no broken report takes the old one's place.
  EXPECT_EQ(Shell("$vondctl scan -r a.yar t > /dev/full").exit_status, 2);
  const ChildResult no_room = Shell("(ulimit -f 1; trap '' XFSZ; $vondctl scan -q -r a.yar --report old t 2>&1) | cat");
  EXPECT_NE(no_room.out.find("the report could not be written: old: File too large"), std::string::npos) << no_room.out;
  EXPECT_EQ(Shell("cat old; ls | grep tmp").out, "old");
}

TEST_F(ScanTest, EndsInSilenceWhenNobodyReadsOn) {
  for (int i = 0; i < 2000; ++i) {
    Write("t/" + std::to_string(i) + std::string(200, 'n'), "beta");
  }
  const ChildResult result = Shell("$vondctl scan --all -r a.yar t | head -n 1");
  EXPECT_EQ(Lines(result.out).size(), 1U) << result.out;
  EXPECT_EQ(result.err, "1 block rule for file type 0\n");
}

TEST_F(ScanTest, FewDescriptorsAreNoErrorOfAnyFile) {
  for (int i = 0; i < 300; ++i) {
    Write("t/" + std::to_string(i), "beta");
  }
  for (const char* const limit : {"ulimit -n 26;", "ulimit -Sn 20;", ""}) {
    SCOPED_TRACE(limit);
    const ChildResult result = Shell(std::string(limit) + " $vondctl scan -r a.yar -c t");
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out, "match 0\nclean 300\ntimeout 0\nskipped 0\nerror 0\nchanged 0\n");
  }
}

TEST_F(ScanTest, AHundredThousandSmallFiles) {
#ifdef VOND_SANITIZED  // takes ten times as long
  constexpr int kFolders = 5;
#else
  constexpr int kFolders = 100;
#endif
  constexpr int kFiles = 1000;
  for (int i = 0; i < kFolders; ++i) {
    const std::string folder = "t/" + std::to_string(i);
    fs::create_directories(Path(folder));
    Write(folder + "/match", "alpha");
    Write(folder + "/clean", "alph");
    for (int k = 2; k < kFiles; ++k) {  // links: some file systems take minutes to make as many files
      fs::create_hard_link(Path(folder + "/clean"), Path(folder + "/" + std::to_string(k)));
    }
  }
  const ChildResult result = Shell("$vondctl scan -r a.yar -c t");
  EXPECT_EQ(result.out, "match " + std::to_string(kFolders) + "\nclean " + std::to_string(kFolders * (kFiles - 1)) +
                            "\ntimeout 0\nskipped 0\nerror 0\nchanged 0\n");
  EXPECT_EQ(result.exit_status, 1);
  std::printf("%s", result.err.c_str());
}

TEST_F(ScanTest, LargeFilesEndInTheirTime) {
  const ManagedFD file(::open(Path("sparse").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(::ftruncate(file.Get(), off_t{5} << 30), 0);
  Write("policy.json", R"({"yara_timeout_in_seconds":1,"max_sample_size":4294967295,"rule_sets":[{"path":"a.yar"}]})");
  Write("small", "alpha");
  const Stopwatch watch;
  EXPECT_EQ(Scan("-r a.yar --timeout 1 sparse small").Text(), "small:match sparse:timeout");
  EXPECT_EQ(Scan("-r a.yar --max-size 4G sparse small").Text(), "small:match sparse:skipped");
  EXPECT_EQ(Scan("-r a.yar --max-size 4G - < sparse").Text(), "-:skipped");
  const Scanned scanned = Scan("-p policy.json sparse small");
  EXPECT_EQ(scanned.Text(), "small:match sparse:skipped");
  EXPECT_EQ(scanned.files.at("sparse")["error"],
            "5368709120 bytes, and the limit of the policy's max_sample_size is 4294967295");
  EXPECT_EQ(scanned.summary["bytes"], 5);
  EXPECT_LT(watch.Elapsed(), seconds(60));
}

TEST_F(ScanTest, AFileThatChangesMeanwhileIsNotClean) {
  Write("rules.yar",
        "rule Some { meta: id = \"s\" action = \"block\" condition: for all i in (0..20000000) : (i < 20000000) and "
        "filesize == 0 }");
  Write("t/still", "beta");
  Write("t/touched", "beta");
  std::jthread toucher([this](const std::stop_token& stop) {
    while (!stop.stop_requested()) {  // the size stays, and so do the times that a program can set
      const timespec times[2] = {{1, 0}, {1, 0}};
      ::utimensat(AT_FDCWD, Path("t/touched").c_str(), times, 0);
      std::this_thread::sleep_for(milliseconds(5));
    }
  });
  const Scanned scanned = Scan("-r rules.yar t");
  EXPECT_EQ(scanned.Text(), "t/still:clean t/touched:changed");
  EXPECT_EQ(scanned.child.exit_status, 2);
}

}  // namespace
}  // namespace vond::test
