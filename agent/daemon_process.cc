#include "agent/daemon_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

#include "agent/error.h"

namespace vond::agent {
namespace {

using auto_resources::ManagedFD;
using korvo::utils::MutexLock;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kChannelFd = 3;  // the child's end of the pair, in the child
constexpr int kFirstForeignFd = kChannelFd + 1;
constexpr std::size_t kMaxLineBytes = 65536;
constexpr std::size_t kMaxRecentLines = 200;
constexpr milliseconds kPatience = std::chrono::seconds(2);       // for a daemon whose channel has closed
constexpr milliseconds kKillPatience = std::chrono::seconds(10);  // for the system to end a killed process
constexpr milliseconds kLongestWait = std::chrono::hours(24 * 365);

// Throws for a call that returns an error number.
void Check(int error, const std::string& what) {
  if (error != 0) {
    throw Error(ErrorCode::kStartFailed, what + ": " + std::generic_category().message(error), error);
  }
}

// Throws for a call that returned -1.
void CheckCall(bool succeeded, const char* what) {
  if (!succeeded) {
    Check(errno, std::string("starting vond: ") + what);
  }
}

struct Pair {
  ManagedFD ours;
  ManagedFD childs;
};

// Takes over both ends. Moves the child's above every number that the child uses, so that setting up one there never
// overwrites another.
Pair MakePair(const std::array<int, 2>& ends) {
  Pair pair{ManagedFD(ends[0]), ManagedFD(ends[1])};
  if (ends[1] < kFirstForeignFd) {
    pair.childs.Reset(::fcntl(ends[1], F_DUPFD_CLOEXEC, kFirstForeignFd));
    CheckCall(pair.childs.IsValid(), "fcntl");
  }
  return pair;
}

Pair MakePipe() {
  std::array<int, 2> ends{};
  CheckCall(::pipe2(ends.data(), O_CLOEXEC) == 0, "pipe2");
  Pair pair = MakePair(ends);
  CheckCall(::fcntl(pair.ours.Get(), F_SETFL, O_NONBLOCK) == 0, "fcntl");
  return pair;
}

void SetSendBuffer(int socket, std::size_t bytes) {
  const int size = static_cast<int>(std::min<std::size_t>(bytes, INT_MAX / 2));  // the kernel doubles it
  if (::setsockopt(socket, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) != 0) {
    CheckCall(::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, sizeof size) == 0, "setsockopt");
  }
}

std::size_t GetSendBuffer(int socket) {
  int size = 0;
  socklen_t length = sizeof size;
  CheckCall(::getsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, &length) == 0, "getsockopt");
  return static_cast<std::size_t>(size);
}

Pair MakeChannel(std::size_t buffer_bytes) {
  std::array<int, 2> ends{};
  CheckCall(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) == 0, "socketpair");
  Pair pair = MakePair(ends);
  SetSendBuffer(pair.ours.Get(), buffer_bytes);
  SetSendBuffer(pair.childs.Get(), buffer_bytes);
  return pair;
}

// This process's own with what the options add. How the sandbox is to be is never inherited.
std::vector<std::string> Environment(const DaemonOptions& options) {
  std::map<std::string, std::string> added = options.environment;
  added.try_emplace(kSandboxVariable, SandboxVariable(options.sandbox));
  std::vector<std::string> entries;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view text(*entry);
    if (!added.contains(std::string(text.substr(0, text.find('='))))) {
      entries.emplace_back(text);
    }
  }
  for (const auto& [name, value] : added) {
    if (name != kSandboxVariable || !value.empty()) {
      entries.push_back(name + "=" + value);
    }
  }
  return entries;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (std::string& string : strings) {
    pointers.push_back(string.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

class FileActions {
 public:
  FileActions() { Check(::posix_spawn_file_actions_init(&actions_), "starting vond"); }
  ~FileActions() { ::posix_spawn_file_actions_destroy(&actions_); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  posix_spawn_file_actions_t* Get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

// Signals as a fresh process has them, whatever the starting thread blocks and this process ignores.
class SignalAttributes {
 public:
  explicit SignalAttributes(bool own_process_group) {
    Check(::posix_spawnattr_init(&attributes_), "starting vond");
    sigset_t none;
    sigset_t ignored;
    ::sigemptyset(&none);
    ::sigemptyset(&ignored);
    ::sigaddset(&ignored, SIGPIPE);
    ::posix_spawnattr_setsigmask(&attributes_, &none);
    ::posix_spawnattr_setsigdefault(&attributes_, &ignored);
    const int group = own_process_group ? POSIX_SPAWN_SETPGROUP : 0;  // the child's own, by default
    ::posix_spawnattr_setflags(&attributes_,
                               static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | group));
  }
  ~SignalAttributes() { ::posix_spawnattr_destroy(&attributes_); }
  SignalAttributes(const SignalAttributes&) = delete;
  SignalAttributes& operator=(const SignalAttributes&) = delete;
  [[nodiscard]] const posix_spawnattr_t* Get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

// The descriptors are the child's, all above kChannelFd.
pid_t Spawn(const DaemonOptions& options, int stdout_fd, int stderr_fd, int channel_fd) {
  FileActions actions;
  Check(::posix_spawn_file_actions_addopen(actions.Get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0), "starting vond");
  Check(::posix_spawn_file_actions_adddup2(actions.Get(), stdout_fd, STDOUT_FILENO), "starting vond");
  Check(::posix_spawn_file_actions_adddup2(actions.Get(), stderr_fd, STDERR_FILENO), "starting vond");
  Check(::posix_spawn_file_actions_adddup2(actions.Get(), channel_fd, kChannelFd), "starting vond");
  Check(::posix_spawn_file_actions_addclosefrom_np(actions.Get(), kFirstForeignFd), "starting vond");
  const SignalAttributes attributes(options.own_process_group);

  std::vector<std::string> arguments{options.executable};
  arguments.insert(arguments.end(), options.extra_arguments.begin(), options.extra_arguments.end());
  arguments.insert(arguments.end(), {"-c", std::to_string(kChannelFd) + ":requests"});
  std::vector<std::string> environment = Environment(options);
  pid_t pid = -1;
  Check(::posix_spawn(&pid, options.executable.c_str(), actions.Get(), attributes.Get(), Pointers(arguments).data(),
                      Pointers(environment).data()),
        "cannot start " + options.executable);
  return pid;
}

// One of the daemon's outputs on its way into lines.
struct Output {
  OutputStream stream;
  std::string line;  // begun, without its newline yet

  // Calls `take_line` for each line that ends in `chunk`. Beyond kMaxLineBytes a line is cut.
  template <typename TakeLine>
  void Feed(std::string_view chunk, const TakeLine& take_line) {
    while (!chunk.empty()) {
      const std::size_t newline = chunk.find('\n');
      line.append(chunk.substr(0, newline).substr(0, kMaxLineBytes - line.size()));
      if (newline == std::string_view::npos) {
        return;
      }
      take_line(stream, line);
      line.clear();
      chunk.remove_prefix(newline + 1);
    }
  }
};

}  // namespace

DaemonProcess::DaemonProcess(DaemonOptions options) : options_(std::move(options)) {
  Pair channel = MakeChannel(options_.socket_buffer_bytes);
  send_buffer_bytes_ = GetSendBuffer(channel.childs.Get());
  Pair standard_output = MakePipe();
  Pair standard_error = MakePipe();
  channel_ = std::move(channel.ours);
  stdout_ = std::move(standard_output.ours);
  stderr_ = std::move(standard_error.ours);
  stop_drainer_.Reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  CheckCall(stop_drainer_.IsValid(), "eventfd");

  try {
    // First the drainer, so that a failure to start the thread leaves no process behind.
    drainer_ = std::thread(&DaemonProcess::DrainOutputs, this);
    pid_ = Spawn(options_, standard_output.childs.Get(), standard_error.childs.Get(), channel.childs.Get());
  } catch (const std::system_error& e) {
    throw Error(ErrorCode::kStartFailed, std::string("starting vond: ") + e.what(), e.code().value());
  } catch (...) {
    StopDrainer();
    throw;
  }
}

DaemonProcess::~DaemonProcess() {
  ::shutdown(channel_.Get(), SHUT_RDWR);  // reaches the daemon even if some forked copy of us holds the channel open
  channel_.Reset();
  if (!Wait(kPatience)) {
    Kill(SIGKILL);
    [[maybe_unused]] const auto status = Wait(kKillPatience);
  }
  StopDrainer();
}

bool DaemonProcess::Kill(int signum) {
  const MutexLock lock(mutex_);
  return !exit_status_ && ::kill(pid_, signum) == 0;
}

std::optional<ExitStatus> DaemonProcess::Wait(milliseconds timeout) {
  const auto deadline = steady_clock::now() + std::min(timeout, kLongestWait);
  milliseconds pause{1};
  while (true) {
    if (const auto status = TryReap()) {
      return status;
    }
    const auto left = deadline - steady_clock::now();
    if (left <= steady_clock::duration::zero()) {
      return std::nullopt;
    }
    std::this_thread::sleep_for(std::min<steady_clock::duration>(left, pause));
    pause = std::min(2 * pause, milliseconds(20));
  }
}

std::optional<ExitStatus> DaemonProcess::TryReap() {
  const MutexLock lock(mutex_);  // no signal may be sent between the reaping and its note
  if (!exit_status_) {
    int status = 0;
    const pid_t reaped = ::waitpid(pid_, &status, WNOHANG);
    if (reaped == pid_) {
      exit_status_.emplace();
      exit_status_->signaled = WIFSIGNALED(status);
      exit_status_->signal = exit_status_->signaled ? WTERMSIG(status) : 0;
      exit_status_->status = exit_status_->signaled ? 0 : WEXITSTATUS(status);
    } else if (reaped < 0 && errno == ECHILD) {
      exit_status_.emplace().status = -1;  // reaped by somebody else in this process
    }
  }
  return exit_status_;
}

std::vector<std::string> DaemonProcess::RecentOutput(OutputStream stream) {
  const MutexLock lock(output_mutex_);
  const std::deque<std::string>& recent = stream == OutputStream::kStdout ? recent_stdout_ : recent_stderr_;
  return {recent.begin(), recent.end()};
}

bool DaemonProcess::WaitForOutputEnd(milliseconds timeout) {
  const auto deadline = steady_clock::now() + std::min(timeout, kLongestWait);
  const MutexLock lock(output_mutex_);
  while (!output_ended_ && steady_clock::now() < deadline) {
    output_end_.wait_until(output_mutex_, deadline);
  }
  return output_ended_;
}

void DaemonProcess::TakeLine(OutputStream stream, const std::string& line) {
  {
    const MutexLock lock(output_mutex_);
    std::deque<std::string>& recent = stream == OutputStream::kStdout ? recent_stdout_ : recent_stderr_;
    if (recent.size() == kMaxRecentLines) {
      recent.pop_front();
    }
    recent.push_back(line);
  }
  if (options_.on_output) {
    options_.on_output(stream, line);
  }
}

void DaemonProcess::DrainOutputs() {
  std::array<Output, 2> outputs{Output{OutputStream::kStdout, {}}, Output{OutputStream::kStderr, {}}};
  std::array<pollfd, 3> fds{pollfd{stdout_.Get(), POLLIN, 0}, pollfd{stderr_.Get(), POLLIN, 0},
                            pollfd{stop_drainer_.Get(), POLLIN, 0}};
  std::vector<char> buffer(65536);
  const auto take_line = [this](OutputStream stream, const std::string& line) { TakeLine(stream, line); };
  // Reads once from output `i`. False when nothing is there; at the end its descriptor becomes -1.
  const auto read_some = [&](std::size_t i) {
    const ssize_t count = ::read(fds[i].fd, buffer.data(), buffer.size());
    if (count > 0) {
      outputs[i].Feed({buffer.data(), static_cast<std::size_t>(count)}, take_line);
    } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
      fds[i].fd = -1;
    }
    return count > 0;
  };

  bool stopping = false;
  while (!stopping && (fds[0].fd >= 0 || fds[1].fd >= 0)) {
    if (::poll(fds.data(), fds.size(), -1) < 0) {
      continue;  // EINTR
    }
    stopping = fds[2].revents != 0;
    for (std::size_t i = 0; i < outputs.size(); ++i) {
      if (fds[i].fd >= 0 && (stopping || fds[i].revents != 0)) {
        // The last time take what the dead daemon left, which a read or two hold, since a pipe holds no more than the
        // buffer. A child of its own that still writes is not followed.
        constexpr int kLastReads = 4;
        for (int reads = 0; read_some(i) && stopping && reads < kLastReads; ++reads) {
        }
      }
    }
  }
  for (const Output& output : outputs) {
    if (!output.line.empty()) {
      TakeLine(output.stream, output.line);
    }
  }
  const MutexLock lock(output_mutex_);
  output_ended_ = true;
  output_end_.notify_all();
}

void DaemonProcess::StopDrainer() {
  ::eventfd_write(stop_drainer_.Get(), 1);
  drainer_.join();
}

}  // namespace vond::agent
