// Scans: what they look at, when they are repeated, how they fail, and that nothing is left behind.
#include <fcntl.h>
#include <malloc.h>

#include <algorithm>
#include <csignal>
#include <thread>

#include "korvo_common/signal_dispatcher.h"
#include "tests/unit/engine_test.h"
#include "yara/yara_lib/scan_callback.h"

namespace korvo::yara::yara_lib {
namespace {

using auto_resources::ManagedFD;
using vond::test::MakeFile;
using vond::test::ReadTable;
using vond::test::Split;

const std::string kNotSupported =
    Line("177", "0 < message && message <= 5 && message != 2", "not supported callback message");

std::string ScanFd(const std::shared_ptr<YaraRuleSet>& rule_set, int fd, const YaraScanOptions& options = {}) {
  return Summary(YaraLib::Instance().ScanFileDescriptor(rule_set, fd, options));
}

TEST(YaraScan, SeesTheWholeFileAndKeepsItsOffset) {
  const auto set = LoadRules(R"(
    private rule Secret { strings: $a = "one" condition: $a at 0 }
    rule Last { strings: $a = "end" condition: $a at filesize - 3 }
    rule Both { condition: Secret and Last })");
  for (const auto& [content, all, reported] :
       {std::tuple("", "", ""), std::tuple("one", "Secret", ""), std::tuple("two end", "Last", "Last"),
        std::tuple("one two end", "Secret Last Both", "Last Both")}) {
    const ManagedFD file = MakeFile(content);
    ::lseek(file.Get(), 3, SEEK_SET);
    EXPECT_EQ(ScanFd(set, file.Get(), {1, 0, 0}), all);
    EXPECT_EQ(ScanFd(set, file.Get(), {0, 0, 0}), reported);
    EXPECT_EQ(ScanText(set, content, {1, 0, 0}), all);
    EXPECT_EQ(ScanText(set, content, {0, 0, 0}), reported);
    EXPECT_EQ(::lseek(file.Get(), 0, SEEK_CUR), 3);
  }
  const ManagedFD file = MakeFile("one end");
  const auto outcome = YaraLib::Instance().ScanFileDescriptor(set, file.Get(), {1, 0, 0});
  EXPECT_TRUE(outcome.matches.at(0)->is_private_rule);
  EXPECT_EQ(outcome.match_by_name, (decltype(outcome.match_by_name){{"Secret", 0}, {"Last", 1}, {"Both", 2}}));
}

TEST(YaraScan, RepeatsAScanThatMatched) {
  const auto set = LoadRules(R"(import "math"
    rule One { strings: $a = "one" condition: $a }
    rule Two { strings: $a = "two" condition: $a })");
  for (const auto& row : ReadTable("retries.txt")) {
    const std::vector<std::string> contents = Split(row.at(1), ';');
    const ManagedFD file = MakeFile(contents[0]);
    std::size_t runs = 0;
    int reports = 0;
    const auto observer = std::make_shared<Observer>([&](const std::string& event) {
      if (event == "allowed math") {
        ++runs;
        return;
      }
      ++reports;
      const std::string& content = contents[std::min(runs, contents.size() - 1)];
      ::dup2(content == "/" ? ManagedFD(::open("/", O_RDONLY)).Get() : MakeFile(content).Get(), file.Get());
    });
    set->AddObserver(observer);
    const auto retries = static_cast<std::uint32_t>(std::stoul(row[0]));
    EXPECT_EQ(ScanFd(set, file.Get(), {0, retries, 0}), row.at(4)) << row[0] << " " << row[1];
    set->RemoveObserver(observer);
    EXPECT_EQ(std::to_string(runs), row.at(2)) << row[0] << " " << row[1];
    EXPECT_EQ(std::to_string(reports), row.at(3)) << row[0] << " " << row[1];
  }
}

TEST(YaraScan, FailsWithLibyarasErrorAndNoMatches) {
  const auto slow =
      LoadRules("rule A { condition: true } rule B { condition: for all i in (0..1099511627776) : (i >= 0) }");
  const auto many = LoadRules("rule A { condition: true } rule B { strings: $a = \"aa\" condition: $a }");
  const auto talking = LoadRules("import \"console\" rule A { condition: console.log(\"x\") }");
  ExpectReport("", "", [&] { EXPECT_EQ(ScanText(slow, "x", {1, 9, 1}), "error 26"); });
  ExpectReport(kNotSupported, "", [&] { EXPECT_EQ(ScanText(many, std::string(1'000'100, 'a')), "error 30"); });
  ExpectReport(kNotSupported, "", [&] { EXPECT_EQ(ScanText(talking, "x"), "A"); });  // our answer is not looked at
}

TEST(YaraScan, MissingRulesReadAsClean) {
  const auto empty = std::make_shared<YaraRuleSet>(nullptr, "id", std::vector<std::string>());
  const std::string no_set = Line("387", "rule_set", "rule_set is null");
  const std::string no_rules = Line("388", "rule_set->raw_rules_", "YR_RULES* is null");
  ExpectReport(no_set + no_set, "", [] { EXPECT_EQ(ScanFd(nullptr, -1) + ScanText(nullptr, "x"), ""); });
  ExpectReport(no_rules + no_rules, "", [&] { EXPECT_EQ(ScanFd(empty, -1) + ScanText(empty, "x"), ""); });
}

TEST(YaraScan, AnswersEachMessage) {
  ScanContext context;
  const auto expect = [](int message, ScanContext* user_data, int answer, const std::string& written) {
    ExpectReport(written, "", [&] { EXPECT_EQ(OnScanMessage(message, nullptr, user_data), answer); });
  };
  expect(1, nullptr, 2, Line("161", "user_data", "user_data is null"));
  expect(3, nullptr, 2, Line("161", "user_data", "user_data is null"));
  expect(1, &context, 2, Line("134", "rule", ""));
  expect(4, &context, 2, Line("38", "yr_module", ""));
  expect(3, &context, 0, "");
  expect(5, &context, 0, "");
  for (const int message : {0, 2, 6, 7, -1}) {
    expect(message, &context, 2, kNotSupported);
  }
}

TEST(YaraScan, PassesOnWhatAnObserverThrows) {
  const auto set = LoadRules("import \"math\" private rule P { condition: true } rule R { condition: true }");
  const ManagedFD file = MakeFile(std::string(1 << 19, ' '));  // large enough to be mapped
  const auto before = vond::test::OpenDescriptors();
  for (const std::string thrown : {"allowed math", "kept back 0", "reported 1"}) {
    const auto observer = std::make_shared<Observer>([&](const std::string& event) {
      EXPECT_TRUE(IsTestFileMapped());
      if (event == thrown) {
        throw std::runtime_error(event);
      }
    });
    set->AddObserver(observer);
    EXPECT_EQ(Thrown([&] { (void)ScanFd(set, file.Get(), {0, 3, 0}); }), thrown);
    set->RemoveObserver(observer);
    EXPECT_FALSE(IsTestFileMapped());
    EXPECT_EQ(vond::test::OpenDescriptors(), before);
    EXPECT_EQ(ScanFd(set, file.Get()), "R");
    const auto writing = set->LockForWriting();  // hangs if the scan kept its lock
  }
}

TEST(YaraScan, FilesCutShortByOthersCostNeitherHandlersNorMemory) {
  constexpr std::size_t kPart = 12288;  // so that the file is mapped, not copied
  std::string source;
  std::string content;
  std::string names;
  for (char c = 'A'; c <= 'X'; ++c) {
    source += std::string("rule ") + c + " { strings: $a = \"part" + c + "\" condition: $a } ";
    content += std::string("part") + c + std::string(kPart - 5, ' ');
    names += c + std::string(" ");
  }
  // Most faults are met in a condition, where libyara holds memory.
  source += "rule Z { condition: for all i in (0..5000) : (uint8(i % 24 * 12288) == 0x70) }";
  names += "Z";
  const auto set = LoadRules(source);
  korvo_common::SignalDispatcher::Instance().RegisterFatalHandler({SIGBUS, SIGSEGV}, [](int) {});
  const auto handlers = [] {
    struct sigaction bus {};
    struct sigaction segv {};
    ::sigaction(SIGBUS, nullptr, &bus);
    ::sigaction(SIGSEGV, nullptr, &segv);
    return std::pair(bus.sa_sigaction, segv.sa_sigaction);
  };
  const auto our_handlers = handlers();
  const ManagedFD file = MakeFile(content);
  std::atomic<int> right = 0, faults = 0, wrong = 0;
  // Scans on four threads until there were that many right ones and faults.
  const auto scan = [&](int right_ones, int faulty_ones) {
    right = faults = 0;
    std::atomic<bool> stop = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
        while (!stop) {
          const std::string summary = ScanFd(set, file.Get());
          const bool is_right = faulty_ones == 0 ? summary == names : names.starts_with(summary);  // the first parts
          ++(is_right ? right : summary == "error 4" ? faults : wrong);
        }
      });
    }
    threads.emplace_back([&] {
      for (std::size_t keep = 0; faulty_ones > 0 && !stop; keep = (keep + 7 * kPart) % content.size()) {
        EXPECT_EQ(::ftruncate(file.Get(), static_cast<off_t>(keep)), 0);
        std::this_thread::sleep_for(std::chrono::microseconds(50));  // long enough for a scan to come by
        for (std::size_t at = keep; at < content.size(); at += kPart) {
          EXPECT_EQ(::pwrite(file.Get(), &content[at], kPart, static_cast<off_t>(at)), static_cast<ssize_t>(kPart));
        }
      }
    });
    const auto enough = [&] { return wrong > 0 || (right >= right_ones && faults >= faulty_ones); };
    EXPECT_TRUE(vond::test::WaitUntil(enough, std::chrono::seconds(100))) << right << " " << faults;
    stop = true;
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(handlers(), our_handlers);
  };
  scan(8000, 0);
#ifdef VOND_SANITIZED  // has an allocator of its own, of which mallinfo2 knows nothing
  scan(0, 200);
#else
  scan(0, 100);  // the allocator and the threads' arenas have their size after this
  const auto in_use = [] {
    const struct mallinfo2 info = ::mallinfo2();
    return static_cast<std::ptrdiff_t>(info.uordblks + info.hblkhd);  // the latter are large blocks
  };
  const std::ptrdiff_t before = in_use();
  scan(0, 2000);
  const std::ptrdiff_t growth = in_use() - before;
  std::printf("heap growth over %d faults: %td bytes\n", faults.load(), growth);
  EXPECT_LT(growth, 64'000);
#endif
}

}  // namespace
}  // namespace korvo::yara::yara_lib
