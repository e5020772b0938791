#include "yara/yara_lib/yara_messages.h"

#include "yara/yara_lib/yara_exceptions.h"

namespace korvo::yara::yara_lib {
namespace {

struct ValueWriter {
  ::yara_lib::MetaDataItemValue& message;

  void operator()(const std::string& text) const { message.set_string_value(text); }
  void operator()(std::int64_t integer) const { message.set_int_value(integer); }
  void operator()(bool flag) const { message.set_bool_value(flag); }
};

void RuleToMessage(const YaraRuleInfo& rule, ::yara_lib::YaraRuleDescriptor& descriptor) {
  descriptor.set_name(rule.name);
  descriptor.set_is_private_rule(rule.is_private_rule);
  for (const std::string& tag : rule.tags) {
    descriptor.add_tags(tag);
  }
  for (const YaraMetadataItem& item : rule.metadata) {
    ::yara_lib::YaraRuleMetadataItem& metadata_item = *descriptor.add_metadata_items();
    metadata_item.set_key(item.key);
    std::visit(ValueWriter{*metadata_item.mutable_value()}, item.value);
  }
}

}  // namespace

std::string SerializeMatch(const YaraRuleInfo& rule) {
  ::yara_lib::YaraScanResult part;
  RuleToMessage(rule, *part.add_matched_rules());
  return part.SerializeAsString();
}

std::string SerializeOutcome(const YaraScanOutcome& outcome) {
  ::yara_lib::YaraScanResult head;
  head.set_error(outcome.error);
  std::string bytes = head.SerializeAsString();
  for (const auto& rule : outcome.matches) {
    bytes += rule->SerializedMatch();  // messages one after the other are one message with the fields of all
  }
  return bytes;
}

YaraMetadataValue MetadataValueFromMessage(const ::yara_lib::MetaDataItemValue& message) {
  switch (message.value_case()) {
    case ::yara_lib::MetaDataItemValue::kStringValue:
      return message.string_value();
    case ::yara_lib::MetaDataItemValue::kIntValue:
      return std::int64_t{message.int_value()};
    case ::yara_lib::MetaDataItemValue::kBoolValue:
      return message.bool_value();
    case ::yara_lib::MetaDataItemValue::VALUE_NOT_SET:
      break;
  }
  throw YaraProtobufException();
}

}  // namespace korvo::yara::yara_lib
