#pragma once

#include <condition_variable>
#include <optional>
#include <string>
#include <thread>

#include "agent/proto/Relay.pb.h"
#include "utils/mutex.h"

namespace vond::vondctl {

/// Keeps a file of a relay's metrics (prometheus_text.h) up to date, each time replaced as a whole, on a thread of its
/// own, so that a slow disk keeps nobody waiting. A failure is said once, on standard error, until one succeeds again.
/// The destructor writes the last one that was put.
class MetricsFile {
 public:
  explicit MetricsFile(std::string path);
  ~MetricsFile();
  MetricsFile(const MetricsFile&) = delete;
  MetricsFile& operator=(const MetricsFile&) = delete;

  void Put(vond_relay::Status status) EXCLUDES(mutex_);

 private:
  void Write() EXCLUDES(mutex_);

  const std::string path_;
  korvo::utils::Mutex mutex_;
  std::condition_variable_any condition_;
  std::optional<vond_relay::Status> status_ GUARDED_BY(mutex_);
  bool stop_ GUARDED_BY(mutex_) = false;
  std::thread writer_;
};

}  // namespace vond::vondctl
