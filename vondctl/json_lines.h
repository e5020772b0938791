#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace vond::vondctl {

/// Writes `object` to standard output as one line. Bytes that are not UTF-8 become U+FFFD.
void WriteJsonLine(const nlohmann::ordered_json& object);

/// Puts a path into `object` under `key`. JSON has no way to hold one that is not UTF-8: such a path has U+FFFD in it,
/// and its true bytes stand beside it in base64 under `key` + "_b64".
void AddPath(nlohmann::ordered_json& object, const std::string& key, const std::string& path);

}  // namespace vond::vondctl
