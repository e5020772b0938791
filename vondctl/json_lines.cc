#include "vondctl/json_lines.h"

#include <Poco/Base64Encoder.h>

#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "utils/utf8.h"

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

}  // namespace vond::vondctl
