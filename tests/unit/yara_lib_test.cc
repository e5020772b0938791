// The engine: start, settings, compiling, loading.
#include "yara/yara_lib/yara_lib.h"

#include <pthread.h>
#include <yara.h>

#include <algorithm>
#include <future>

#include "tests/unit/engine_test.h"

namespace korvo::yara::yara_lib {
namespace {

using vond::test::ReadTable;

// Runs in a process of its own: the engine starts only once.
void StartWithoutThreadKeys() {
  std::vector<pthread_key_t> keys;
  for (pthread_key_t key = 0; ::pthread_key_create(&key, nullptr) == 0;) {
    keys.push_back(key);
  }
  const std::string first = Thrown([] { (void)YaraLib::Instance(); });
  for (const pthread_key_t key : keys) {
    ::pthread_key_delete(key);
  }
  // libyara would now succeed without having done anything.
  ::_exit(first == "Yara error. 31" && first == Thrown([] { (void)YaraLib::Instance(); }) ? 0 : 1);
}

TEST(YaraLib, StaysDownAfterAFailedStart) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(StartWithoutThreadKeys(), testing::ExitedWithCode(0),
              "^(Line 317 @ yara/yara_lib/yara_lib \\*\\*\\* Assertion '\\(\\(!error\\)\\)' failed \\*\\*\\* "
              "could not initialize Yara library\n){2}$");
}

TEST(YaraLib, ReadsAndWritesSettings) {
  EXPECT_EQ(YaraLib::GetVersion(), "4.0.2");
  EXPECT_EQ(YaraLib::GetVersionNumber(), 0x40002U);
  std::uint32_t value = 0;
  const auto get = [&](int setting) { YaraLib::Instance().GetConfiguration(YaraConfigurationName{setting}, &value); };
  const auto set = [&](int setting) {
    YaraLib::Instance().SetConfiguration(YaraConfigurationName{setting}, value + 1);
  };
  for (const auto& [setting, initial] : {std::pair(0, 16384U), std::pair(1, 10000U), std::pair(2, 512U)}) {
    get(setting);
    EXPECT_EQ(value, initial);
    set(setting);
    get(setting);
    EXPECT_EQ(value, initial + 1);
  }
  const std::string check = "config_setting < YaraConfigurationName::Max";
  for (const int setting : {3, 0x7fffffff}) {
    ExpectReport(Line("300", check, "configuration setting not supported"), "config_setting", [&] { get(setting); });
    ExpectReport(Line("308", check, "configuration setting not supported "), "config_setting", [&] { set(setting); });
  }
  ExpectReport(Line("303", "!error", "could not get configuration value"), "Yara error. 29", [&] { get(-1); });
  ExpectReport(Line("311", "!error", "could not set configuration value"), "Yara error. 31", [&] { set(-1); });
}

TEST(YaraLib, ReportsWhatDoesNotCompile) {
  auto rows = ReadTable("compile_errors.txt");
  rows.push_back({"rule N { condition: " + std::string(20000, '('), "no", "1 1 0", "0,1,N,memory exhausted;"});
  for (auto& row : rows) {
    std::replace(row[0].begin(), row[0].end(), '~', '\n');
    std::replace(row[0].begin(), row[0].end(), '^', '\0');
    std::string counts;
    std::string messages;
    const auto compile = [&] {
      try {
        (void)YaraLib::Instance().Compile(row[0], row.at(1) == "yes");
      } catch (const YaraCompilationException& e) {
        counts = " " + std::to_string(e.error_count) + " " + std::to_string(e.warning_count);
        for (const CompilerMessage& m : e.messages) {
          messages += std::to_string(m.level) + "," + std::to_string(m.line_number) + "," + m.rule_name + "," +
                      m.file_name + m.message + ";";
        }
        throw;
      }
    };
    ExpectReport(Line("332", "!error", "Yara compilation error"),
                 "Yara compilation error(s). " + row.at(2).substr(0, 1), compile);
    EXPECT_EQ(messages, row.at(3));
    EXPECT_EQ(row[2].substr(1), counts) << messages;
  }
}

TEST(YaraLib, StartsAndCompilesAndLoadsOnSeveralThreads) {
  const std::string deep = "rule N { condition: " + std::string(4000, '(') + "true" + std::string(4000, ')') + " }";
  const auto compile_all = [&] {
    for (const auto& [source, matches] : std::vector<std::pair<std::string, std::string>>{
             {"", ""}, {" // no rule\n", ""}, {"rule W { condition: \"x\" }", "W"}, {deep, "N"}}) {
      const CompiledRules compiled = YaraLib::Instance().Compile(source, true);  // a warning alone fails nothing
      for (int i = 0; i < 2; ++i) {                                              // a buffer can be loaded again
        EXPECT_EQ(ScanText(YaraLib::Instance().Load(compiled, "id", {}), "x"), matches);
      }
    }
  };
  ExpectReport("", "", [&] {
    std::vector<std::future<void>> threads(4);
    for (auto& thread : threads) {
      thread = std::async(std::launch::async, compile_all);
    }
  });
  // libyara counts its initialisations: exactly one can be undone.
  EXPECT_EQ(::yr_finalize(), ERROR_SUCCESS);
  EXPECT_NE(::yr_finalize(), ERROR_SUCCESS);
  EXPECT_EQ(::yr_initialize(), ERROR_SUCCESS);
}

TEST(YaraLib, LoadsNoDamagedImage) {
  const CompiledRules good = YaraLib::Instance().Compile("rule A { strings: $a = \"text\" condition: $a }", false);
  const CompiledRules::Bytes& bytes = *good.get_data_ptr();
  const auto refuse = [](CompiledRules::Bytes image, std::uint32_t checksum) {
    const CompiledRules rules(std::make_shared<const CompiledRules::Bytes>(std::move(image)), checksum);
    ExpectReport(Line("353", "!error && yr_rules", "could not load rules from Yara buffer"), "Yara error. 7",
                 [&] { (void)YaraLib::Instance().Load(rules, "id", {}); });
  };
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    refuse({bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(i)}, good.GetChecksum());
    CompiledRules::Bytes flipped = bytes;
    flipped[i] ^= 0x10;
    refuse(flipped, good.GetChecksum());
  }
  refuse(bytes, good.GetChecksum() + 1);
  CompiledRules::Bytes longer = bytes;
  longer.push_back(0);
  refuse(longer, good.GetChecksum());
  refuse(longer, CompiledRules::Checksum(longer));  // libyara itself would not look at the end
  EXPECT_EQ(YaraLib::Instance().Load(good, "id", {})->size(), 1U);
  ExpectReport(Line("344", "compiled_rules.get_data_ptr()", "buffer data is null"), "",
               [] { EXPECT_EQ(YaraLib::Instance().Load(CompiledRules(), "id", {}), nullptr); });
}

}  // namespace
}  // namespace korvo::yara::yara_lib
