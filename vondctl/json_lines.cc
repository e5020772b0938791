#include "vondctl/json_lines.h"

#include <Poco/Base64Encoder.h>

#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "static_pattern_matching/proto/StaticPatternMatching.pb.h"
#include "utils/utf8.h"
#include "yara/yara_lib/proto/YaraLib.pb.h"

namespace vond::vondctl {

using nlohmann::ordered_json;

std::string JsonLine(const ordered_json& object) {
  return object.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + '\n';
}

void WriteJsonLine(const ordered_json& object) { std::cout << JsonLine(object); }

void AddPath(ordered_json& object, const std::string& key, const std::string& path) {
  const std::string valid = korvo::utils::ReplaceInvalidUtf8(path);
  object[key] = valid;
  if (valid != path) {
    std::ostringstream base64;
    Poco::Base64Encoder encoder(base64);
    encoder.rdbuf()->setLineLength(0);
    encoder << path;
    encoder.close();
    object[key + "_b64"] = base64.str();
  }
}

ordered_json MetadataJson(const yara_lib::MetaDataItemValue& value) {
  switch (value.value_case()) {
    case yara_lib::MetaDataItemValue::kStringValue:
      return value.string_value();
    case yara_lib::MetaDataItemValue::kIntValue:
      return value.int_value();
    case yara_lib::MetaDataItemValue::kBoolValue:
      return value.bool_value();
    case yara_lib::MetaDataItemValue::VALUE_NOT_SET:
      break;
  }
  return nullptr;
}

ordered_json RuleTypeJson(std::int32_t rule_type) {
  switch (rule_type) {
    case static_pattern_matching_proto::Block:
      return "block";
    case static_pattern_matching_proto::Allow:
      return "allow";
    default:
      return rule_type;
  }
}

}  // namespace vond::vondctl
