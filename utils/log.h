#pragma once

#include <cstdint>
#include <sstream>
#include <string>

namespace korvo::utils {

/// Thresholds of the log: a message is written when the process-wide level is strictly greater.
enum LogThreshold : std::int32_t {
  kErrorThreshold = 2,
  kInfoThreshold = 5,
  kDebugThreshold = 6,
  kTraceThreshold = 7,
};

/// The process-wide log level, 6 at start: 3 and more lets ERROR through, 6 INFO, 7 DEBUG, 8 TRACE.
/// Any thread; reads and writes are relaxed atomics, so a line may still go out under the level of a moment ago.
[[nodiscard]] std::int32_t GetLogLevel() noexcept;
void SetLogLevel(std::int32_t level) noexcept;

/// Writes `line` (with its newline) to std::cout's buffer in one piece and flushes it. Any thread: the buffer is the
/// synchronised standard one. Goes past the stream object because that turns deaf for good after one failed write (a
/// full non-blocking pipe); a line that can't be written is lost, wholly or behind a part of it, and the next one is
/// tried again. Blocks when standard output is a full pipe.
void WriteLogLine(const std::string& line);

/// Streams `pieces` into one line and writes it.
template <typename... Pieces>
void ComposeLogLine(const char* prefix, const Pieces&... pieces) {
  std::ostringstream line;
  line << prefix;
  (line << ... << pieces);
  std::string text = std::move(line).str();
  text += '\n';  // in place even where the stream has found no memory for all of the line
  WriteLogLine(text);
}

}  // namespace korvo::utils

// One line per call: LOG_INFO("New log level: ", level). The arguments are evaluated only when the line is written.
#define VOND_LOG(threshold, prefix, ...)                   \
  do {                                                     \
    if (::korvo::utils::GetLogLevel() > (threshold)) {     \
      ::korvo::utils::ComposeLogLine(prefix, __VA_ARGS__); \
    }                                                      \
  } while (false)
#define LOG_ERROR(...) VOND_LOG(::korvo::utils::kErrorThreshold, "ERROR ", __VA_ARGS__)
#define LOG_INFO(...) VOND_LOG(::korvo::utils::kInfoThreshold, "INFO ", __VA_ARGS__)
#define LOG_DEBUG(...) VOND_LOG(::korvo::utils::kDebugThreshold, "DEBUG ", __VA_ARGS__)
#define LOG_TRACE(...) VOND_LOG(::korvo::utils::kTraceThreshold, "TRACE ", __VA_ARGS__)
