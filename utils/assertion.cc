#include "utils/assertion.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>

namespace korvo::utils {
namespace {

std::atomic<bool> assertion_lines{true};

}  // namespace

FixedLine& FixedLine::Append(std::string_view text) noexcept {
  const std::size_t fits = std::min(text.size(), buffer_.size() - size_);
  std::copy_n(text.data(), fits, buffer_.data() + size_);
  size_ += fits;
  return *this;
}

FixedLine& FixedLine::Append(long number) noexcept {
  std::array<char, 24> digits{};
  const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), number);
  return Append({digits.data(), static_cast<std::size_t>(result.ptr - digits.data())});
}

void FixedLine::WriteTo(int fd) const noexcept {
  const int saved_errno = errno;
  std::size_t written = 0;
  while (written < size_) {
    const ssize_t n = ::write(fd, buffer_.data() + written, size_ - written);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      break;
    }
    written += static_cast<std::size_t>(n);
  }
  errno = saved_errno;
}

FixedLine AssertionPrefix(int line, std::string_view path, std::string_view condition) noexcept {
  FixedLine text;
  text.Append("Line ").Append(static_cast<long>(line)).Append(" @ ").Append(path);
  text.Append(" *** Assertion '((").Append(condition).Append("))' failed *** ");
  return text;
}

void WriteAssertion(int line, std::string_view path, std::string_view condition, std::string_view message) noexcept {
  if (!assertion_lines.load(std::memory_order_relaxed)) {
    return;
  }
  AssertionPrefix(line, path, condition).Append(message).Append("\n").WriteTo(STDERR_FILENO);
}

void EnableAssertionLines(bool enable) noexcept { assertion_lines.store(enable, std::memory_order_relaxed); }

}  // namespace korvo::utils
