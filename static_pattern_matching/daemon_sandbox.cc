#include "static_pattern_matching/daemon_sandbox.h"

#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <vector>

#ifndef VOND_SANITIZED
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <linux/landlock.h>
#include <malloc.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <initializer_list>
#include <memory>
#include <system_error>

#include "utils/managed_fd.h"
#endif

namespace korvo::static_pattern_matching_daemon {
namespace {

constexpr const char* kVariable = "VOND_SANDBOX";

std::optional<unsigned> processors;  // written before other threads exist

template <typename Number>
Number ParseNumber(std::string_view word, std::string_view digits) {
  Number number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (error != std::errc() || end != digits.data() + digits.size()) {
    throw std::invalid_argument("\"" + std::string(word) + "\" has no number that counts");
  }
  return number;
}

void TakeWord(std::string_view word, SandboxSettings& settings) {
  const std::size_t equals = word.find('=');
  const std::string_view name = word.substr(0, equals);
  const std::string_view value = equals == std::string_view::npos ? std::string_view() : word.substr(equals + 1);
  if (word == "magic") {
    settings.magic = true;
  } else if (name == "memory") {
    settings.memory = ParseNumber<std::uint64_t>(word, value);
  } else if (name == "descriptors") {
    settings.descriptors = ParseNumber<std::uint64_t>(word, value);
  } else if (name == "cpu") {
    settings.cpu = ParseNumber<std::uint64_t>(word, value);
  } else if (name == "uid") {
    settings.uid = ParseNumber<uid_t>(word, value);
  } else if (name == "gid") {
    settings.gid = ParseNumber<gid_t>(word, value);
  } else {
    throw std::invalid_argument("\"" + std::string(word) + "\" is not known");
  }
}

// In one piece.
void Say(const std::string& text) {
  const std::string line = "sandbox: " + text + "\n";
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace

SandboxSettings ParseSandboxSettings(std::string_view text) {
  SandboxSettings settings;
  std::string_view word = text.substr(0, text.find(','));
  if (word != "on" && word != "required") {
    throw std::invalid_argument("it must begin with \"on\" or \"required\"");
  }
  settings.required = word == "required";
  while (word.size() < text.size()) {
    text.remove_prefix(word.size() + 1);
    word = text.substr(0, text.find(','));
    TakeWord(word, settings);
  }
  return settings;
}

unsigned ProcessorCount() { return processors ? *processors : std::thread::hardware_concurrency(); }

#ifndef VOND_SANITIZED

namespace {

using auto_resources::ManagedFD;

std::string ErrnoText(const char* call) { return std::string(call) + ": " + std::generic_category().message(errno); }

// Capabilities are of no use to the daemon; the user namespace of LeaveNetwork brings all of them.
std::string DropCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> held{};
  const auto is_none = [](const __user_cap_data_struct& set) {
    return (set.effective | set.permitted | set.inheritable) == 0;
  };
  if (::syscall(SYS_capget, &header, held.data()) == 0 && std::all_of(held.begin(), held.end(), is_none)) {
    return {};  // as a service without any, which may not even call capset
  }
  const std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
  return ::syscall(SYS_capset, &header, none.data()) == 0 ? "" : ErrnoText("capset");
}

// The C library opens /proc/sys/vm/overcommit_memory when a thread's heap shrinks for the first time, and remembers
// what it found. So one shrinks here: a block below the threshold for a mapping of its own and above that for trimming.
std::string ShrinkOneHeap() {
  constexpr std::size_t kSize = 3 << 20;
  try {
    std::thread([] {
      void* volatile const block = std::malloc(kSize);
      std::free(block);
    }).join();
    return {};
  } catch (const std::system_error& e) {
    return std::string("a thread: ") +
           e.what();  // better no filter than one that ends the daemon in the midst of a scan
  }
}

// With many threads the C library would read from /sys how many processors there are, to bound the number of its heaps.
// The bound is the same, but need not be looked for.
void LimitHeaps() {
  constexpr unsigned kHeapsPerProcessor = 8;
  ::mallopt(M_ARENA_MAX, static_cast<int>(kHeapsPerProcessor * std::max(ProcessorCount(), 1U)));
}

// The rules of a file system's interface, newer than the system's header. By version: which accesses it knows.
constexpr std::uint64_t kLandlockFilesV1 = (1U << 13U) - 1;
constexpr std::uint64_t kLandlockRefer = 1U << 13U;        // version 2
constexpr std::uint64_t kLandlockTruncate = 1U << 14U;     // version 3
constexpr std::uint64_t kLandlockIoctlDevice = 1U << 15U;  // version 5
constexpr std::uint64_t kLandlockTcp = 3;                  // version 4: bind, connect
constexpr std::uint64_t kLandlockScopes = 3;               // version 6: abstract sockets, signals to the outside

struct LandlockRules {
  std::uint64_t files = 0;
  std::uint64_t network = 0;
  std::uint64_t scopes = 0;
};

// Where libmagic looks by default, in its order.
constexpr std::array<const char*, 8> kMagicFiles = {"/etc/magic.mgc",
                                                    "/etc/magic",
                                                    "/usr/share/misc/magic.mgc",
                                                    "/usr/share/misc/magic",
                                                    "/usr/share/file/magic.mgc",
                                                    "/usr/lib/file/magic.mgc",
                                                    "/usr/share/magic.mgc",
                                                    "/usr/share/magic"};

std::string AllowMagic(int rules) {
  for (const char* const path : kMagicFiles) {
    const ManagedFD file(::open(path, O_PATH | O_CLOEXEC));
    if (!file.IsValid()) {
      continue;
    }
    landlock_path_beneath_attr beneath{};
    beneath.allowed_access = LANDLOCK_ACCESS_FS_READ_FILE;
    beneath.parent_fd = file.Get();
    if (::syscall(SYS_landlock_add_rule, rules, LANDLOCK_RULE_PATH_BENEATH, &beneath, 0U) != 0) {
      return ErrnoText(path);
    }
  }
  return {};
}

// An allow-list of system calls. docs/sandbox.md tells how it was measured.
class Filter {
 public:
  Filter() : filter_(::seccomp_init(SCMP_ACT_TRAP), ::seccomp_release) {
    if (filter_ != nullptr) {
      ::seccomp_attr_set(filter_.get(), SCMP_FLTATR_API_SYSRAWRC, 1);  // the kernel's own word on why it can't be had
    }
  }

  [[nodiscard]] bool IsGood() const { return filter_ != nullptr && error_ == 0; }
  [[nodiscard]] std::string Error() const {
    return filter_ == nullptr ? "libseccomp" : failed_ + ": " + std::generic_category().message(-error_);
  }

  // Names that this libseccomp or machine does not know are left out: nothing calls them then.
  void Allow(const char* name, std::initializer_list<scmp_arg_cmp> conditions = {}) {
    Add(SCMP_ACT_ALLOW, name, conditions);
  }
  void Refuse(const char* name, int error) { Add(SCMP_ACT_ERRNO(static_cast<std::uint32_t>(error)), name, {}); }

  void Load() {
    if (IsGood()) {
      error_ = ::seccomp_load(filter_.get());
      failed_ = "seccomp";
    }
  }

 private:
  void Add(std::uint32_t action, const char* name, std::initializer_list<scmp_arg_cmp> conditions) {
    const int number = ::seccomp_syscall_resolve_name(name);
    if (!IsGood() || number == __NR_SCMP_ERROR) {
      return;
    }
    const int error = ::seccomp_rule_add_array(filter_.get(), action, number, static_cast<unsigned>(conditions.size()),
                                               conditions.begin());
    if (error != 0 && number >= 0) {
      error_ = error;
      failed_ = name;
    }
  }

  std::unique_ptr<void, void (*)(scmp_filter_ctx)> filter_;
  int error_ = 0;
  std::string failed_;
};

scmp_arg_cmp Equal(unsigned argument, std::uint64_t value) { return {argument, SCMP_CMP_EQ, value, 0}; }
scmp_arg_cmp Masked(unsigned argument, std::uint64_t mask, std::uint64_t value) {
  return {argument, SCMP_CMP_MASKED_EQ, mask, value};
}

void AllowCalls(Filter& filter, bool magic) {
  // Measured: the channel, scanned files and the log.
  for (const char* const name :
       {"read", "pread64", "write", "lseek", "close", "fstat", "fstatfs", "recvmsg", "sendmsg", "poll", "shutdown"}) {
    filter.Allow(name);
  }
  // Measured: memory, threads, time, signals, the end.
  for (const char* const name :
       {"brk", "munmap", "madvise", "mremap", "futex", "set_robust_list", "rseq", "sched_getaffinity", "getpid",
        "gettid", "rt_sigaction", "rt_sigprocmask", "rt_sigreturn", "clock_gettime", "clock_nanosleep", "getrandom",
        "sysinfo", "exit", "exit_group"}) {
    filter.Allow(name);
  }
  // The same by another name where the C library or the kernel is another: who waits with a signal mask, who sends and
  // receives without descriptors, whose clock has no fast path, what the kernel calls by itself after a stop.
  for (const char* const name : {"ppoll", "recvfrom", "sendto", "writev", "nanosleep", "gettimeofday", "time",
                                 "sched_yield", "membarrier", "restart_syscall", "fstat64", "fstatfs64", "_llseek"}) {
    filter.Allow(name);
  }
  // No memory that is written becomes code.
  filter.Allow("mmap", {Masked(2, PROT_EXEC, 0)});
  filter.Allow("mmap2", {Masked(2, PROT_EXEC, 0)});
  filter.Allow("mprotect", {Masked(2, PROT_EXEC, 0)});
  // Threads, but neither processes nor namespaces. What clone3 is asked for can't be seen from a filter; the C library
  // goes back to clone when told that it does not exist.
  constexpr std::uint64_t kThread = CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SIGHAND | CLONE_THREAD;
  constexpr std::uint64_t kNamespaces =
      CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET;
  filter.Allow("clone", {Masked(0, kThread | kNamespaces, kThread)});
  filter.Refuse("clone3", ENOSYS);
  // The abort after a backtrace; nobody else can be signalled.
  filter.Allow("tgkill", {Equal(0, static_cast<std::uint64_t>(::getpid()))});
  filter.Allow("prctl", {Equal(0, PR_SET_NAME)});  // of workers
  filter.Allow("prctl", {Equal(0, PR_GET_NAME)});
  filter.Allow("fcntl", {Equal(1, F_GETFL)});
  filter.Allow("fcntl", {Equal(1, F_GETFD)});
  if (magic) {
    // Landlock says which files.
    filter.Allow("newfstatat");
    filter.Allow("openat", {Masked(2, O_ACCMODE | O_CREAT | O_TRUNC | O_PATH, O_RDONLY)});
  } else {
    filter.Allow("newfstatat", {Masked(3, AT_EMPTY_PATH, AT_EMPTY_PATH)});  // fstat, for newer C libraries
  }
}

}  // namespace

std::string LeaveNetwork() {
  // In a user namespace root could not become somebody else any more.
  const bool left = ::unshare(CLONE_NEWNET) == 0 || (::geteuid() != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0);
  return left ? "" : ErrnoText("unshare");
}

std::string LimitResources(const SandboxSettings& settings) {
  std::string missing;
  // Never above what was inherited.
  const auto limit = [&missing](__rlimit_resource resource, const char* name, rlim_t most) {
    rlimit limits{};
    if (::getrlimit(resource, &limits) == 0) {
      limits.rlim_cur = std::min(limits.rlim_cur, most);
      limits.rlim_max = limits.rlim_cur;
      if (::setrlimit(resource, &limits) == 0) {
        return;
      }
    }
    missing += (missing.empty() ? "" : ", ") + ErrnoText(name);
  };
  limit(RLIMIT_CORE, "core file", 0);  // it would hold what is scanned
  if (settings.memory != 0) {
    limit(RLIMIT_DATA, "memory", settings.memory);  // not the address space: scanned files are mapped, however large
  }
  if (settings.descriptors != 0) {
    limit(RLIMIT_NOFILE, "descriptors", settings.descriptors);
  }
  if (settings.cpu != 0) {
    limit(RLIMIT_CPU, "processor time", settings.cpu);
  }
  return missing;
}

std::string BecomeUser(const SandboxSettings& settings) {
  std::string missing;
  if (::geteuid() == 0 && settings.uid && *settings.uid != 0) {
    const uid_t uid = *settings.uid;
    const gid_t gid = settings.gid.value_or(static_cast<gid_t>(uid));
    if (::setgroups(0, nullptr) != 0) {
      missing = ErrnoText("setgroups");
    } else if (::setresgid(gid, gid, gid) != 0) {
      missing = ErrnoText("setresgid");
    } else if (::setresuid(uid, uid, uid) != 0) {
      missing = ErrnoText("setresuid");
    }
  }
  return missing;
}

std::string ForgoPrivileges() {
  const std::string missing = DropCapabilities();
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 ? missing : ErrnoText("prctl");
}

std::string LeaveFileSystem(const SandboxSettings& settings) {
  constexpr std::uint32_t kAskVersion = 1;
  const long version = ::syscall(SYS_landlock_create_ruleset, nullptr, 0, kAskVersion);
  if (version < 1) {
    return ErrnoText("landlock_create_ruleset");
  }
  // An older kernel takes the longer structure too, as long as what it does not know is zero.
  LandlockRules wanted;
  wanted.files = kLandlockFilesV1 | (version >= 2 ? kLandlockRefer : 0) | (version >= 3 ? kLandlockTruncate : 0) |
                 (version >= 5 ? kLandlockIoctlDevice : 0);
  wanted.network = version >= 4 ? kLandlockTcp : 0;
  wanted.scopes = version >= 6 ? kLandlockScopes : 0;
  const ManagedFD rules(static_cast<int>(::syscall(SYS_landlock_create_ruleset, &wanted, sizeof wanted, 0U)));
  if (!rules.IsValid()) {
    return ErrnoText("landlock_create_ruleset");
  }
  if (settings.magic) {
    if (std::string missing = AllowMagic(rules.Get()); !missing.empty()) {
      return missing;
    }
  }
  return ::syscall(SYS_landlock_restrict_self, rules.Get(), 0U) == 0 ? "" : ErrnoText("landlock_restrict_self");
}

std::string FilterSystemCalls(const SandboxSettings& settings) {
  if (std::string missing = ShrinkOneHeap(); !missing.empty()) {
    return missing;
  }
  LimitHeaps();
  Filter filter;
  AllowCalls(filter, settings.magic);
  filter.Load();
  return filter.IsGood() ? "" : filter.Error();
}

#else

std::string LeaveNetwork() { return {}; }
std::string LimitResources(const SandboxSettings& /*settings*/) { return {}; }
std::string BecomeUser(const SandboxSettings& /*settings*/) { return {}; }
std::string ForgoPrivileges() { return {}; }
std::string LeaveFileSystem(const SandboxSettings& /*settings*/) { return {}; }
std::string FilterSystemCalls(const SandboxSettings& settings) {
  return settings.required ? "a build with sanitizers" : "";
}

#endif

bool EnterSandbox() {
  const char* const text = std::getenv(kVariable);
  if (text == nullptr) {
    return true;
  }
  SandboxSettings settings;
  try {
    settings = ParseSandboxSettings(text);
  } catch (const std::invalid_argument& e) {
    Say(std::string(kVariable) + " can't be understood: " + e.what());
    return false;
  }
  std::vector<std::string> lines;
  const auto take = [&lines](const std::string& missing, const char* what) {
    if (!missing.empty()) {
      lines.push_back(std::string(what) + " (" + missing + ")");
    }
  };
  processors = std::thread::hardware_concurrency();
  std::string network = LeaveNetwork();
  take(LimitResources(settings), "a resource has no limit");
  take(BecomeUser(settings), "the daemon stays its agent's user");
  if (!network.empty()) {
    network = LeaveNetwork();  // as that user, in a user namespace
  }
  take(ForgoPrivileges(), "the daemon keeps privileges, or may gain new ones");
  take(LeaveFileSystem(settings), "the file system stays open to it, Landlock can't be had");
  const std::string calls = FilterSystemCalls(settings);
  take(calls, "system calls are not filtered, seccomp can't be had");
  if (!calls.empty()) {  // which holds the network too
    take(network, "the network stays open to it");
  }
  if (settings.required && !lines.empty()) {
    std::string all;  // in one line, the daemon's last words
    for (const std::string& line : lines) {
      all += (all.empty() ? "it is required, but " : "; ") + line;
    }
    Say(all);
    return false;
  }
  for (const std::string& line : lines) {
    Say(line);
  }
  return true;
}

}  // namespace korvo::static_pattern_matching_daemon
