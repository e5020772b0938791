#include "vondctl/match_commands.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>
#include <utility>

#include "utils/managed_fd.h"

namespace vond::vondctl {
namespace {

using auto_resources::ManagedFD;
using korvo::utils::MutexLock;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kPollInterval{10};

bool IsProgram(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

// A file with `text`, at its beginning; invalid, with errno, if there is no room for it.
ManagedFD FileWith(const std::string& text) {
  ManagedFD fd(::memfd_create("vondctl-match", MFD_CLOEXEC));
  for (std::size_t written = 0; fd.IsValid() && written < text.size();) {
    const ssize_t count = ::pwrite(fd.Get(), text.data() + written, text.size() - written, static_cast<off_t>(written));
    if (count < 0 && errno != EINTR) {
      return {};
    }
    written += count > 0 ? static_cast<std::size_t>(count) : 0;
  }
  return fd;
}

class SpawnAttributes {
 public:
  // Signals as a program expects them: this process has blocked some and handles others.
  SpawnAttributes() {
    sigset_t none;
    sigset_t all;
    ::sigemptyset(&none);
    ::sigfillset(&all);
    ::posix_spawnattr_init(&attributes_);
    ::posix_spawnattr_setsigmask(&attributes_, &none);
    ::posix_spawnattr_setsigdefault(&attributes_, &all);
    ::posix_spawnattr_setpgroup(&attributes_, 0);
    ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
  ~SpawnAttributes() { ::posix_spawnattr_destroy(&attributes_); }
  [[nodiscard]] const posix_spawnattr_t* Get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

class SpawnDescriptors {
 public:
  explicit SpawnDescriptors(int standard_input) {
    ::posix_spawn_file_actions_init(&actions_);
    ::posix_spawn_file_actions_adddup2(&actions_, standard_input, STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions_, STDERR_FILENO, STDOUT_FILENO);
    ::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
  }
  SpawnDescriptors(const SpawnDescriptors&) = delete;
  SpawnDescriptors& operator=(const SpawnDescriptors&) = delete;
  ~SpawnDescriptors() { ::posix_spawn_file_actions_destroy(&actions_); }
  [[nodiscard]] const posix_spawn_file_actions_t* Get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

}  // namespace

std::optional<std::string> FindProgram(const std::string& command) {
  if (command.find('/') != std::string::npos) {
    return IsProgram(command) ? std::optional(command) : std::nullopt;
  }
  const char* const path = std::getenv("PATH");
  std::istringstream folders(path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin");
  for (std::string folder; !command.empty() && std::getline(folders, folder, ':');) {
    const std::string program = (folder.empty() ? "." : folder) + '/' + command;
    if (IsProgram(program)) {
      return program;
    }
  }
  return std::nullopt;
}

MatchCommands::MatchCommands(Options options, Say say)
    : options_(std::move(options)), say_(std::move(say)), kill_([this] { KillAll(); }) {}

MatchCommands::~MatchCommands() { Finish(steady_clock::now()); }

void MatchCommands::Add(std::string input) {
  waiting_.push_back(std::move(input));
  Poll();
}

void MatchCommands::Poll() {
  Reap();
  KillOverdue();
  while (!waiting_.empty()) {
    {
      const MutexLock lock(mutex_);
      if (running_.size() >= kMaxRunning) {
        return;
      }
    }
    const std::string input = std::move(waiting_.front());
    waiting_.pop_front();
    Start(input);
  }
}

bool MatchCommands::IsIdle() {
  const MutexLock lock(mutex_);
  return running_.empty() && waiting_.empty();
}

void MatchCommands::Start(const std::string& input) {
  const ManagedFD file = FileWith(input);
  if (!file.IsValid()) {
    Fail(fmt::format("could not be started: {}", std::strerror(errno)));
    return;
  }
  std::vector<std::string> arguments = options_.arguments;
  std::vector<char*> argv;
  for (std::string& argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);
  const SpawnAttributes attributes;
  const SpawnDescriptors descriptors(file.Get());
  pid_t pid = -1;
  const MutexLock lock(mutex_);
  const int error = ::posix_spawn(&pid, argv[0], descriptors.Get(), attributes.Get(), argv.data(), environ);
  if (error != 0) {
    Fail(fmt::format("could not be started: {}", std::strerror(error)));
    return;
  }
  ++started_;
  running_.push_back({pid, steady_clock::now() + options_.timeout});
}

void MatchCommands::Fail(const std::string& text) {
  ++failed_;
  say_(fmt::format("{}: {}", options_.arguments.front(), text));
}

void MatchCommands::Reap() {
  const MutexLock lock(mutex_);
  std::erase_if(running_, [this](const Running& each) {
    int status = 0;
    if (::waitpid(each.pid, &status, WNOHANG) == 0) {
      return false;
    }
    if (each.killed) {
      Fail(fmt::format("took longer than {} s and was killed", options_.timeout.count()));
    } else if (WIFSIGNALED(status)) {
      Fail(fmt::format("ended by signal {}", WTERMSIG(status)));
    } else if (WEXITSTATUS(status) != 0) {
      Fail(fmt::format("ended with status {}", WEXITSTATUS(status)));
    }
    return true;
  });
}

void MatchCommands::KillOverdue() {
  const MutexLock lock(mutex_);
  for (Running& each : running_) {
    if (!each.killed && steady_clock::now() >= each.until) {
      each.killed = ::kill(-each.pid, SIGKILL) == 0;
    }
  }
}

void MatchCommands::KillAll() {
  const MutexLock lock(mutex_);
  for (const Running& each : running_) {
    ::kill(-each.pid, SIGKILL);
  }
}

void MatchCommands::Finish(steady_clock::time_point until) {
  for (Poll(); !IsIdle() && steady_clock::now() < until; Poll()) {
    std::this_thread::sleep_for(kPollInterval);
  }
  for (; !waiting_.empty(); waiting_.pop_front()) {
    Fail("was not started, vondctl was told to end");
  }
  {
    const MutexLock lock(mutex_);
    for (const Running& each : running_) {
      ::kill(-each.pid, SIGKILL);
      ::waitpid(each.pid, nullptr, 0);
      Fail("was killed, vondctl was told to end");
    }
    running_.clear();
  }
}

}  // namespace vond::vondctl
