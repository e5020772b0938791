// User configuration documents, and the words of rule metadata.
#include "static_pattern_matching/json_conversion.h"

#include <google/protobuf/timestamp.pb.h>

#include "static_pattern_matching/proto/StaticPatternMatching.pb.h"
#include "static_pattern_matching/rule_metadata.h"
#include "tests/unit/engine_test.h"

namespace korvo::static_pattern_matching_daemon {
namespace {

using korvo::yara::yara_lib::Thrown;
using static_pattern_matching_proto::UserConfigData;
using vond::test::CaptureOutput;
using vond::test::ReadTable;

// The refused ones are in tests/data/bad_documents.txt.
TEST(JsonConversion, ReadsDocumentsAndWritesThem) {
  for (const auto& row : ReadTable("documents.txt")) {
    UserConfigData message, copy;
    std::string json;
    EXPECT_EQ(CaptureOutput(STDOUT_FILENO, [&] { EXPECT_EQ(JsonToMessage(row[0], message), 0); }), "");
    EXPECT_EQ(message.ShortDebugString(), row.at(1)) << row[0];
    EXPECT_EQ(MessageToJson(message, json, {}), 0);
    EXPECT_EQ(JsonToMessage(json, copy), 0);
    EXPECT_EQ(copy.SerializeAsString(), message.SerializeAsString()) << row[0];
  }
}

TEST(JsonConversion, ReportsUnprintableMessages) {
  UserConfigData message;
  message.set_cache_capacity(7);
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  std::string json;
  EXPECT_EQ(MessageToJson(message, json, options), 0);
  EXPECT_EQ(json, "{\"cache_capacity\":7}");

  google::protobuf::Timestamp unprintable;
  unprintable.set_seconds(-1'000'000'000'000);
  int status = 0;
  const std::string log = CaptureOutput(STDOUT_FILENO, [&] { status = MessageToJson(unprintable, json, {}); });
  const std::string expected = "ERROR Failed converting protobuf message to JSON with " + std::to_string(status) + ": ";
  EXPECT_EQ(log.substr(0, expected.size()), expected);
  EXPECT_NE(status, 0);
}

TEST(RuleMetadata, ConvertsWordsAndValues) {
  auto rows = ReadTable("rule_words.txt");
  rows.push_back({"block ", "0", "0"});
  rows.push_back({std::string("low\0", 4), "0", "0"});
  for (const auto& row : rows) {
    EXPECT_EQ(std::to_string(static_cast<int>(ActionFromWord(row[0]))), row.at(1)) << row[0];
    EXPECT_EQ(std::to_string(static_cast<int>(SeverityFromWord(row[0]))), row.at(2)) << row[0];
  }
  std::string words;
  const auto append = [&](int action) { words += WordFromAction(static_cast<RuleAction>(action)) + " "; };
  for (int action = 0; action < 7; ++action) {
    append(action);
  }
  EXPECT_EQ(words, "invalid disable internal silent inform block allow ");
  EXPECT_EQ(Thrown([&] { append(7); }), "array::at: __n (which is 7) >= _Nm (which is 7)");
  EXPECT_EQ(Thrown([&] { append(-1); }), "array::at: __n (which is 18446744073709551615) >= _Nm (which is 7)");
}

}  // namespace
}  // namespace korvo::static_pattern_matching_daemon
