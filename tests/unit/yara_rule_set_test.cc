// Rule sets: records, ids, switching rules on and off, observers, messages.
#include "yara/yara_lib/yara_rule_set.h"

#include "tests/unit/engine_test.h"
#include "yara/yara_lib/yara_messages.h"

namespace korvo::yara::yara_lib {
namespace {

using vond::test::ReadTable;
using vond::test::Split;

// The rule as the agent gets to read it.
std::string Describe(const YaraRuleInfo& rule) {
  YaraScanOutcome outcome;
  outcome.error = 4;
  outcome.matches.assign(2, std::make_shared<const YaraRuleRecord>(rule));
  const std::string sent = SerializeOutcome(outcome);
  ::yara_lib::YaraScanResult received;
  EXPECT_TRUE(received.ParseFromString(sent));
  EXPECT_EQ(received.SerializeAsString(), sent);
  EXPECT_EQ(received.error(), 4);
  EXPECT_EQ(received.matched_rules_size(), 2);
  EXPECT_EQ(received.matched_rules(1).ShortDebugString(), received.matched_rules(0).ShortDebugString());
  for (int i = 0; i < received.matched_rules(0).metadata_items_size(); ++i) {
    EXPECT_EQ(MetadataValueFromMessage(received.matched_rules(0).metadata_items(i).value()),
              rule.metadata.at(static_cast<std::size_t>(i)).value);
  }
  return received.matched_rules(0).ShortDebugString();
}

TEST(YaraRuleSet, RecordsItsRules) {
  const auto rows = ReadTable("rule_records.txt");
  std::string source;
  for (const auto& row : rows) {
    source += row[0] + "\n";
  }
  std::shared_ptr<YaraRuleSet> set;
  EXPECT_EQ(vond::test::CaptureOutput(STDOUT_FILENO, [&] { set = LoadRules(source); }),
            "INFO Replaced invalid UTF-8 in the metadata of rule name: D\n"
            "INFO Replaced invalid UTF-8 in the metadata of rule name: F\n");
  ASSERT_EQ(set->size(), rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(Describe(set->GetRule(i)), rows[i].at(1));
    EXPECT_EQ(Describe(*set->CopyRule(i)), rows[i].at(1));
  }
  EXPECT_EQ(Thrown([] { (void)MetadataValueFromMessage({}); }), "Yara protobuf error. No metadata value set. -1");
}

TEST(YaraRuleSet, ReportsBrokenPreconditions) {
  const auto set = LoadRules("rule A { condition: true }");
  YaraRuleSet none(nullptr, "id", {});
  EXPECT_EQ(none.FindDisabledMember(), std::nullopt);
  const auto expect = [](const char* line, const char* condition, const char* text, const char* thrown,
                         const auto& action) {
    ExpectReport(Line(line, condition, text, "yara_rule_set"), thrown, action);
  };
  expect("205", "rule_index < size()", "index out of range", "rule_index", [&] { (void)set->GetRule(1); });
  expect("205", "rule_index < size()", "index out of range", "rule_index", [&] { (void)none.GetRule(0); });
  expect("225", "rule_index < size()", "index out of range", "rule_index", [&] { (void)set->CopyRule(1); });
  expect("256", "yr_rules", "YR_RULES* is null", "", [&] { none.SetRuleEnabled(0, true); });
  expect("257", "rule_index < yr_rules->num_rules", "index out of range", "rule_index",
         [&] { set->SetRuleEnabled(1, true); });
  expect("151", "observer", "no observer was provided", "", [&] { set->AddObserver(nullptr); });
  expect("157", "observer", "no observer was provided", "", [&] { set->RemoveObserver(nullptr); });
  set->SetRuleEnabled(0, false);  // would crash on a null observer
}

TEST(YaraRuleSet, TellsItsObserversInOrder) {
  const std::string source = "import \"math\" private rule P { condition: true } rule R { condition: true }";
  const auto set = LoadRules(source, {"time", "math"});
  const auto strict = LoadRules(source, {"time", "mat"});
  std::string log;
  const auto a = std::make_shared<Observer>([&](const std::string& event) { log += "a " + event + "; "; });
  const auto b = std::make_shared<Observer>([&](const std::string& event) { log += "b " + event + "; "; });
  const auto expect = [&](const std::string& heard, const std::function<void()>& action) {
    log.clear();
    action();
    EXPECT_EQ(log, heard);
  };
  for (const auto& observer : {a, b, a}) {
    set->AddObserver(observer);
  }
  expect("a disabled 1; b disabled 1; a disabled 1; ", [&] { set->SetRuleEnabled(1, false); });
  set->RemoveObserver(a);
  expect("b enabled 1; ", [&] { set->SetRuleEnabled(1, true); });
  set->AddObserver(a);
  expect("b allowed math; a allowed math; b kept back 0; a kept back 0; b reported 1; a reported 1; ",
         [&] { EXPECT_EQ(ScanText(set, ""), "R"); });
  set->RemoveObserver(b);
  expect("a allowed math; a reported 0; a reported 1; ", [&] { EXPECT_EQ(ScanText(set, "", {1, 0, 0}), "P R"); });
  strict->AddObserver(a);
  expect("a refused math; ", [&] { EXPECT_EQ(ScanText(strict, ""), "error 28"); });
}

TEST(YaraRuleSet, SwitchesRulesOffAndOn) {
  const auto set = LoadRules(R"(
    global rule G { condition: filesize > 100 }
    rule A { strings: $s = "same" condition: $s }
    rule B { strings: $s = "same" condition: $s }
    rule NeedsA { condition: A }
    rule NotA { condition: not A })");
  const auto expect = [&](std::size_t index, bool enable, const char* matches) {
    set->SetRuleEnabled(index, enable);
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(ScanText(set, "same"), matches);
    }
  };
  EXPECT_EQ(ScanText(set, "same"), "");
  expect(0, false, "A B NeedsA");  // a disabled global rule stands in nobody's way
  expect(1, false, "B");           // rules that refer to a disabled rule match neither way
  expect(1, true, "A B NeedsA");
  expect(0, true, "");
}

TEST(YaraRuleSet, FindsRulesByIdAlsoAfterChanges) {
  const auto set = LoadRules(R"(
    rule A { meta: id = "x" k = 1 k = "2" condition: true }
    rule B { condition: true }
    rule C { meta: id = "old" id = "x" condition: true }
    rule D { meta: id = -5 condition: true }
    rule E { meta: id = true condition: true })");
  const auto find = [&](const std::string& ids) {
    std::string found;
    for (const std::string& id : Split(ids, ' ')) {
      for (const std::size_t index : set->HasRule(id) ? set->FindRules(id) : std::vector<std::size_t>()) {
        found += set->GetRule(index).name;
      }
      found += " ";
    }
    return found;
  };
  EXPECT_EQ(find("x -5 1 old B"), "AC D E   ");  // of a repeated key the last one counts
  EXPECT_EQ(Thrown([&] { (void)set->FindRules("old"); }), "_Map_base::at");
  EXPECT_EQ(Thrown([&] { set->SetMetadata("old", "k", true); }), "_Map_base::at");
  const auto before = set->CopyRule(0);
  const std::string sent = before->SerializedMatch();
  set->SetMetadata("x", "k", std::int64_t{-7});
  EXPECT_EQ(before->SerializedMatch(), sent);
  EXPECT_EQ(set->CopyRule(0)->SerializedMatch(), SerializeMatch(set->GetRule(0)));
  EXPECT_NE(set->CopyRule(0)->SerializedMatch(), sent);
  EXPECT_EQ(set->GetRule(0).metadata.size(), 2U);  // of a repeated key one is left
  EXPECT_EQ(set->GetRule(2).metadata.size(), 3U);
  set->SetMetadata("-5", "id", std::string("x"));
  EXPECT_EQ(find("x -5"), "ACD  ");
  set->SetMetadata("x", "id", true);
  EXPECT_EQ(find("x 1"), " ACDE ");
  EXPECT_EQ(Describe(set->GetRule(2)),
            "name: \"C\" metadata_items { key: \"id\" value { bool_value: true } } "
            "metadata_items { key: \"k\" value { int_value: -7 } }");
}

}  // namespace
}  // namespace korvo::yara::yara_lib
