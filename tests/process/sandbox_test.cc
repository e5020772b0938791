// The daemon's sandbox: what can't be done from inside, each layer by itself, and what is said where one is missing.

#include <arpa/inet.h>
#include <elf.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sched.h>
#include <seccomp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "agent/client.h"
#include "static_pattern_matching/daemon_sandbox.h"
#include "tests/support/running_daemon.h"
#include "tests/support/test_support.h"

namespace vond::test {
namespace {

using auto_resources::ManagedFD;
using korvo::static_pattern_matching_daemon::BecomeUser;
using korvo::static_pattern_matching_daemon::ForgoPrivileges;
using korvo::static_pattern_matching_daemon::LeaveFileSystem;
using korvo::static_pattern_matching_daemon::LeaveNetwork;
using korvo::static_pattern_matching_daemon::LimitResources;
using korvo::static_pattern_matching_daemon::ParseSandboxSettings;
using korvo::static_pattern_matching_daemon::SandboxSettings;
using std::chrono::seconds;

constexpr std::chrono::milliseconds kLong = seconds(60);
constexpr std::size_t kMegabyte = 1 << 20;
const std::string kRule = "rule A { meta: id = \"a\" action = \"block\" strings: $a = \"alpha\" condition: $a }\n";
const std::string kMagicRule =
    "import \"magic\" rule M { meta: id = \"m\" action = \"block\" condition: magic.type() contains \"ASCII\" }\n";

std::vector<std::string> SandboxLines(agent::Client& client) {
  std::vector<std::string> lines = client.Process().RecentOutput(agent::OutputStream::kStderr);
  std::erase_if(lines, [](const std::string& line) { return !line.starts_with("sandbox: "); });
  return lines;
}

std::map<std::string, std::string> StatusOf(pid_t pid) {
  std::map<std::string, std::string> status;
  std::ifstream file("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(file, line);) {
    const std::size_t colon = line.find(":\t");
    if (colon != std::string::npos) {
      status[line.substr(0, colon)] = line.substr(colon + 2);
    }
  }
  return status;
}

// Both values of a limit ("Max core file size"), soft and hard, with a blank between.
std::string LimitOf(pid_t pid, const std::string& name) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/limits");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(name)) {
      std::istringstream values(line.substr(name.size()));
      std::string soft;
      std::string hard;
      values >> soft >> hard;
      return soft + " " + hard;
    }
  }
  return "unknown";
}

TEST(Sandbox, TheDaemonIsInAllLayersThatTheKernelHas) {
  RunningDaemon daemon;
  ASSERT_TRUE(daemon.SetRules({kRule}));
  const std::vector<std::string> missing = SandboxLines(daemon.Client());
  if (!missing.empty()) {
    GTEST_SKIP() << missing.front();
  }
  EXPECT_TRUE(agent::IsConfined(daemon.Pid()));
  EXPECT_FALSE(agent::IsConfined(::getpid()));
  std::map<std::string, std::string> status = StatusOf(daemon.Pid());
  EXPECT_EQ(status["CapEff"] + status["CapPrm"], std::string(32, '0'));
  if (::geteuid() == 0 && TestSandbox().uid != 0) {
    EXPECT_EQ(status["Uid"], "65534\t65534\t65534\t65534");
    EXPECT_EQ(status["Gid"], "65534\t65534\t65534\t65534");
    EXPECT_EQ(status["Groups"], " ");
  }
  EXPECT_EQ(LimitOf(daemon.Pid(), "Max core file size"), "0 0");
  EXPECT_EQ(LimitOf(daemon.Pid(), "Max data size"), "4294967296 4294967296");
  EXPECT_EQ(LimitOf(daemon.Pid(), "Max open files"), "1024 1024");
  EXPECT_EQ(daemon.Verdict("alpha"), "A");
}

TEST(Sandbox, OffLeavesTheDaemonAsItsAgentIs) {
  ::setenv("VOND_SANDBOX", "required", 1);  // not inherited
  agent::SandboxOptions off;
  off.mode = agent::SandboxMode::kOff;
  RunningDaemon daemon({}, off);
  ASSERT_TRUE(daemon.SetRules({kRule}));
  std::map<std::string, std::string> daemons = StatusOf(daemon.Pid());
  std::map<std::string, std::string> ours = StatusOf(::getpid());
  for (const char* const name : {"Uid", "Gid", "CapEff", "NoNewPrivs", "Seccomp"}) {
    EXPECT_EQ(daemons[name], ours[name]) << name;
  }
  EXPECT_EQ(LimitOf(daemon.Pid(), "Max core file size"), LimitOf(::getpid(), "Max core file size"));
  EXPECT_EQ(daemon.Verdict("alpha"), "A");
}

#ifdef __x86_64__

// Makes system calls on the entry thread of a running daemon, from outside.
class Intruder {
 public:
  explicit Intruder(pid_t pid) : pid_(pid) { attached_ = ::ptrace(PTRACE_SEIZE, pid_, nullptr, nullptr) == 0; }
  Intruder(const Intruder&) = delete;
  Intruder& operator=(const Intruder&) = delete;
  ~Intruder() {
    if (attached_) {
      ::ptrace(PTRACE_DETACH, pid_, nullptr, nullptr);
    }
  }
  [[nodiscard]] bool IsAttached() const { return attached_; }

  // Stops the thread where it waits in a system call.
  [[nodiscard]] bool Stop() {
    return WaitUntil(
        [this] {
          if (::ptrace(PTRACE_INTERRUPT, pid_, nullptr, nullptr) != 0 || !WaitForStop() ||
              ::ptrace(PTRACE_GETREGS, pid_, nullptr, &saved_) != 0) {
            return false;
          }
          constexpr long kSyscallInstruction = 0x050f;
          const long code = ::ptrace(PTRACE_PEEKTEXT, pid_, saved_.rip - 2, nullptr) & 0xffff;
          if (code == kSyscallInstruction && static_cast<long>(saved_.orig_rax) >= 0) {
            return true;
          }
          ::ptrace(PTRACE_CONT, pid_, nullptr, nullptr);
          return false;
        },
        kLong);
  }

  // What the call comes to: "SIGSYS", or its result. `path` is the text that an argument of kPath points at. Only a
  // call that is known to be refused may `leave_no_trap`.
  static constexpr std::uint64_t kPath = ~std::uint64_t{12345};
  std::string Call(long number, std::array<std::uint64_t, 4> arguments, const std::string& path = "/etc/passwd",
                   bool leave_no_trap = false) {
    user_regs_struct registers = saved_;
    const std::uint64_t place = (saved_.rsp - 1024) & ~std::uint64_t{15};
    std::string text = path + std::string(8, '\0');
    for (std::size_t i = 0; i + 8 <= text.size(); i += 8) {
      long word = 0;
      std::memcpy(&word, text.data() + i, sizeof word);
      ::ptrace(PTRACE_POKEDATA, pid_, place + i, word);
    }
    for (std::uint64_t& argument : arguments) {
      argument = argument == kPath ? place : argument;
    }
    registers.rax = static_cast<std::uint64_t>(number);
    registers.orig_rax = ~std::uint64_t{0};
    registers.rip -= 2;
    std::tie(registers.rdi, registers.rsi, registers.rdx, registers.r10) =
        std::tuple(arguments[0], arguments[1], arguments[2], arguments[3]);
    const std::uint64_t begin = registers.rip;
    do {  // a call that was refused leaves the trap of its step behind, which comes before the next call
      ::ptrace(PTRACE_SETREGS, pid_, nullptr, &registers);
      ::ptrace(leave_no_trap ? PTRACE_CONT : PTRACE_SINGLESTEP, pid_, nullptr, nullptr);
      if (!WaitForStop()) {
        return "ended";
      }
      if (signal_ != SIGTRAP) {
        return std::string("SIG") + ::sigabbrev_np(signal_);
      }
      ::ptrace(PTRACE_GETREGS, pid_, nullptr, &registers);
    } while (registers.rip == begin);
    return std::to_string(static_cast<std::int64_t>(registers.rax));
  }

  // Lets the daemon go on, as if its own call had been interrupted.
  void Release() {
    static_cast<void>(Call(SYS_getpid, {}));  // takes the last trap
    saved_.rax = static_cast<std::uint64_t>(-EINTR);
    saved_.orig_rax = ~std::uint64_t{0};
    ::ptrace(PTRACE_SETREGS, pid_, nullptr, &saved_);
    ::ptrace(PTRACE_DETACH, pid_, nullptr, nullptr);
    attached_ = false;
  }
  // The same where it stands, with the signal that has stopped it.
  void ReleaseWithSignal() {
    ::ptrace(PTRACE_DETACH, pid_, nullptr, static_cast<long>(signal_));
    attached_ = false;
  }

 private:
  bool WaitForStop() {
    int status = 0;
    if (::waitpid(pid_, &status, __WALL) != pid_ || !WIFSTOPPED(status)) {
      return false;
    }
    signal_ = WSTOPSIG(status);
    return true;
  }

  const pid_t pid_;
  bool attached_ = false;
  int signal_ = 0;
  user_regs_struct saved_{};
};

struct CallRow {
  const char* name;
  long number;
  std::array<std::uint64_t, 4> arguments;
  std::string end;
};

constexpr std::uint64_t kHere = static_cast<std::uint64_t>(AT_FDCWD);
constexpr std::uint64_t kPath = Intruder::kPath;

TEST(Sandbox, RefusesSystemCallsFromInsideTheRunningDaemon) {
  RunningDaemon daemon;
  ASSERT_TRUE(daemon.SetRules({kRule}));
  Intruder intruder(daemon.Pid());
  if (!intruder.IsAttached() || StatusOf(daemon.Pid())["Seccomp"] != "2") {
    GTEST_SKIP() << "no system call can be made in the daemon, or none is filtered";
  }
  ASSERT_TRUE(intruder.Stop());
  const auto us = static_cast<std::uint64_t>(::getpid());
  const auto daemon_pid = static_cast<std::uint64_t>(daemon.Pid());
  const std::string refused = "SIGSYS";
  const std::vector<CallRow> rows = {
      {"what is allowed", SYS_getpid, {}, std::to_string(daemon.Pid())},
      {"a file", SYS_openat, {kHere, kPath, O_RDONLY}, refused},
      {"a file, the old way", SYS_open, {kPath, O_RDONLY}, refused},
      {"a new file", SYS_openat, {kHere, kPath, O_WRONLY | O_CREAT, 0600}, refused},
      {"a file by handle", SYS_open_by_handle_at, {kHere, kPath, O_RDONLY}, refused},
      {"a file's status", SYS_stat, {kPath, kPath}, refused},
      {"removing a file", SYS_unlink, {kPath}, refused},
      {"a link", SYS_symlink, {kPath, kPath}, refused},
      {"a mount", SYS_mount, {kPath, kPath, kPath}, refused},
      {"a memfd", SYS_memfd_create, {kPath, 0}, refused},
      {"a socket", SYS_socket, {AF_INET, SOCK_STREAM, 0}, refused},
      {"a local socket", SYS_socket, {AF_UNIX, SOCK_STREAM, 0}, refused},
      {"a netlink socket", SYS_socket, {AF_NETLINK, SOCK_RAW, 0}, refused},
      {"connecting", SYS_connect, {3, kPath, 16}, refused},
      {"a pair of sockets", SYS_socketpair, {AF_UNIX, SOCK_STREAM, 0, kPath}, refused},
      {"a program", SYS_execve, {kPath, 0, 0}, refused},
      {"a program by descriptor", SYS_execveat, {kHere, kPath, 0, 0}, refused},
      {"a process", SYS_fork, {}, refused},
      {"a process that shares memory", SYS_vfork, {}, refused},
      {"a process by clone", SYS_clone, {SIGCHLD}, refused},
      {"a process by clone3", SYS_clone3, {kPath, 64}, std::to_string(-ENOSYS)},
      {"a user namespace", SYS_unshare, {CLONE_NEWUSER}, refused},
      {"executable memory", SYS_mmap, {0, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS}, refused},
      {"memory made executable", SYS_mprotect, {kPath & ~std::uint64_t{4095}, 4096, PROT_EXEC}, refused},
      {"tracing", SYS_ptrace, {PTRACE_SEIZE, us}, refused},
      {"another process's memory", SYS_process_vm_readv, {us, kPath, 1}, refused},
      {"a signal to the agent", SYS_kill, {us, SIGTERM}, refused},
      {"a signal to a thread of the agent", SYS_tgkill, {us, us, SIGTERM}, refused},
      {"no signal to itself", SYS_tgkill, {daemon_pid, daemon_pid, 0}, "0"},
      {"another user", SYS_setuid, {0}, refused},
      {"other limits", SYS_prlimit64, {0, RLIMIT_NOFILE, kPath}, refused},
      {"a core file after all", SYS_prctl, {PR_SET_DUMPABLE, 1}, refused},
      {"an ioctl", SYS_ioctl, {0, 0x5412, kPath}, refused},
      {"a kernel's program", SYS_bpf, {0, kPath, 64}, refused},
      {"a ring", SYS_io_uring_setup, {1, kPath}, refused},
      {"a key", SYS_keyctl, {0}, refused},
      {"a module", SYS_init_module, {kPath, 1, kPath}, refused},
      {"an unknown call", 9999, {}, refused}};
  for (const CallRow& row : rows) {
    EXPECT_EQ(intruder.Call(row.number, row.arguments), row.end) << row.name;
  }
  intruder.Release();
  EXPECT_EQ(daemon.Verdict("alpha"), "A");

  Intruder last(daemon.Pid());
  ASSERT_TRUE(last.IsAttached() && last.Stop());
  ASSERT_EQ(last.Call(SYS_socket, {AF_INET, SOCK_STREAM, 0}, "", true), refused);
  last.ReleaseWithSignal();
  const auto status = daemon.Client().Process().Wait(kLong);
  ASSERT_TRUE(status && status->signaled);
  EXPECT_EQ(status->signal, SIGABRT);
  ASSERT_TRUE(daemon.Client().Process().WaitForOutputEnd(kLong));
  const auto err = daemon.Client().Process().RecentOutput(agent::OutputStream::kStderr);
  ASSERT_GE(err.size(), 4U) << "a title and some frames";
  EXPECT_EQ(err.front(), "Dumping backtrace");
}

TEST(Sandbox, RulesWithMagicOpenItsDatabaseAndNothingElse) {
  agent::SandboxOptions options = TestSandbox();
  options.magic_database = true;
  RunningDaemon daemon({}, options);
  if (!daemon.SetRules({kMagicRule})) {
    GTEST_SKIP() << "this libyara has no module magic";
  }
  EXPECT_EQ(daemon.Verdict("plain words\n"), "M");
  Intruder intruder(daemon.Pid());
  if (!intruder.IsAttached() || !SandboxLines(daemon.Client()).empty()) {
    GTEST_SKIP() << "no system call can be made in the daemon, or a layer is missing";
  }
  ASSERT_TRUE(intruder.Stop());
  EXPECT_EQ(intruder.Call(SYS_openat, {kHere, kPath, O_RDONLY}), std::to_string(-EACCES));
  EXPECT_EQ(intruder.Call(SYS_openat, {kHere, kPath, O_RDONLY | O_DIRECTORY}, "/"), std::to_string(-EACCES));
  EXPECT_EQ(intruder.Call(SYS_openat, {kHere, kPath, O_RDWR}), "SIGSYS");
  EXPECT_EQ(intruder.Call(SYS_openat, {kHere, kPath, O_PATH}), "SIGSYS");
  EXPECT_EQ(intruder.Call(SYS_open, {kPath, O_RDONLY}), "SIGSYS");
  EXPECT_EQ(intruder.Call(SYS_execve, {kPath, 0, 0}), "SIGSYS");
  intruder.Release();

  RunningDaemon other;
  ASSERT_TRUE(other.SetRules({kMagicRule}));
  EXPECT_NE(other.Verdict("plain words\n").find("SIGABRT"), std::string::npos) << "it was not told of magic";
}

#endif

// What `attempt` returns in a child process, or how that ended; 0 is a success, other values are errno's.
int InChild(const std::function<int()>& attempt) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::_exit(attempt());
  }
  int status = 0;
  EXPECT_EQ(::waitpid(pid, &status, 0), pid);
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

int ErrnoOf(long result) { return result < 0 ? errno : 0; }

int Open(const char* path, int flags = O_RDONLY) { return ErrnoOf(::open(path, flags | O_CLOEXEC, 0600)); }

// Connects to a listener of the test's.
int Connect(const sockaddr_in& address) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  return fd < 0 ? errno : ErrnoOf(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address));
}

constexpr int kNoLayer = 200;  // the kernel lacks it

int Confined(const std::function<std::string()>& enter, const std::function<int()>& attempt) {
  return InChild([&] { return enter().empty() ? attempt() : kNoLayer; });
}

TEST(Sandbox, EachLayerHoldsByItself) {
  const ManagedFD listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(::bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), length), 0);
  ASSERT_EQ(::listen(listener.Get(), 5), 0);
  ASSERT_EQ(::getsockname(listener.Get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
  ASSERT_EQ(InChild([&] { return Connect(address); }), 0);
  const ManagedFD large(::memfd_create("large", MFD_CLOEXEC));
  ASSERT_EQ(::ftruncate(large.Get(), 512 * static_cast<off_t>(kMegabyte)), 0);

  SandboxSettings limits;
  limits.memory = 256 * kMegabyte;
  limits.descriptors = 64;
  limits.cpu = 1;
  SandboxSettings with_magic;
  with_magic.magic = true;
  SandboxSettings nobody;
  nobody.uid = 65534;
  nobody.gid = 65534;
  const auto no_files = [] { return ForgoPrivileges() + LeaveFileSystem({}); };
  const auto only_magic = [&] { return ForgoPrivileges() + LeaveFileSystem(with_magic); };
  const auto limited = [&] { return LimitResources(limits); };
  const auto as_nobody = [&] { return BecomeUser(nobody); };
  const auto map = [](int protection, int flags, int fd) {
    return ::mmap(nullptr, 512 * kMegabyte, protection, flags, fd, 0) == MAP_FAILED ? errno : 0;
  };
  const char* const database = "/usr/share/misc/magic.mgc";
  const long landlock = ::syscall(SYS_landlock_create_ruleset, nullptr, 0, 1U);
  const bool is_root = ::geteuid() == 0;

  struct Row {
    const char* name;
    bool applies;
    std::function<std::string()> enter;
    std::function<int()> attempt;
    int end;
  };
  const std::vector<Row> rows = {
      {"Landlock: a file", true, no_files, [] { return Open("/etc/passwd"); }, EACCES},
      {"Landlock: a folder", true, no_files, [] { return Open("/", O_DIRECTORY); }, EACCES},
      {"Landlock: a new file", true, no_files, [] { return Open("/dev/shm/vond-test", O_WRONLY | O_CREAT); }, EACCES},
      {"Landlock: a program", true, no_files,
       [] { return ErrnoOf(::execl("/bin/true", "true", static_cast<char*>(nullptr))); }, EACCES},
      {"Landlock: TCP", landlock >= 4, no_files, [&] { return Connect(address); }, EACCES},
      {"Landlock: a signal", landlock >= 6, no_files, [] { return ErrnoOf(::kill(::getppid(), 0)); }, EPERM},
      {"Landlock: the database of magic", ::access(database, R_OK) == 0, only_magic, [&] { return Open(database); }, 0},
      {"Landlock: only that", true, only_magic, [] { return Open("/etc/passwd"); }, EACCES},
      {"network", true, &LeaveNetwork, [&] { return Connect(address); }, ENETUNREACH},
      {"memory", true, limited, [&] { return map(PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1); }, ENOMEM},
      {"memory: scanned files are free", true, limited, [&] { return map(PROT_READ, MAP_PRIVATE, large.Get()); }, 0},
      {"descriptors", true, limited,
       [] {
         int last = 0;
         for (int fd = 0; fd >= 0; fd = ::dup(0)) {
           last = fd;
         }
         return errno == EMFILE ? last : -1;
       },
       63},
      {"processor time", true, limited,
       [] {
         while (::getppid() >= 0) {
         }
         return 0;
       },
       -SIGKILL},
      {"core file", true, limited,
       [] {
         rlimit limit{1, 1};
         ::getrlimit(RLIMIT_CORE, &limit);
         return static_cast<int>(limit.rlim_cur + limit.rlim_max);
       },
       0},
      {"user: back to root", is_root, as_nobody, [] { return ErrnoOf(::setuid(0)); }, EPERM},
      {"user: groups", is_root, as_nobody, [] { return ::getgroups(0, nullptr); }, 0},
      {"user: root's files", is_root, as_nobody, [] { return Open("/etc/shadow"); }, EACCES},
      {"privileges: capabilities", is_root, &ForgoPrivileges, [] { return ErrnoOf(::chroot("/")); }, EPERM},
      {"privileges: new ones", true, &ForgoPrivileges,
       [] { return ::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 1 ? 0 : 1; }, 0}};
  for (const Row& row : rows) {
    const int end = row.applies ? Confined(row.enter, row.attempt) : kNoLayer;
    if (end == kNoLayer) {
      std::printf("not here: %s\n", row.name);
      continue;
    }
    EXPECT_EQ(end, row.end) << row.name;
  }
}

// Has the kernel refuse some system calls, as an older one or a container does, to the calling thread and whatever it
// starts.
void RefuseCalls(const std::vector<std::pair<const char*, int>>& calls) {
  const std::unique_ptr<void, void (*)(scmp_filter_ctx)> filter(::seccomp_init(SCMP_ACT_ALLOW), ::seccomp_release);
  for (const auto& [name, error] : calls) {
    const auto action = SCMP_ACT_ERRNO(static_cast<std::uint32_t>(error));
    const int number = ::seccomp_syscall_resolve_name(name);
    const int result = std::strcmp(name, "prctl") == 0
                           ? ::seccomp_rule_add(filter.get(), action, number, 1, SCMP_A0(SCMP_CMP_EQ, PR_SET_SECCOMP))
                           : ::seccomp_rule_add(filter.get(), action, number, 0);
    ASSERT_EQ(result, 0) << name;
  }
  ASSERT_EQ(::seccomp_load(filter.get()), 0);
}

struct Lack {
  const char* name;
  std::vector<std::pair<const char*, int>> refused;
  std::vector<std::string> lines;
  bool needs_root = false;
};

TEST(Sandbox, ALayerThatIsMissingIsOneLineOrAnErrorWhereRequired) {
  {
    RunningDaemon daemon({}, {});
    ASSERT_TRUE(daemon.SetRules({kRule}));
    if (const auto lines = SandboxLines(daemon.Client()); !lines.empty()) {
      GTEST_SKIP() << lines.front();
    }
  }
  const std::string seccomp =
      "sandbox: system calls are not filtered, seccomp can't be had (seccomp: Bad address)";  // libseccomp's last probe
  const std::vector<Lack> rows = {
      {"Landlock is not built in",
       {{"landlock_create_ruleset", ENOSYS}},
       {"sandbox: the file system stays open to it, Landlock can't be had (landlock_create_ruleset: Function not "
        "implemented)"}},
      {"Landlock is switched off",
       {{"landlock_create_ruleset", EOPNOTSUPP}},
       {"sandbox: the file system stays open to it, Landlock can't be had (landlock_create_ruleset: Operation not "
        "supported)"}},
      {"another user is refused",
       {{"setresuid", EPERM}},
       {"sandbox: the daemon stays its agent's user (setresuid: Operation not permitted)"},
       true},
      {"limits are refused",
       {{"prlimit64", EPERM}},
       {"sandbox: a resource has no limit (core file: Operation not "
        "permitted, memory: Operation not permitted, descriptors: Operation not permitted)"}},
      {"namespaces are refused", {{"unshare", EPERM}}, {}},  // the filter holds the network
      {"filters are refused", {{"seccomp", EPERM}, {"prctl", EPERM}}, {seccomp}},
      {"filters and namespaces are refused",
       {{"seccomp", EPERM}, {"prctl", EPERM}, {"unshare", EPERM}},
       {seccomp, "sandbox: the network stays open to it (unshare: Operation not permitted)"}}};
  for (const Lack& row : rows) {
    if (row.needs_root && ::geteuid() != 0) {
      continue;
    }
    SCOPED_TRACE(row.name);
    std::thread([&row] {
      RefuseCalls(row.refused);
      {
        RunningDaemon daemon({}, {});
        ASSERT_TRUE(daemon.SetRules({kRule}));
        EXPECT_EQ(daemon.Verdict("alpha"), "A");
        EXPECT_TRUE(WaitUntil([&] { return SandboxLines(daemon.Client()).size() >= row.lines.size(); }));
        EXPECT_EQ(SandboxLines(daemon.Client()), row.lines);
      }
      agent::SandboxOptions required;
      required.mode = agent::SandboxMode::kRequired;
      try {
        RunningDaemon daemon({}, required);
        EXPECT_TRUE(row.lines.empty());
        EXPECT_TRUE(daemon.SetRules({kRule}));
      } catch (const agent::Error& e) {
        EXPECT_EQ(e.Code(), agent::ErrorCode::kStartFailed);
        for (const std::string& line : row.lines) {
          EXPECT_NE(std::string(e.what()).find(line.substr(std::strlen("sandbox: "))), std::string::npos) << e.what();
        }
        EXPECT_FALSE(row.lines.empty()) << e.what();
      }
    }).join();
  }
}

TEST(Sandbox, RequiredIsNotTakenOnTheDaemonsWord) {
  agent::DaemonOptions options;
  options.executable = "/bin/sh";
  options.extra_arguments = {"-c", std::string("unset VOND_SANDBOX; exec ") + VOND_PATH + " -c 3:requests"};
  options.sandbox.mode = agent::SandboxMode::kRequired;
  try {
    agent::Client client(options);
    ADD_FAILURE() << "it has started";
  } catch (const agent::Error& e) {
    EXPECT_STREQ(e.what(), "starting vond in a sandbox: it has not entered one");
  }
}

TEST(Sandbox, AVariableThatMakesNoSenseEndsTheDaemon) {
  const std::pair<const char*, const char*> rows[] = {
      {"", "it must begin with \"on\" or \"required\""},
      {"yes", "it must begin with \"on\" or \"required\""},
      {"on,", "\"\" is not known"},
      {"on,magick", "\"magick\" is not known"},
      {"on,memory", "\"memory\" has no number that counts"},
      {"on,memory=1G", "\"memory=1G\" has no number that counts"},
      {"on,uid=-1", "\"uid=-1\" has no number that counts"},
      {"required,cpu=99999999999999999999", "\"cpu=99999999999999999999\" has no number that counts"}};
  for (const auto& [text, complaint] : rows) {
    const ChildResult result = RunChild({VOND_PATH, "-c", "0:requests"}, {std::string("VOND_SANDBOX=") + text});
    EXPECT_EQ(result.exit_status, 3) << text;
    EXPECT_EQ(result.err, std::string("sandbox: VOND_SANDBOX can't be understood: ") + complaint + "\n");
  }
  agent::SandboxOptions options;
  options.mode = agent::SandboxMode::kRequired;
  options.memory_limit = 5;
  options.descriptor_limit = 6;
  options.cpu_seconds = 7;
  options.uid = 8;
  options.gid = 9;
  options.magic_database = true;
  const SandboxSettings settings = ParseSandboxSettings(agent::SandboxVariable(options));
  EXPECT_TRUE(settings.required && settings.magic);
  EXPECT_EQ(std::tuple(settings.memory, settings.descriptors, settings.cpu, settings.uid, settings.gid),
            std::tuple(5U, 6U, 7U, std::optional<uid_t>(8), std::optional<gid_t>(9)));
}

TEST(Sandbox, ADaemonWithoutMemoryRefusesThePolicyAndGoesOn) {
  agent::SandboxOptions options = TestSandbox();
  options.memory_limit = 64 * kMegabyte;
  RunningDaemon daemon({}, options);
  ASSERT_TRUE(daemon.SetRules({kRule}));
  std::string many;
  for (int i = 0; i < 6000; ++i) {
    const std::string name = "r" + std::to_string(i);
    many += "rule " + name + " { meta: id = \"" + name + "\" action = \"block\" strings:";
    for (int k = 0; k < 8; ++k) {
      many +=
          " $" + std::to_string(k) + " = \"" + std::to_string(k * 7919 + i * 104729) + name + "\" wide ascii nocase";
    }
    many += " condition: any of them }\n";
  }
  EXPECT_FALSE(daemon.SetRules({many}));
  EXPECT_TRUE(daemon.Client().IsAlive());
  // The memory of the attempt is given back once its answer is out.
  EXPECT_TRUE(WaitUntil([&] { return daemon.Verdict("alpha") == "A"; }));
}

TEST(Sandbox, AnIncludeOpensNothing) {
  RunningDaemon daemon;
  EXPECT_FALSE(daemon.SetRules({"include \"/etc/passwd\"\n" + kRule}));
  EXPECT_TRUE(daemon.SetRules({kRule}));
  EXPECT_EQ(daemon.Verdict("alpha"), "A");
}

// What vondctl's options make of the daemon's sandbox, by a program that notes it and becomes vond.
TEST(Sandbox, OptionsOfVondctl) {
  std::string folder = (std::filesystem::temp_directory_path() / "vond-sandbox.XXXXXX").string();
  ASSERT_NE(::mkdtemp(folder.data()), nullptr);
  const auto write = [&](const char* name, const std::string& text) {
    std::ofstream(folder + "/" + name) << text;
    return folder + "/" + name;
  };
  const std::string noting =
      write("vond", "#!/bin/sh\necho \"$VOND_SANDBOX\" >> " + folder + "/notes\nexec " + VOND_PATH + " \"$@\"\n");
  ASSERT_EQ(::chmod(noting.c_str(), 0755), 0);
  const std::string plain = write("plain.yar", kRule);
  const std::string magic = write("magic.yar", kMagicRule);
  const std::string policy = write("policy.json", R"({"rule_sets":[{"path":"plain.yar"},{"path":"magic.yar",)"
                                                  R"("rule_type":"Allow"}]})");
  const std::string text = write("text", "plain words\n");
  const std::string usual = "memory=4294967296,descriptors=1024,uid=65534,gid=65534";
  const std::tuple<const char*, std::vector<std::string>, int, std::string> rows[] = {
      {"usual", {"scan", "-r", plain}, 0, "on," + usual},
      {"magic", {"scan", "-r", magic}, 1, "on," + usual + ",magic"},
      {"magic in a policy", {"scan", "-p", policy}, 1, "on," + usual + ",magic"},
      {"off", {"scan", "--no-sandbox", "-r", magic}, 1, ""},
      {"required", {"scan", "--require-sandbox", "-r", plain}, 0, "required," + usual},
      {"bench", {"bench", "--seconds", "0.1", "--no-sandbox", "-r", plain}, 0, ""},
      {"bench with magic", {"bench", "--seconds", "0.1", "-r", magic}, 0, "on," + usual + ",magic"}};
  for (const auto& [name, arguments, status, note] : rows) {
    std::filesystem::remove(folder + "/notes");
    std::vector<std::string> command{VONDCTL_PATH};
    command.insert(command.end(), arguments.begin(), arguments.end());
    command.insert(command.end(), {"--vond", noting, text});
    const ChildResult result = RunChild(command);
    if (result.err.find("unknown module") != std::string::npos) {
      continue;  // this libyara has no magic
    }
    EXPECT_EQ(result.exit_status, status) << name << ": " << result.err;
    std::ifstream notes(folder + "/notes");
    std::string line;
    std::getline(notes, line);
    EXPECT_EQ(line, note) << name;
  }
  std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace vond::test
