#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "agent/rule_packer.h"
#include "tests/support/test_support.h"

namespace vond::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

const std::string kRules =
    "rule Loader : trojan { meta: id = \"4f1c\" action = \"block\" score = 75 seen = true strings: $a = \"loader\"\n"
    "  condition: $a }\n";
const std::string kSlowRule =
    "rule Slow { meta: id = \"s\" action = \"block\" condition: for all i in (0..1099511627776) : (i >= 0) }\n";

// A folder with rules and files to scan, gone at the end.
class Vondctl : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "vondctl-test-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
    Write("rules.yar", kRules);
    Write("files/clean.bin", "nothing here");
    Write("files/loader.bin", "a loader");
  }
  void TearDown() override { fs::remove_all(folder_); }

  void Write(const std::string& name, const std::string& content) {
    fs::create_directories((folder_ / name).parent_path());
    std::ofstream(folder_ / name, std::ios::binary) << content;
  }
  [[nodiscard]] std::string Path(const std::string& name) const { return (folder_ / name).string(); }

  // Runs vondctl; "@" at an argument's start stands for the folder.
  [[nodiscard]] ChildResult Run(std::vector<std::string> arguments) const {
    for (std::string& argument : arguments) {
      if (argument.starts_with('@')) {
        argument = Path(argument.substr(1));
      }
    }
    arguments.insert(arguments.begin(), VONDCTL_PATH);
    return RunChild(arguments);
  }
  [[nodiscard]] std::vector<json> RunJson(std::vector<std::string> arguments, int exit_status) const {
    arguments.insert(arguments.end(), {"--format", "jsonl"});
    const ChildResult result = Run(arguments);
    EXPECT_EQ(result.exit_status, exit_status) << result.err;
    std::vector<json> objects;
    for (const std::string& line : Lines(result.out)) {
      objects.push_back(json::parse(line));
    }
    return objects;
  }

  fs::path folder_;
};

TEST_F(Vondctl, JsonLinesKeepTheirKeys) {
  const ChildResult result = Run({"scan", "--rules", "@rules.yar", "--format", "jsonl", "--all", "@files"});
  EXPECT_EQ(result.exit_status, 1) << result.err;
  std::vector<std::string> lines = Lines(result.out);
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0], R"({"type":"policy","rule_sets":[{"file_type":0,"rule_type":"block","rules":1}]})");
  std::sort(lines.begin() + 1, lines.begin() + 3);
  EXPECT_EQ(lines[1], R"({"type":"file","path":")" + Path("files/clean.bin") + R"(","size":12,"outcome":"clean"})");
  EXPECT_EQ(lines[2], R"({"type":"file","path":")" + Path("files/loader.bin") +
                          R"(","size":8,"outcome":"match","matches":[{"rule":"Loader","rule_type":"block","id":"4f1c",)"
                          R"("action":"block","tags":["trojan"],"private":false,)"
                          R"("meta":[{"key":"score","value":75},{"key":"seen","value":true}]}]})");
  json summary = json::parse(lines[3]);
  EXPECT_TRUE(summary["seconds"].is_number());
  summary.erase("seconds");
  EXPECT_EQ(summary.dump(), json::parse(R"({"type":"summary","files":2,"match":1,"clean":1,"timeout":0,"skipped":0,
                                            "error":0,"changed":0,"bytes":20,"exit":1})")
                                .dump());
}

TEST_F(Vondctl, TextNamesRulesAndHidesWhatATerminalWouldObey) {
  Write("odd/\x1b[2J\n.bin", "a loader");
  const ChildResult result = Run({"scan", "-r", "@rules.yar", "@odd"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.out, Path("odd/\\x1b[2J\\x0a.bin") + ": Loader (block, id 4f1c, action block, tags trojan)\n");
  EXPECT_NE(result.err.find("1 files (0.0 MB) in "), std::string::npos) << result.err;
  EXPECT_NE(result.err.find(": 1 matched, 0 clean, 0 timed out, 0 skipped, 0 failed, 0 changed\n"), std::string::npos);
  EXPECT_EQ(Run({"scan", "-q", "-r", "@rules.yar", "@odd"}).err, "");
}

TEST_F(Vondctl, WhatWasNotScannedNeverReadsAsClean) {
  ASSERT_EQ(::mkfifo(Path("pipe").c_str(), 0600), 0);
  ASSERT_EQ(::mkfifo(Path("files/pipe").c_str(), 0600), 0);          // in a tree: no file
  fs::create_symlink(Path("files/loader.bin"), Path("files/link"));  // in a tree: not followed
  fs::create_symlink(Path("files/clean.bin"), Path("link"));         // named: followed
  std::vector<json> lines = RunJson({"scan", "-r", "@rules.yar", "@pipe", "@missing", "@link", "@files"}, 2);
  ASSERT_FALSE(lines.empty());
  const json summary = lines.back();
  EXPECT_EQ(summary["files"], 5);
  EXPECT_EQ(summary["skipped"], 1);
  EXPECT_EQ(summary["error"], 1);
  EXPECT_EQ(summary["match"], 1);
  EXPECT_EQ(summary["clean"], 2);
  EXPECT_EQ(summary["exit"], 2);

  Write("slow.yar", kRules + kSlowRule);
  lines = RunJson({"scan", "-r", "@slow.yar", "--timeout", "1", "@files/clean.bin"}, 2);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[1]["outcome"], "timeout");
  EXPECT_EQ(lines[1]["engine_error"], 26);
  EXPECT_EQ(lines[1]["error"], "the scan took longer than 1 s");
}

TEST_F(Vondctl, AllowRulesThatFailedHideNoMatchOfTheOthers) {
  Write("slow.yar", kSlowRule);
  Write("policy.json", R"({"yara_timeout_in_seconds":1,"max_sample_size":10,"rule_sets":[
      {"path":"rules.yar","rule_type":"Block"},{"path":"slow.yar","rule_type":"Allow"}]})");
  const std::vector<json> lines = RunJson({"scan", "-p", "@policy.json", "@files"}, 2);
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0]["rule_sets"].size(), 2U);
  const auto file = [&](const std::string& path) {
    return *std::find_if(lines.begin(), lines.end(), [&](const json& line) { return line.value("path", "") == path; });
  };
  EXPECT_EQ(file(Path("files/loader.bin"))["outcome"], "timeout");
  EXPECT_EQ(file(Path("files/loader.bin"))["matches"][0]["rule"], "Loader");
  EXPECT_EQ(file(Path("files/clean.bin"))["outcome"], "skipped");  // larger than max_sample_size
}

TEST_F(Vondctl, AFileThatChangesUnderItsScanIsNotClean) {
  Write("slow.yar",
        "rule Slow { meta: id = \"s\" action = \"block\" condition: for all i in (0..20000000) : (i > 0) }\n");
  const std::string path = Path("files/clean.bin");
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; !done; ++i) {
      std::ofstream(path, std::ios::app) << i;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });
  const std::vector<json> lines = RunJson({"scan", "-r", "@slow.yar", "@files/clean.bin"}, 2);
  done = true;
  writer.join();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[1]["outcome"], "changed");
}

TEST_F(Vondctl, ReadsPackedRulesAloneAndAmongOthers) {
  Write("packed/one.yar", agent::PackRuleSet(kRules));
  EXPECT_EQ(Run({"scan", "-r", "@packed/one.yar", "@files"}).exit_status, 1);
  Write("packed/two.yar", "rule Other { meta: id = \"o\" action = \"block\" condition: false }");
  EXPECT_EQ(RunJson({"scan", "-r", "@packed", "@files"}, 1)[0]["rule_sets"][0]["rules"], 2);
}

}  // namespace
}  // namespace vond::test
