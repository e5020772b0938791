#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <latch>
#include <thread>

#include "tests/support/test_support.h"
#include "utils/assertion.h"
#include "utils/linux_utils.h"
#include "utils/log.h"
#include "utils/managed_fd.h"
#include "utils/utf8.h"

namespace {

using auto_resources::ManagedFD;
using korvo::static_pattern_matching_daemon::utils::LinuxUtils;
using vond::test::CaptureOutput;
using vond::test::MakeFile;

TEST(ManagedFD, OwnsExactlyOneDescriptor) {
  const auto is_open = [](int fd) { return ::fcntl(fd, F_GETFD) != -1; };
  ManagedFD first = MakeFile("");
  ManagedFD second = MakeFile("");
  const int kept = first.Get();
  const int replaced = second.Get();
  second = std::move(first);  // over a live one
  EXPECT_FALSE(is_open(replaced));
  EXPECT_EQ(first.Get(), -1);  // NOLINT(bugprone-use-after-move): this is what is tested
  ManagedFD& same = second;
  second = std::move(same);
  EXPECT_TRUE(is_open(kept));
  {
    ManagedFD third(std::move(second));
    EXPECT_EQ(third.Release(), kept);
  }
  EXPECT_TRUE(is_open(kept));
  { const ManagedFD last(kept); }
  EXPECT_FALSE(is_open(kept));
  errno = 77;
  { const ManagedFD closed_already(kept); }
  EXPECT_EQ(errno, 77);

  const ManagedFD input(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
  { EXPECT_TRUE(ManagedFD(0).IsValid()); }
  EXPECT_FALSE(is_open(0));
  EXPECT_EQ(::dup2(input.Get(), 0), 0);
}

TEST(Log, LevelDecidesWhichLinesAreWrittenAndEvaluated) {
  const std::vector<std::string> lines = {"ERROR text -7 18446744073709551615\n", "INFO 5\n", "DEBUG d\n", "TRACE \n"};
  const std::vector<std::pair<std::int32_t, int>> rows = {{INT_MIN, 0}, {0, 0}, {2, 0}, {3, 1}, {5, 1},
                                                          {6, 2},       {7, 3}, {8, 4}, {9, 4}, {INT_MAX, 4}};
  EXPECT_EQ(korvo::utils::GetLogLevel(), 6);
  for (const auto& [level, count] : rows) {
    korvo::utils::SetLogLevel(level);
    int evaluated = 0;
    const auto evaluate = [&evaluated](auto value) { return ++evaluated, value; };
    const std::string output = CaptureOutput(STDOUT_FILENO, [&] {
      LOG_ERROR(evaluate(std::string("text ")), -7, ' ', ULLONG_MAX);
      LOG_INFO(evaluate(5));
      LOG_DEBUG(evaluate("d"));
      LOG_TRACE(evaluate(std::string_view()));
    });
    std::string expected;
    for (int i = 0; i < count; ++i) {
      expected += lines[static_cast<std::size_t>(i)];
    }
    EXPECT_EQ(output, expected) << level;
    EXPECT_EQ(evaluated, count) << level;
  }
  korvo::utils::SetLogLevel(6);
}

TEST(Log, LinesOfSeveralThreadsStayWhole) {
  constexpr int kLines = 3000;
  std::multiset<std::string> expected;
  const std::string output = CaptureOutput(STDOUT_FILENO, [&expected] {
    std::latch start(8);
    std::vector<std::thread> threads;
    for (const char letter : {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'}) {
      for (int i = 0; i < kLines; ++i) {
        expected.insert("INFO " + std::to_string(i) + std::string(150, letter) + "end");
      }
      threads.emplace_back([&start, text = std::string(150, letter)] {
        start.arrive_and_wait();
        for (int i = 0; i < kLines; ++i) {
          LOG_INFO(i, text, "end");
        }
      });
    }
    std::for_each(threads.begin(), threads.end(), [](std::thread& thread) { thread.join(); });
  });
  const std::vector<std::string> lines = vond::test::Lines(output);
  EXPECT_TRUE(std::multiset<std::string>(lines.begin(), lines.end()) == expected);
}

TEST(Log, SpeaksAgainAfterAFullPipeWasDrained) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
  const ManagedFD read_end(ends[0]);
  const ManagedFD write_end(ends[1]);
  const ManagedFD output(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
  const auto drain = [&read_end] {
    std::string text(1 << 20, '\0');
    text.resize(static_cast<std::size_t>(::read(read_end.Get(), text.data(), text.size())));
    return text;
  };
  std::fflush(stdout);
  while (::write(write_end.Get(), ".", 1) == 1) {
  }
  ::dup2(write_end.Get(), STDOUT_FILENO);
  LOG_INFO("lost");
  LOG_INFO("lost too");
  const std::string while_full = drain();
  LOG_INFO("back");
  LOG_INFO("again");
  ::dup2(output.Get(), STDOUT_FILENO);
  EXPECT_EQ(while_full.find_first_not_of('.'), std::string::npos);
  EXPECT_EQ(drain(), "INFO back\nINFO again\n");
}

TEST(Assertion, WritesOneLineWhateverTheLogLevel) {
  korvo::utils::SetLogLevel(0);
  const std::string output = CaptureOutput(STDERR_FILENO, [] {
    korvo::utils::WriteAssertion(387, "yara/yara_lib/yara_lib", "rule_set", "rule_set is null");
    korvo::utils::EnableAssertionLines(false);
    korvo::utils::WriteAssertion(387, "yara/yara_lib/yara_lib", "rule_set", "not wanted");
    korvo::utils::EnableAssertionLines(true);
  });
  korvo::utils::SetLogLevel(6);
  EXPECT_EQ(output, "Line 387 @ yara/yara_lib/yara_lib *** Assertion '((rule_set))' failed *** rule_set is null\n");

  korvo::utils::FixedLine line;
  line.Append(LONG_MIN).Append(LONG_MAX).Append(0L);
  EXPECT_EQ(line.View(), "-922337203685477580892233720368547758070");
  line.Append(std::string(983, 'a')).Append("more").Append(77L);
  EXPECT_EQ(line.View(), "-922337203685477580892233720368547758070" + std::string(983, 'a') + "m");
  errno = 77;
  line.WriteTo(-1);
  EXPECT_EQ(errno, 77);
}

TEST(Utf8, ReplacesEachMaximalInvalidSequence) {
  const std::vector<std::array<std::string, 2>> rows = {
      // "?" stands for U+FFFD
      {std::string("zero\0byte\x7f", 10), std::string("zero\0byte\x7f", 10)},
      {"\xC2\x80\xDF\xBF", "\xC2\x80\xDF\xBF"},
      {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBE", "\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBE"},
      {"\xF0\x90\x80\x80\xF3\x80\x80\x80\xF4\x8F\xBF\xBF", "\xF0\x90\x80\x80\xF3\x80\x80\x80\xF4\x8F\xBF\xBF"},
      {"\x80z\xBF", "?z?"},                                                   // stray
      {"\xC0\x80 \xC1\xBF \xE0\x9F\xBF \xF0\x8F\xBF\xBF", "?? ?? ??? ????"},  // overlong
      {"\xED\xA0\x80 \xED\xBF\xBF", "??? ???"},                               // surrogates
      {"\xF4\x90\x80\x80 \xF5\x80\x80\x80 \xFE \xFF", "???? ???? ? ?"},       // above U+10FFFF
      {"\xC2 \xE2\x82 \xF0\x9F\x98 \xF4\x8F\xBF", "? ? ? ?"},                 // cut
      {"\xE2\xC3\xA4\xF0\x9F\xE2\x82\xAC\xC2", "?\xC3\xA4?\xE2\x82\xAC?"},
      {"a\xF1\x80\x80\xE1\x80\xC2z\x80z\x80\xBFz", "a???z?z??z"}};
  for (const auto& [text, expected] : rows) {
    std::string result = korvo::utils::ReplaceInvalidUtf8(text);
    for (std::size_t at = 0; (at = result.find("\xEF\xBF\xBD")) != std::string::npos;) {
      result.replace(at, 3, "?");
    }
    EXPECT_EQ(result, expected);
  }
}

TEST(LinuxUtils, ReadsWholeFilesFromAnyPosition) {
  for (const std::string& content : {std::string(), std::string("ENCY"), std::string(1 << 20, '\0') + "end"}) {
    const ManagedFD file = MakeFile(content);
    const auto size = static_cast<off_t>(content.size());
    for (const off_t position : {off_t{0}, size / 2, size, size + 100}) {
      ::lseek(file.Get(), position, SEEK_SET);
      EXPECT_EQ(LinuxUtils::GetFileSize(file.Get()), size);
      EXPECT_EQ(::lseek(file.Get(), 0, SEEK_CUR), position);
      EXPECT_EQ(LinuxUtils::ReadFile(file.Get()), content);
      EXPECT_EQ(::lseek(file.Get(), 0, SEEK_CUR), size);
    }
  }
}

}  // namespace
