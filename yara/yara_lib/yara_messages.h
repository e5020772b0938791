#pragma once

#include <string>

#include "yara/yara_lib/proto/YaraLib.pb.h"
#include "yara/yara_lib/yara_lib.h"

namespace korvo::yara::yara_lib {

/// What a match of `rule` adds to a serialized YaraScanResult.
[[nodiscard]] std::string SerializeMatch(const YaraRuleInfo& rule);

/// `outcome` as a serialized YaraScanResult: one descriptor per match, in the order of the matches.
[[nodiscard]] std::string SerializeOutcome(const YaraScanOutcome& outcome);

/// Throws YaraProtobufException when no value is set.
[[nodiscard]] YaraMetadataValue MetadataValueFromMessage(const ::yara_lib::MetaDataItemValue& message);

}  // namespace korvo::yara::yara_lib
