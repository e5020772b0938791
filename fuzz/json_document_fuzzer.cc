// The text of a user configuration document.

#include <google/protobuf/util/message_differencer.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "fuzz/fuzz_support.h"
#include "static_pattern_matching/json_conversion.h"
#include "static_pattern_matching/proto/StaticPatternMatching.pb.h"

namespace {

using korvo::static_pattern_matching_daemon::JsonToMessage;
using korvo::static_pattern_matching_daemon::MessageToJson;
using static_pattern_matching_proto::UserConfigData;
using vond::fuzz::Require;

// Whether a rule type is one of the two words, a number in any form, or none. Read by another library than the one in
// use, which may refuse the text but does not read it differently.
bool IsRuleType(const nlohmann::json& value) {
  if (!value.is_string()) {
    return value.is_number() || value.is_null();
  }
  const auto& word = value.get_ref<const std::string&>();
  char* end = nullptr;
  static_cast<void>(std::strtod(word.c_str(), &end));
  return word == "Block" || word == "Allow" || (end != word.c_str() && *end == '\0');
}

void CheckRuleTypes(const std::string& text) {
  const nlohmann::json document = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  for (const char* const sets_key : {"rule_sets", "ruleSets"}) {
    if (!document.is_object() || !document.contains(sets_key)) {
      continue;
    }
    for (const auto& rule_set : document[sets_key]) {
      for (const char* const type_key : {"rule_type", "ruleType"}) {
        Require(!rule_set.contains(type_key) || IsRuleType(rule_set[type_key]), "no unknown rule type is taken");
      }
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vond::fuzz::SetUp();
  const std::string text(reinterpret_cast<const char*>(data), size);
  UserConfigData document;
  if (JsonToMessage(text, document) != 0) {
    return 0;
  }
  CheckRuleTypes(text);
  document.DiscardUnknownFields();  // what an empty key becomes
  std::string written;
  UserConfigData again;
  Require(MessageToJson(document, written, {}) == 0 && JsonToMessage(written, again) == 0, "the document can be kept");
  Require(google::protobuf::util::MessageDifferencer::Equals(document, again), "the document stays the same");
  return 0;
}
