#include "vondctl/metrics_file.h"

#include <stdexcept>
#include <utility>

#include "vondctl/announcer.h"
#include "vondctl/file_replacement.h"
#include "vondctl/prometheus_text.h"

namespace vond::vondctl {

using korvo::utils::MutexLock;

MetricsFile::MetricsFile(std::string path) : path_(std::move(path)), writer_(&MetricsFile::Write, this) {}

MetricsFile::~MetricsFile() {
  {
    const MutexLock lock(mutex_);
    stop_ = true;
    condition_.notify_one();
  }
  writer_.join();
}

void MetricsFile::Put(vond_relay::Status status) {
  const MutexLock lock(mutex_);
  status_ = std::move(status);
  condition_.notify_one();
}

void MetricsFile::Write() {
  bool failed = false;
  while (true) {
    std::optional<vond_relay::Status> status;
    {
      const MutexLock lock(mutex_);
      while (!status_ && !stop_) {
        condition_.wait(mutex_);
      }
      status = std::exchange(status_, std::nullopt);
    }
    if (!status) {
      return;  // all is written
    }
    try {
      ReplaceFile(path_, PrometheusText(*status));
      failed = false;
    } catch (const std::runtime_error& e) {
      if (!std::exchange(failed, true)) {
        Complain(e.what());
      }
    }
  }
}

}  // namespace vond::vondctl
