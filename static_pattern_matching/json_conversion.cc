#include "static_pattern_matching/json_conversion.h"

#include <algorithm>
#include <cerrno>
#include <locale>

#include "static_pattern_matching/proto/RuleTypesAsWritten.pb.h"
#include "static_pattern_matching/proto/StaticPatternMatching.pb.h"
#include "utils/log.h"

namespace korvo::static_pattern_matching_daemon {
namespace {

namespace pb_util = google::protobuf::util;
using static_pattern_matching_proto::RuleTypesAsWritten;
using static_pattern_matching_proto::UserConfigData;

bool IsBlank(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return std::isspace(c, std::locale::classic()); });
}

pb_util::JsonParseOptions ParseOptions(bool ignore_unknown) {
  pb_util::JsonParseOptions options;
  options.ignore_unknown_fields = ignore_unknown;
  options.case_insensitive_enum_parsing = false;
  return options;
}

// Refuses the rule types that parsing `json` silently turned into `Block`. A rule type is good when it parses alone
// with unknown words as errors.
pb_util::Status CheckRuleTypes(const std::string& json) {
  RuleTypesAsWritten document;
  pb_util::Status status = pb_util::JsonStringToMessage(json, &document, ParseOptions(true));
  for (int i = 0; i < document.rule_sets_size(); ++i) {
    for (const google::protobuf::Value& rule_type : document.rule_sets(i).rule_type()) {
      std::string word;
      UserConfigData::RuleSetFileInfo parsed;
      if (!pb_util::MessageToJsonString(rule_type, &word).ok() ||
          !pb_util::JsonStringToMessage("{\"rule_type\":" + word + "}", &parsed, ParseOptions(false)).ok()) {
        return pb_util::InvalidArgumentError("(rule_sets[" + std::to_string(i) + "].rule_type): invalid value " + word +
                                             " for a rule type");
      }
    }
  }
  return status;
}

}  // namespace

int JsonToMessage(const std::string& json, google::protobuf::Message& message) {
  if (IsBlank(json)) {
    LOG_ERROR("Can't convert empty string to protobuf message");
    return EINVAL;
  }
  pb_util::Status status = pb_util::JsonStringToMessage(json, &message, ParseOptions(true));
  if (status.ok() && message.GetDescriptor() == UserConfigData::descriptor()) {
    status = CheckRuleTypes(json);
  }
  const int code = static_cast<int>(status.code());
  if (code != 0) {
    LOG_ERROR("Failed converting JSON=", json, " to protobuf message with ", code, ": ", status.ToString());
  }
  return code;
}

int MessageToJson(const google::protobuf::Message& message, std::string& json,
                  const google::protobuf::util::JsonPrintOptions& options) {
  const pb_util::Status status = pb_util::MessageToJsonString(message, &json, options);
  const int code = static_cast<int>(status.code());
  if (code != 0) {
    LOG_ERROR("Failed converting protobuf message to JSON with ", code, ": ", status.ToString());
  }
  return code;
}

}  // namespace korvo::static_pattern_matching_daemon
