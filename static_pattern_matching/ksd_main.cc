#include "static_pattern_matching/ksd_main.h"

#include <Poco/Crypto/Crypto.h>
#include <execinfo.h>
#include <getopt.h>
#include <malloc.h>
#include <openssl/err.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <unordered_map>

#include "korvo_common/signal_dispatcher.h"
#include "static_pattern_matching/daemon_sandbox.h"
#include "static_pattern_matching/static_pattern_matching_daemon.h"
#include "utils/checked_access.h"
#include "utils/ipc_channel.h"
#include "utils/log.h"

namespace korvo::static_pattern_matching_daemon {
namespace {

using korvo_common::SignalDispatcher;

using ChannelTable = std::unordered_map<std::string, IpcChannel>;

constexpr const char* kRequestsChannel = "requests";
constexpr int kMaxBacktraceFrames = 30;

// Runs in signal context.
void DumpBacktrace(int /*signum*/) {
  static constexpr std::string_view kTitle = "Dumping backtrace\n";
  std::array<void*, kMaxBacktraceFrames> frames{};
  const int count = ::backtrace(frames.data(), kMaxBacktraceFrames);
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, kTitle.data(), kTitle.size());
  ::backtrace_symbols_fd(frames.data(), count, STDERR_FILENO);
}

void InstallFatalHandler() {
  // The first backtrace() of a process loads a library and allocates, which a crash inside malloc would not survive.
  std::array<void*, 1> frame{};
  ::backtrace(frame.data(), static_cast<int>(frame.size()));
  SignalDispatcher::Instance().RegisterFatalHandler({SIGABRT, SIGSEGV, SIGILL, SIGBUS, SIGSYS}, &DumpBacktrace);
}

// What a policy needed for the moment must go back to the system. By itself the allocator moves both thresholds up with
// the largest block that was ever freed, and then keeps that much at the top of each thread's heap, which malloc_trim
// does not reach. Fixed, they leave the blocks of a scan (some 600 KB in all) in the heap and return those of a policy.
void LimitRetainedMemory() {
  ::mallopt(M_MMAP_THRESHOLD, 4 << 20);
  ::mallopt(M_TRIM_THRESHOLD, 1 << 20);
}

bool InitializeCrypto() {
  try {
    Poco::Crypto::initializeCrypto();
    return true;
  } catch (const std::exception& e) {
    const unsigned long code = ::ERR_get_error();
    std::array<char, 1024> text{};
    ::ERR_error_string_n(code, text.data(), text.size());
    LOG_ERROR("Failed to initialize OpenSSL with error ", code, " (", text.data(), "), exception: ", e.what());
    return false;
  }
}

bool AddChannel(const char* argument, ChannelTable& channels) {
  int fd = -1;
  std::array<char, 101> id{};
  if (std::sscanf(argument, "%d:%100s", &fd, id.data()) != 2) {
    LOG_ERROR("Invalid <fd>:<id> pair - ", argument);
    LOG_ERROR("Couldn't parse ipc arg - ", argument);
    return false;
  }
  channels.insert_or_assign(id.data(), IpcChannel(fd));
  return true;
}

bool ParseArguments(int argc, char** argv, ChannelTable& channels, std::string& name) {
  for (int option = ::getopt(argc, argv, "n:c:"); option != -1; option = ::getopt(argc, argv, "n:c:")) {
    switch (option) {
      case 'c':
        if (!AddChannel(optarg, channels)) {
          return false;
        }
        break;
      case 'n':
        name = optarg;
        break;
      default:
        LOG_ERROR("Invalid argument(s)");
        return false;
    }
  }
  return true;
}

IpcChannel& RequestsChannel(ChannelTable& channels) {
  try {
    return korvo::utils::MapAt(channels, kRequestsChannel);
  } catch (const std::exception&) {
    LOG_ERROR("Communications channel is missing: ", kRequestsChannel);
    throw;
  }
}

}  // namespace

int ksd_main(int argc, char** argv) {
  LOG_INFO("vond is starting");
  LimitRetainedMemory();
  InstallFatalHandler();
  // Before any thread starts, so that all inherit it: writing to a closed socket then fails instead of killing.
  SignalDispatcher::Block(SIGPIPE);
  // Waits until its handler is registered, which unblocks it on this thread: before that it would kill a daemon that
  // already answers.
  SignalDispatcher::Block(SIGTERM);
  if (!InitializeCrypto()) {
    return 2;
  }
  const std::shared_ptr<void> crypto_guard(nullptr, [](void*) { Poco::Crypto::uninitializeCrypto(); });

  std::string name;  // taken and ignored: agents name all their daemons
  ChannelTable channels;
  if (!ParseArguments(argc, argv, channels, name)) {
    LOG_ERROR("Failed to parse arguments");
    return 1;
  }
  if (!EnterSandbox()) {
    return 3;
  }
  StaticPatternMatchingDaemon daemon(RequestsChannel(channels));

  std::atomic<bool> stop{false};
  SignalDispatcher::Instance().Register(
      SIGTERM, [&stop](int) { stop = true; }, true);
  while (!stop) {
    SignalDispatcher::Instance().Dispatch();
  }

  LOG_INFO("Stopping");
  for (auto& [id, channel] : channels) {
    channel.Shutdown();
  }
  LOG_INFO("Stopped");
  return 0;
}

}  // namespace korvo::static_pattern_matching_daemon
