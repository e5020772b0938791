#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <sstream>

#include "tests/support/test_support.h"

// What all verbs of vondctl share: help, manual, completion, and how a signal ends them.
namespace vond::test {
namespace {

namespace fs = std::filesystem;
using auto_resources::ManagedFD;

constexpr std::size_t kColumns = 80;

// The names in one table of a help text.
std::vector<std::string> NamesUnder(const std::string& heading, const std::string& help) {
  std::vector<std::string> names;
  bool inside = false;
  for (const std::string& line : Lines(help)) {
    inside = line == heading || (inside && !line.empty());
    if (inside && line.starts_with("  ") && line.find_first_not_of(' ') == 2) {
      names.push_back(line.substr(2, line.find(' ', 2) - 2));
    }
  }
  return names;
}

std::vector<std::string> Words(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) {
    words.push_back(word);
  }
  return words;
}

std::string Help(const std::string& verb) {
  std::vector<std::string> arguments{VONDCTL_PATH, "help"};
  const std::vector<std::string> words = Words(verb);
  arguments.insert(arguments.end(), words.begin(), words.end());
  const ChildResult result = RunChild(arguments);
  EXPECT_EQ(result.exit_status, 0) << verb;
  EXPECT_EQ(result.err, "") << verb;
  return result.out;
}

// Every verb and its help, verbs of verbs too; the program's own under "".
std::map<std::string, std::string> AllHelp() {
  std::map<std::string, std::string> helps;
  std::vector<std::string> todo{""};
  while (!todo.empty()) {
    const std::string verb = todo.back();
    todo.pop_back();
    const std::string help = Help(verb);
    for (const std::string& name : NamesUnder("Verbs:", help)) {
      todo.push_back(verb.empty() ? name : verb + ' ' + name);
    }
    helps[verb] = help;
  }
  return helps;
}

std::set<std::string> OptionsIn(const std::string& help) {
  static const std::regex kOption("^ +(-[a-zA-Z])?(, )?(--[a-z0-9-]+)?");
  std::set<std::string> options;
  for (const std::string& line : Lines(help)) {
    std::smatch match;
    if (line.starts_with("  ") && line.substr(0, 8).find('-') != std::string::npos &&
        std::regex_search(line, match, kOption)) {
      options.insert(match[1].str());
      options.insert(match[3].str());
    }
  }
  options.erase("");
  return options;
}

TEST(VondctlHelp, OfEachVerbIsWholeAndFitsATerminal) {
  const std::map<std::string, std::string> helps = AllHelp();
  EXPECT_GE(helps.size(), 4U);
  for (const auto& [verb, help] : helps) {
    SCOPED_TRACE(verb);
    std::vector<std::string> arguments = Words(verb);
    arguments.insert(arguments.begin(), VONDCTL_PATH);
    arguments.emplace_back("--help");
    EXPECT_EQ(RunChild(arguments).out, help);
    EXPECT_TRUE(help.starts_with("Usage: vondctl" + (verb.empty() ? "" : ' ' + verb)));
    for (const std::string& line : Lines(help)) {
      EXPECT_LE(line.size(), kColumns) << line;
    }
    const bool has_verbs = help.find("\nVerbs:\n") != std::string::npos;
    EXPECT_TRUE(has_verbs || help.find("\nExamples:\n  vondctl " + verb) != std::string::npos);
    EXPECT_TRUE((has_verbs && !verb.empty()) || help.find("Exit status:") != std::string::npos);
    EXPECT_TRUE(OptionsIn(help).contains("--help"));
  }
}

// The source of the manual in parts, by their headings.
std::map<std::string, std::string> ManualParts() {
  std::ifstream page(VOND_SOURCE_DIR "/docs/man/vondctl.1.scd");
  std::map<std::string, std::string> parts;
  std::string heading;
  for (std::string line; std::getline(page, line);) {
    if (line.starts_with("#")) {
      heading = line.substr(line.find(' ') + 1);
    } else {
      parts[heading] += line + '\n';
    }
  }
  return parts;
}

TEST(VondctlManual, HasEveryOptionOfEveryVerb) {
  std::map<std::string, std::string> parts = ManualParts();
  for (const auto& [verb, help] : AllHelp()) {
    const std::string part = parts[verb.empty() ? "OPTIONS OF THE PROGRAM" : verb];
    EXPECT_NE(part, "") << "no part for the verb " << verb;
    for (const std::string& option : OptionsIn(help)) {
      EXPECT_TRUE((part + parts["COMMON OPTIONS"]).find('*' + option + '*') != std::string::npos)
          << verb << ' ' << option;
    }
  }
}

// Each shell is driven as its users do: the script is loaded, a line is typed up to some place, and it is asked for the
// candidates.
struct Shell {
  std::string name;
  std::string program;  // prints the candidates for the words in "$@", one a line
};

const std::array<Shell, 3> kShells{Shell{"bash", R"(source <("$VONDCTL" completion bash)
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMP_LINE="$*" COMP_POINT=${#COMP_LINE}
_vondctl
printf '%s\n' "${COMPREPLY[@]}")"},
                                   // A terminal of its own, in which the list of candidates is asked for and read off.
                                   Shell{"zsh", R"(zmodload zsh/zpty
"$VONDCTL" completion zsh > $TMPDIR/_vondctl
zpty shell zsh -f -i
zpty -w shell "PS1= PROMPT2= RPS1=; stty cols 200 rows 200; fpath=($TMPDIR \$fpath); autoload -U compinit; compinit -u -D"
zpty -w shell 'capture() { compstate[insert]=; compstate[list]=; }'
zpty -w shell 'compadd() {
  if [[ ${@[1,(i)(-|--)]} == *-(O|A|D)\ * ]]; then builtin compadd "$@"; return; fi
  typeset -a found; builtin compadd -A found "$@"; (( $#found )) && print -rl -- "<"${^found}">"
}'
zpty -w shell 'list() { comppostfuncs=(capture); zle complete-word; print -r -- "<""end>"; exit }; zle -N list; bindkey "^I" list'
zpty -w shell 'print -r -- "<""ready>"'
zpty -r shell seen '*<ready>*'
line=${(j: :)${(q)@[1,-2]}}
zpty -w -n shell "$line ${@[-1]}"$'\t'
zpty -r shell seen '*<end>*'
print -r -- "$seen" | grep -o '<[^<>]*>' | tr -d '<>' | grep -v -x -e ready -e end
true)"},
                                   Shell{"fish", R"(source (eval $VONDCTL completion fish | psub)
complete -C (string join ' ' -- $argv) | string replace -r '\t.*' ''
true)"}};

std::optional<std::string> Find(const std::string& program) {
  for (const char* const folder : {"/usr/bin/", "/bin/", "/usr/local/bin/"}) {
    if (::access((folder + program).c_str(), X_OK) == 0) {
      return folder + program;
    }
  }
  return std::nullopt;
}

class VondctlCompletion : public testing::TestWithParam<Shell> {
 protected:
  void SetUp() override {
    folder_ = testing::TempDir() + "vondctl-completion-" + GetParam().name + std::to_string(::getpid());
    fs::create_directories(folder_);
    std::ofstream(folder_ / "some file.yar") << "";
  }
  void TearDown() override { fs::remove_all(folder_); }

  [[nodiscard]] std::set<std::string> Candidates(const std::string& shell,
                                                 const std::vector<std::string>& words) const {
    const fs::path script = folder_ / "complete";
    std::ofstream(script) << "cd " << folder_.string() << '\n' << GetParam().program << '\n';
    std::vector<std::string> arguments{shell, script};
    arguments.emplace_back("vondctl");
    arguments.insert(arguments.end(), words.begin(), words.end());
    const ChildResult result =
        RunChild(arguments, {std::string("VONDCTL=") + VONDCTL_PATH, "TMPDIR=" + folder_.string(),
                             "HOME=" + folder_.string(), "TERM=xterm", "LC_ALL=C.UTF-8"});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.err, "");
    std::set<std::string> candidates;
    for (std::string line : Lines(result.out)) {
      line.erase(line.find_last_not_of(' ') + 1);  // some add the blank that ends the word
      candidates.insert(line);
    }
    candidates.erase("");
    return candidates;
  }

  fs::path folder_;
};

TEST_P(VondctlCompletion, OffersWhatTheTableHas) {
  const auto shell = Find(GetParam().name);
  if (!shell) {
    GTEST_SKIP() << GetParam().name << " is not installed";
  }
  using Set = std::set<std::string>;
  EXPECT_EQ(Candidates(*shell, {"sca"}), Set{"scan"});
  EXPECT_EQ(Candidates(*shell, {"scan", "--col"}), Set{"--color"});
  EXPECT_EQ(Candidates(*shell, {"scan", "--format", ""}), (Set{"text", "jsonl"}));
  EXPECT_EQ(Candidates(*shell, {"scan", "-q", "--color", "a"}), (Set{"auto", "always"}));
  EXPECT_EQ(Candidates(*shell, {"completion", "z"}), Set{"zsh"});
  EXPECT_EQ(Candidates(*shell, {"help", "comp"}), Set{"completion"});
  EXPECT_EQ(Candidates(*shell, {"scan", "--timeout", ""}), Set{});
  // All verbs, those the program's help has.
  const std::vector<std::string> verbs = NamesUnder("Verbs:", Help(""));
  EXPECT_EQ(Candidates(*shell, {""}), Set(verbs.begin(), verbs.end()));
  // A path with a blank; how it is quoted is the shell's affair.
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"scan", "--rules", "som"}, {"scan", "--color", "never", "som"}}) {
    const Set paths = Candidates(*shell, words);
    ASSERT_EQ(paths.size(), 1U);
    EXPECT_EQ(paths.begin()->substr(0, 4), "some");
  }
}

INSTANTIATE_TEST_SUITE_P(Shells, VondctlCompletion, testing::ValuesIn(kShells),
                         [](const auto& test) { return test.param.name; });

// A scan that takes for ever, in a process group of its own, until something ends it.
class EndlessScan {
 public:
  EndlessScan() {
    fs::create_directories(folder_);
    std::ofstream(folder_ / "slow.yar") << "rule Slow { meta: id = \"s\" action = \"block\" "
                                           "condition: for all i in (0..1099511627776) : (i >= 0) }";
    std::ofstream(folder_ / "file") << "x";
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&actions, err_.Get(), 1);
    ::posix_spawn_file_actions_adddup2(&actions, err_.Get(), 2);
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    std::vector<std::string> strings{VONDCTL_PATH,         "scan",          "--timeout", "0", "--rules",
                                     folder_ / "slow.yar", folder_ / "file"};
    std::vector<char*> arguments;
    std::transform(strings.begin(), strings.end(), std::back_inserter(arguments),
                   [](std::string& string) { return string.data(); });
    arguments.push_back(nullptr);
    EXPECT_EQ(::posix_spawn(&pid_, VONDCTL_PATH, &actions, &attributes, arguments.data(), environ), 0);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    EXPECT_TRUE(WaitUntil([this] { return Daemon() > 0 && Output().find("for file type") != std::string::npos; }));
    daemon_ = Daemon();
  }
  ~EndlessScan() {
    ::kill(-pid_, SIGKILL);
    fs::remove_all(folder_);
  }
  EndlessScan(const EndlessScan&) = delete;
  EndlessScan& operator=(const EndlessScan&) = delete;

  [[nodiscard]] pid_t Pid() const { return pid_; }
  [[nodiscard]] std::string Output() const {
    std::string text(4096, '\0');
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(0, ::pread(err_.Get(), text.data(), text.size(), 0))));
    return text;
  }
  // The signal that ended it; 0 if none did, or not in time.
  [[nodiscard]] int WaitForSignal() const {
    int status = 0;
    const bool ended = WaitUntil([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, std::chrono::seconds(8));
    return ended && WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  }
  [[nodiscard]] bool DaemonIsGone() const {
    return WaitUntil([this] { return ::kill(daemon_, 0) != 0; });
  }

 private:
  [[nodiscard]] pid_t Daemon() const {
    std::error_code error;
    pid_t daemon = 0;
    for (const fs::directory_entry& thread : fs::directory_iterator("/proc/" + std::to_string(pid_) + "/task", error)) {
      std::ifstream(thread.path() / "children") >> daemon;
      if (daemon > 0) {
        break;
      }
    }
    return daemon;
  }

  fs::path folder_ = testing::TempDir() + "vondctl-endless-" + std::to_string(::getpid());
  ManagedFD err_ = MakeFile("");
  pid_t pid_ = -1;
  pid_t daemon_ = -1;
};

class VondctlSignal : public testing::TestWithParam<int> {};

TEST_P(VondctlSignal, EndsTheScanAndItsDaemonWithoutComplaints) {
  const EndlessScan scan;
  ::kill(scan.Pid(), GetParam());
  EXPECT_EQ(scan.WaitForSignal(), GetParam());
  EXPECT_TRUE(scan.DaemonIsGone());
  EXPECT_EQ(scan.Output().find("vondctl:"), std::string::npos) << scan.Output();
}

INSTANTIATE_TEST_SUITE_P(Signals, VondctlSignal, testing::Values(SIGINT, SIGTERM, SIGHUP),
                         [](const auto& test) { return std::string(::sigabbrev_np(test.param)); });

// As a terminal does it: to the whole foreground group, where the daemon is not.
TEST(VondctlCtrlC, EndsTheScanAndItsDaemonWithoutComplaints) {
  const EndlessScan scan;
  ::kill(-scan.Pid(), SIGINT);
  EXPECT_EQ(scan.WaitForSignal(), SIGINT);
  EXPECT_TRUE(scan.DaemonIsGone());
  EXPECT_EQ(scan.Output().find("vondctl:"), std::string::npos) << scan.Output();
}

// Through a shell, which knows what head leaves behind: SIGPIPE as it was, or ignored, as under some supervisors.
TEST(VondctlOutput, ThatNobodyReadsEndsItInSilence) {
  for (const char* const before : {"", "trap '' PIPE; "}) {
    const std::string scan = std::string("{ \"$0\" scan --all --rules ") + VOND_SOURCE_DIR +
                             "/examples/rules/block/elf.yar /usr/include; echo $? >&3; } | head -1";
    const ChildResult result = RunChild({"/bin/bash", "-c", before + ("{ " + scan + "; } 3>&2"), VONDCTL_PATH});
    EXPECT_EQ(Lines(result.out).size(), 1U);
    EXPECT_TRUE(result.err.ends_with("\n141\n")) << result.err;
    EXPECT_EQ(result.err.find("vondctl:"), std::string::npos) << result.err;
  }
}

TEST(VondctlOutput, ThatCannotBeWrittenIsSaidSo) {
  const ChildResult result = RunChild({"/bin/sh", "-c", "exec \"$0\" help >/dev/full", VONDCTL_PATH});
  EXPECT_EQ(result.exit_status, 2);
  EXPECT_EQ(result.err, "vondctl: standard output: No space left on device\n");
}

}  // namespace
}  // namespace vond::test
