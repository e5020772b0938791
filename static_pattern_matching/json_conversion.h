#pragma once

#include <google/protobuf/message.h>
#include <google/protobuf/util/json_util.h>

#include <string>

namespace korvo::static_pattern_matching_daemon {

/// Fills `message` from JSON text. Unknown keys are skipped; enum words must be spelled exactly, and a rule type that
/// is neither `Block`, `Allow` nor a number is refused like any other bad value. Returns 0, 22 for a text of nothing
/// but white space (`message` is then untouched), or the library's status code, each failure after one ERROR line.
/// Never throws for a bad document. Any thread.
[[nodiscard]] int JsonToMessage(const std::string& json, google::protobuf::Message& message);

/// Writes `message` to `json` as JSON text. Returns 0 or the library's status code after an ERROR line.
[[nodiscard]] int MessageToJson(const google::protobuf::Message& message, std::string& json,
                                const google::protobuf::util::JsonPrintOptions& options);

}  // namespace korvo::static_pattern_matching_daemon
