#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace vond::vondctl {

/// `object` as one line with its newline. Bytes that are not UTF-8 become U+FFFD.
[[nodiscard]] std::string JsonLine(const nlohmann::ordered_json& object);

/// Writes `object` to standard output as JsonLine has it.
void WriteJsonLine(const nlohmann::ordered_json& object);

/// Puts a path into `object` under `key`. JSON has no way to hold one that is not UTF-8: such a path has U+FFFD in it,
/// and its true bytes stand beside it in base64 under `key` + "_b64".
void AddPath(nlohmann::ordered_json& object, const std::string& key, const std::string& path);

}  // namespace vond::vondctl
