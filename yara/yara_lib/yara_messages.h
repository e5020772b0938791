#pragma once

#include "yara/yara_lib/proto/YaraLib.pb.h"
#include "yara/yara_lib/yara_lib.h"

namespace korvo::yara::yara_lib {

/// Writes `outcome` into `message`, which must be empty: one descriptor per match, in the order of the matches.
void ScanOutcomeToMessage(const YaraScanOutcome& outcome, ::yara_lib::YaraScanResult& message);

/// Throws YaraProtobufException when no value is set.
[[nodiscard]] YaraMetadataValue MetadataValueFromMessage(const ::yara_lib::MetaDataItemValue& message);

}  // namespace korvo::yara::yara_lib
