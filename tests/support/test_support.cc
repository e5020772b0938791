#include "tests/support/test_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <yara.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace vond::test {
namespace {

using auto_resources::ManagedFD;
using std::chrono::steady_clock;

// A table's line without what is meant for the other engine.
std::string ForThisEngine(std::string line) {
  const std::string this_engine = YR_VERSION_HEX < 0x040500 ? "[4.2:" : "[4.5:";
  for (std::size_t at = 0; (at = line.find("[4.", at)) != std::string::npos;) {
    const std::size_t end = line.find(']', at);
    const std::size_t text = at + this_engine.size();
    const std::string kept =
        line.compare(at, this_engine.size(), this_engine) == 0 ? line.substr(text, end - text) : "";
    line.replace(at, end + 1 - at, kept);
    at += kept.size();
  }
  return line;
}

std::string Content(const ManagedFD& file) {
  std::string text(static_cast<std::size_t>(::lseek(file.Get(), 0, SEEK_END)), '\0');
  if (::pread(file.Get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
    throw std::runtime_error("reading the captured output failed");
  }
  return text;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (std::string& string : strings) {
    pointers.push_back(string.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

std::set<int> OpenDescriptors(pid_t pid) {
  const std::string path = "/proc/" + (pid == 0 ? std::string("self") : std::to_string(pid)) + "/fd";
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(path.c_str()), &::closedir);
  std::set<int> fds;
  if (directory == nullptr) {
    return fds;
  }
  while (const dirent* entry = ::readdir(directory.get())) {
    if (entry->d_name[0] != '.') {
      fds.insert(std::atoi(entry->d_name));
    }
  }
  if (pid == 0) {
    fds.erase(::dirfd(directory.get()));
  }
  return fds;
}

agent::SandboxOptions TestSandbox() {
  agent::SandboxOptions options;
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct capabilities[_LINUX_CAPABILITY_U32S_3]{};
  const bool known = ::syscall(SYS_capget, &header, capabilities) == 0;
  if (!known || (capabilities[0].effective & (1U << CAP_SYS_PTRACE)) == 0) {
    options.uid = 0;
    options.gid = 0;
  }
  return options;
}

ManagedFD MakeFile(std::string_view content) {
  ManagedFD fd(::memfd_create("test", MFD_CLOEXEC));
  if (!fd.IsValid() || ::write(fd.Get(), content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
    throw std::runtime_error("memfd failed");
  }
  ::lseek(fd.Get(), 0, SEEK_SET);
  return fd;
}

std::string CaptureOutput(int fd, const std::function<void()>& action) {
  std::cout.flush();
  std::fflush(nullptr);
  const ManagedFD saved(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
  const ManagedFD file = MakeFile("");
  ::dup2(file.Get(), fd);
  std::exception_ptr exception;
  try {
    action();
  } catch (...) {
    exception = std::current_exception();
  }
  std::cout.flush();
  std::fflush(nullptr);
  ::dup2(saved.Get(), fd);
  if (exception) {
    std::rethrow_exception(exception);
  }
  return Content(file);
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

std::vector<std::string> Split(const std::string& line, char separator) {
  std::istringstream stream(line + separator);
  std::vector<std::string> cells;
  for (std::string cell; std::getline(stream, cell, separator);) {
    cells.push_back(cell.erase(0, cell.find_first_not_of(' ')).erase(cell.find_last_not_of(' ') + 1));
  }
  return cells;
}

std::vector<std::vector<std::string>> ReadTable(const std::string& name) {
  std::ifstream file(VOND_SOURCE_DIR "/tests/data/" + name);
  std::vector<std::vector<std::string>> rows;
  for (std::string line; std::getline(file, line);) {
    line = ForThisEngine(std::move(line));
    if (!line.starts_with('#')) {
      rows.push_back(Split(line, '|'));
    }
  }
  EXPECT_FALSE(rows.empty()) << name;
  return rows;
}

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = steady_clock::now() + timeout;
  while (!condition()) {
    if (steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

ChildResult RunChild(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
                     std::chrono::milliseconds timeout, const std::vector<int>& keep) {
  const ManagedFD out = MakeFile("");
  const ManagedFD err = MakeFile("");
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_adddup2(&actions, out.Get(), 1);
  ::posix_spawn_file_actions_adddup2(&actions, err.Get(), 2);
  for (const int fd : keep) {
    ::posix_spawn_file_actions_adddup2(&actions, fd, fd);  // clears close-on-exec
  }
  std::vector<std::string> argv = arguments;
  std::vector<std::string> env = environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    env.emplace_back(*entry);
  }
  pid_t pid = -1;
  const int spawned =
      ::posix_spawn(&pid, argv[0].c_str(), &actions, nullptr, Pointers(argv).data(), Pointers(env).data());
  ::posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    throw std::runtime_error("could not start " + argv[0]);
  }

  ChildResult result;
  int status = 0;
  if (!WaitUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, timeout)) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
  }
  result.out = Content(out);
  result.err = Content(err);
  result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  result.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace vond::test
