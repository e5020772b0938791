#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace yara_lib {
class MetaDataItemValue;
}

namespace vond::vondctl {

/// `object` as one line with its newline. Bytes that are not UTF-8 become U+FFFD.
[[nodiscard]] std::string JsonLine(const nlohmann::ordered_json& object);

/// Writes `object` to standard output as JsonLine has it.
void WriteJsonLine(const nlohmann::ordered_json& object);

/// Puts a path into `object` under `key`. JSON has no way to hold one that is not UTF-8: such a path has U+FFFD in it,
/// and its true bytes stand beside it in base64 under `key` + "_b64".
void AddPath(nlohmann::ordered_json& object, const std::string& key, const std::string& path);

/// The value of a metadata item with its own type; null if there is none.
[[nodiscard]] nlohmann::ordered_json MetadataJson(const yara_lib::MetaDataItemValue& value);

/// "block", "allow", or the number of a type without a name.
[[nodiscard]] nlohmann::ordered_json RuleTypeJson(std::int32_t rule_type);

}  // namespace vond::vondctl
