#pragma once

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "korvo_common/proto/KorvoDaemon.pb.h"
#include "static_pattern_matching/yara_scanner.h"
#include "utils/ipc_channel.h"
#include "utils/mutex.h"
#include "utils/thread_pool.h"

namespace korvo::static_pattern_matching_daemon {

/// Serves one channel: a reader thread receives requests, pool workers answer them, in the order in which they finish.
///
/// The channel must outlive the object. Whenever the reader stops reading (the peer closed, a packet did not parse, the
/// read side was shut) it ends the whole process with _exit(0); so does, through the reader, the destructor. Nothing a
/// request holds escapes a worker: failures are logged and answered, and the request's descriptors closed after the
/// answer. The one exception, on purpose: a request that comes while 200 wait is dropped without an answer and without
/// closing its descriptors.
class StaticPatternMatchingDaemon {
 public:
  class Exception : public std::runtime_error {
   public:
    using std::runtime_error::runtime_error;
  };

  /// Starts the threads; throws std::system_error when the reader can't be started.
  explicit StaticPatternMatchingDaemon(IpcChannel& channel);
  StaticPatternMatchingDaemon(const StaticPatternMatchingDaemon&) = delete;
  StaticPatternMatchingDaemon& operator=(const StaticPatternMatchingDaemon&) = delete;
  ~StaticPatternMatchingDaemon();

 private:
  [[noreturn]] void ReadThread();
  // A worker's task: answers `request` and closes `fds`.
  void HandleRequest(const korvo_daemon::Request& request, const std::vector<int>& fds);
  [[nodiscard]] korvo_daemon::Response ProcessRequest(const korvo_daemon::Request& request,
                                                      const std::vector<int>& fds);
  // The two handlers report their failures in the response.
  void ProcessConfig(const korvo_daemon::Config& config, const std::vector<int>& fds, korvo_daemon::Response& response);
  void ProcessFileScan(const korvo_daemon::Request& request, const std::vector<int>& fds,
                       korvo_daemon::Response& response);
  void ApplyPolicy(const korvo_daemon::Config& config, const std::vector<int>& fds);

  // Destroyed from the last to the first: the scanner while the pool still stands, the thread last.
  IpcChannel& channel_;
  std::thread reader_;
  korvo::utils::ThreadPool thread_pool_;
  korvo::utils::Mutex response_mutex_;  // one sender on the channel at a time
  std::atomic<bool> stop_{false};
  YaraScanner scanner_;
};

}  // namespace korvo::static_pattern_matching_daemon
