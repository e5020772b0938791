#include "vondctl/progress.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <utility>

#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kInterval{200};
// What a file costs beside its bytes, for guessing the time left: about what a scanner reads in the time it takes to
// open and to hand over one.
constexpr double kBytesPerFile = 20'000;
constexpr double kLeastFractionForGuess = 0.01;
constexpr std::size_t kLeastPathColumns = 12;

std::string Bytes(double bytes) {
  return bytes < 1e9 ? fmt::format("{:.1f} MB", bytes / 1e6) : fmt::format("{:.2f} GB", bytes / 1e9);
}

std::string Duration(double seconds) {
  const auto whole = static_cast<std::uint64_t>(std::ceil(seconds));
  return whole < 3600 ? fmt::format("{}:{:02}", whole / 60, whole % 60)
                      : fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

bool IsStartOfCharacter(char c) { return (static_cast<unsigned char>(c) & 0xc0U) != 0x80U; }

// The end of `text`, at most `columns` characters, marked where it was cut.
std::string Tail(const std::string& text, std::size_t columns) {
  const auto length = static_cast<std::size_t>(std::count_if(text.begin(), text.end(), IsStartOfCharacter));
  if (length <= columns) {
    return text;
  }
  std::size_t drop = length - columns + 3;
  std::size_t at = 0;
  while (at < text.size() && (drop > 0 || !IsStartOfCharacter(text[at]))) {
    drop -= IsStartOfCharacter(text[at]) ? 1 : 0;
    ++at;
  }
  return "..." + text.substr(at);
}

std::size_t TerminalColumns() {
  winsize size{};
  constexpr std::size_t kUsual = 80;
  return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsual;
}

}  // namespace

TotalCounter::TotalCounter(FileWalker walker)
    : walker_(std::move(walker)), thread_([this](const std::stop_token& stop) { Count(stop); }) {}

std::optional<TotalCounter::Total> TotalCounter::Get() const {
  return known_.load(std::memory_order_acquire) ? std::optional(total_) : std::nullopt;
}

void TotalCounter::Count(const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    const std::optional<WalkedFile> file = walker_.Next();
    if (!file) {
      known_.store(true, std::memory_order_release);
      return;
    }
    if (file->state == WalkedFile::State::kWait) {
      std::this_thread::sleep_for(kInterval);
      continue;
    }
    ++total_.files;
    if (file->state == WalkedFile::State::kOpen) {
      total_.bytes += static_cast<std::uint64_t>(file->status.st_size);
    }
  }
}

std::string ProgressText(const ProgressState& state, std::chrono::duration<double> elapsed, std::size_t columns) {
  const double seconds = std::max(elapsed.count(), 1e-3);
  const auto bytes = static_cast<double>(state.bytes);
  std::string text = fmt::format("{}", state.files);
  if (state.total) {
    text += fmt::format(" of {}", std::max(state.total->files, state.files));
  }
  text += fmt::format(" files, {}, {}/s, {} found, {} errors", Bytes(bytes), Bytes(bytes / seconds), state.found,
                      state.errors);
  if (state.total) {
    const double whole =
        static_cast<double>(state.total->bytes) + kBytesPerFile * static_cast<double>(state.total->files);
    const double done = (bytes + kBytesPerFile * static_cast<double>(state.files)) / std::max(whole, 1.0);
    if (done >= kLeastFractionForGuess) {
      text += fmt::format(", {} left", Duration(std::max(0.0, seconds / done - seconds)));
    }
  }
  if (!state.in_hand.empty() && text.size() + kLeastPathColumns + 2 <= columns) {
    text += ", " + Tail(EscapeForTerminal(state.in_hand), columns - text.size() - 2);
  }
  return text;
}

ProgressLine::ProgressLine(bool enabled)
    : enabled_(enabled && ::isatty(STDERR_FILENO) == 1), start_(steady_clock::now()), last_(start_) {}

bool ProgressLine::IsDue() const { return enabled_ && steady_clock::now() - last_ >= kInterval; }

void ProgressLine::Show(const ProgressState& state) {
  last_ = steady_clock::now();
  // Without line wrapping, which wide characters could set off, the line can be taken away as one.
  std::cerr << "\r\033[K\033[?7l" + ProgressText(state, last_ - start_, TerminalColumns() - 1) + "\033[?7h"
            << std::flush;
  shown_ = true;
}

void ProgressLine::Clear() {
  if (shown_) {
    std::cerr << "\r\033[K" << std::flush;
    shown_ = false;
  }
}

}  // namespace vond::vondctl
