#include "utils/log.h"

#include <atomic>
#include <iostream>

namespace korvo::utils {
namespace {

std::atomic<std::int32_t> log_level{6};

}  // namespace

std::int32_t GetLogLevel() noexcept { return log_level.load(std::memory_order_relaxed); }

void SetLogLevel(std::int32_t level) noexcept { log_level.store(level, std::memory_order_relaxed); }

void WriteLogLine(const std::string& line) {
  std::streambuf* const out = std::cout.rdbuf();
  out->sputn(line.data(), static_cast<std::streamsize>(line.size()));
  out->pubsync();
}

}  // namespace korvo::utils
