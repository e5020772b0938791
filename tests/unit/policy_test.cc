// Policies: how they load, what is refused, and scans with them.
#include <thread>

#include "static_pattern_matching/json_conversion.h"
#include "static_pattern_matching/yara_scanner.h"
#include "tests/unit/engine_test.h"
#include "utils/linux_utils.h"
#include "utils/log.h"

namespace korvo::static_pattern_matching_daemon {
namespace {

using auto_resources::ManagedFD;
using korvo::yara::yara_lib::Thrown;
using vond::test::CaptureOutput;
using vond::test::Lines;
using vond::test::MakeFile;
using vond::test::ReadTable;

// A document and the files that come with it; last in the list stands a descriptor that is not open.
struct Policy {
  Policy(const std::string& json, const std::vector<std::string>& contents) {
    EXPECT_EQ(JsonToMessage(json, document), 0);
    for (const std::string& content : contents) {
      fds.push_back(files.emplace_back(MakeFile(content)).Get());
    }
    fds.push_back(-1);
  }
  static_pattern_matching_proto::UserConfigData document;
  std::vector<ManagedFD> files;
  std::vector<int> fds;
};

struct Loaded {
  explicit Loaded(const Policy& policy, int log_level = 6) {
    const auto open = vond::test::OpenDescriptors();
    korvo::utils::SetLogLevel(log_level);
    const auto load = [&] { config = std::make_shared<YaraConfig>(policy.document, policy.fds); };
    log = Lines(CaptureOutput(STDOUT_FILENO, [&] { thrown = Thrown(load); }));
    korvo::utils::SetLogLevel(6);
    EXPECT_EQ(vond::test::OpenDescriptors(), open);
  }
  // The lines of the log that begin with one of `letters`.
  std::vector<std::string> Log(const std::string& letters) const {
    std::vector<std::string> lines = log;
    std::erase_if(lines, [&](const std::string& line) { return letters.find(line.at(0)) == std::string::npos; });
    return lines;
  }
  // The rules of one rule set that match.
  std::string Matches(int file_type, int rule_type = 0) const {
    return korvo::yara::yara_lib::ScanText(config->GetRuleSets().at(file_type).at(rule_type), "x", {1, 0, 0});
  }
  std::shared_ptr<YaraConfig> config;
  std::vector<std::string> log;
  std::string thrown;
};

std::string Rule(const std::string& name, const std::string& id, const std::string& action,
                 const std::string& condition = "true") {
  return "private rule " + name + " { meta: id = " + id + " action = \"" + action + "\" condition: " + condition +
         " }\n";
}

const std::string kOneSet = R"({"rule_sets":[{"file_type":1}],"rule_overrides":[)";

std::string Override(const std::string& id, const std::string& key, const std::string& value) {
  return R"({"rule_id":")" + id + R"(","item":{"key":")" + key + R"(","value":{"string_value":")" + value + "\"}}},";
}

TEST(YaraConfig, LogsEveryStepOfAGoodLoad) {
  const Policy policy(kOneSet + Override("c", "action", "disable") + Override("ghost", "action", "disable") +
                          Override("a", "note", "5") + R"({"rule_id":"a"}]})",
                      {Rule("A", "\"a\"", "block") + Rule("B", "7", "disabled") + Rule("C", "\"c\"", "allow")});
  std::vector<std::string> expected;
  for (const auto& row : ReadTable("good_policy.log")) {
    expected.push_back(row[0]);
  }
  const Loaded loaded(policy, 8);
  EXPECT_EQ(loaded.log, expected);
  EXPECT_EQ(loaded.thrown, "");
  EXPECT_EQ(loaded.Matches(1), "A");
  EXPECT_EQ(loaded.config->GetUserConfig().rule_overrides_size(), 4);
  EXPECT_EQ(Loaded(policy, 6).log, loaded.Log("EI"));
  EXPECT_EQ(Loaded(policy, 7).log, loaded.Log("EID"));
  std::erase(expected, "TRACE Iterating all rules...");  // a line of level 8 alone
  EXPECT_EQ(Loaded(policy, 9).log, expected);
  EXPECT_TRUE(Loaded({"{}", {}}).config->GetRuleSets().empty());
}

TEST(YaraConfig, OverridesAndDisablesByIdAndAction) {
  const std::string rules = Rule("A", "\"x\"", "disable") + Rule("B", "\"x\"", "block") +
                            "rule C { meta: id = 5 action = \"allow\" action = \"block\" condition: true }";
  for (const auto& [overrides, matches] : std::vector<std::pair<std::string, std::string>>{
           {"", "B C"},  // an id may be shared, an action is the rule's own
           {Override("x", "action", "inform"), "A B C"},
           {Override("5", "action", "disable"), "B"},
           {Override("5", "id", "z") + Override("z", "action", "disable"), "B"},
           {Override("5", "id", "z") + Override("5", "action", "disable"), "B C"},
           {Override("5", "id", "x") + Override("x", "action", "disable"), ""}}) {
    EXPECT_EQ(Loaded({kOneSet + overrides + "]}", {rules}}).Matches(1), matches) << overrides;
  }
  const Loaded two({R"({"rule_sets":[{"file_type":1},{"file_type":2}],"rule_overrides":[)" +
                        Override("1", "action", "disable") + "]}",
                    {Rule("A", "1", "block")}});
  EXPECT_EQ(two.Matches(1) + two.Matches(2), "A");  // only one of two rule sets hears of it
}

// "<status> <rule type>:<status>,<error>,<rules>; ..."
std::string Scan(YaraScanner& scanner, int file_type, const std::vector<int>& rule_types,
                 const std::string& content = "x") {
  const ManagedFD file = MakeFile(content);
  static_pattern_matching_proto::ScanRequest request;
  request.set_file_type(file_type);
  for (const int rule_type : rule_types) {
    request.add_rule_type(static_cast<static_pattern_matching_proto::RuleType>(rule_type));
  }
  const std::string sent = scanner.ScanFile(file.Get(), request).SerializeAsString();
  static_pattern_matching_proto::ScanResponse response;
  EXPECT_TRUE(response.ParseFromString(sent));
  if (response.results_size() < 2) {  // the order of more may be any
    EXPECT_EQ(response.SerializeAsString(), sent);
  }
  std::string text = std::to_string(response.status());
  for (const auto& [rule_type, entry] : std::map(response.results().begin(), response.results().end())) {
    text += " " + std::to_string(rule_type) + ":" + std::to_string(entry.status()) + "," +
            std::to_string(entry.result().error()) + ",";
    EXPECT_EQ(entry.has_result(), entry.status() == static_pattern_matching_proto::ScanStatus_Success) << rule_type;
    for (const auto& rule : entry.result().matched_rules()) {
      text += rule.name() + " " + rule.metadata_items(1).value().string_value();
    }
    text += ";";
  }
  return text;
}

void Install(YaraScanner& scanner, const Policy& policy) {
  const std::string log = CaptureOutput(STDOUT_FILENO, [&] { scanner.UpdateConfig(policy.document, policy.fds); });
  EXPECT_EQ(Lines(log).at(0), "INFO Updating YaraScanner's configuration..");
}

const std::string kSlow = Rule("Slow", "1", "block", "for all i in (0..1099511627776) : (i >= 0)");

TEST(YaraScanner, AnswersEachRuleTypeByItself) {
  YaraScanner scanner;
  EXPECT_EQ(Scan(scanner, 1, {0}), "0 0:2,0,;");  // no policy yet
  Install(scanner, {R"({"rule_sets":[{"file_type":1},{"file_type":2,"fd_index":1},{"file_type":2,"rule_type":1}]})",
                    {Rule("A", "1", "block", "filesize == 1"), Rule("B", "1", "block", "false")}});
  const std::string log = CaptureOutput(STDOUT_FILENO, [&] {
    EXPECT_EQ(Scan(scanner, 1, {1, 9, 0, 0, 1}), "0 0:0,0,A block; 1:2,0,; 9:2,0,;");
  });
  const std::string missing = "ERROR ScanFile failed with error: _Map_base::at\n";
  EXPECT_EQ(log, missing + missing + missing);
  EXPECT_EQ(Scan(scanner, 2, {1, 0}), "0 0:0,0,; 1:0,0,A block;");
  EXPECT_EQ(Scan(scanner, 4, {0}), "0 0:2,0,;");
  EXPECT_EQ(Scan(scanner, 4, {}), "0");
  EXPECT_THROW(Install(scanner, {R"({"rule_sets":[{"fd_index":1}]})", {""}}), utils::LinuxUtils::Exception);
  EXPECT_EQ(Scan(scanner, 1, {0}), "0 0:0,0,A block;");
}

TEST(YaraScanner, RunningScansKeepTheirConfiguration) {
  YaraScanner scanner;
  const std::string document = R"({"rule_sets":[{},{"rule_type":1,"fd_index":1}],"yara_timeout_in_seconds":1})";
  Install(scanner, {document, {kSlow, Rule("Old", "1", "block")}});
  std::string during;
  std::thread thread([&] { during = Scan(scanner, 0, {0, 1}, std::string(1 << 19, 'x')); });
  EXPECT_TRUE(vond::test::WaitUntil(
      &korvo::yara::yara_lib::IsTestFileMapped));  // the first of the two scans has begun, and maps so large a file
  Install(scanner, {document, {Rule("Quick", "1", "block"), Rule("New", "1", "allow")}});
  EXPECT_EQ(Scan(scanner, 0, {0, 1}), "0 0:0,0,Quick block; 1:0,0,New allow;");
  thread.join();
  EXPECT_EQ(during, "0 0:0,26,; 1:0,0,Old block;");
}

}  // namespace
}  // namespace korvo::static_pattern_matching_daemon
