// The bytes of a scan request, asked of a scanner with a fixed policy about a fixed tiny file.

#include <algorithm>

#include "fuzz/fuzz_support.h"
#include "static_pattern_matching/yara_scanner.h"

namespace {

using korvo::static_pattern_matching_daemon::YaraScanner;
using static_pattern_matching_proto::ScanRequest;
using static_pattern_matching_proto::ScanResponse;
using static_pattern_matching_proto::UserConfigData;
using vond::fuzz::MakeFile;
using vond::fuzz::Require;

constexpr int kFileTypes = 2;  // both rule types are loaded for 0 and 1

YaraScanner* MakeScanner() {
  vond::fuzz::SetUp();
  const auto block = MakeFile("rule Hit { meta: id = \"1\" action = \"block\" strings: $a = \"tiny\" condition: $a }");
  const auto allow = MakeFile("rule Miss { meta: id = \"1\" action = \"allow\" condition: filesize > 9 }");
  UserConfigData document;
  document.set_yara_timeout_in_seconds(1);
  for (int i = 0; i < 2 * kFileTypes; ++i) {
    UserConfigData::RuleSetFileInfo& rule_set = *document.add_rule_sets();
    rule_set.set_file_type(i / 2);
    rule_set.set_rule_type(static_cast<static_pattern_matching_proto::RuleType>(i % 2));
    rule_set.set_fd_index(i % 2);
  }
  auto* const scanner = new YaraScanner;
  scanner->UpdateConfig(document, {block.Get(), allow.Get()});
  return scanner;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static YaraScanner* const scanner = MakeScanner();
  static const auto file = MakeFile("tiny file");
  ScanRequest request;
  if (!request.ParseFromArray(data, static_cast<int>(size))) {
    return 0;
  }
  ScanResponse response;
  Require(response.ParseFromString(scanner->ScanFile(file.Get(), request).SerializeAsString()), "the answer parses");
  for (const int rule_type : request.rule_type()) {
    Require(response.results().contains(rule_type), "every rule type asked for is answered");
  }
  for (const auto& [rule_type, entry] : response.results()) {
    Require(std::count(request.rule_type().begin(), request.rule_type().end(), rule_type) > 0, "and no other");
    const bool loaded =
        request.file_type() >= 0 && request.file_type() < kFileTypes && (rule_type == 0 || rule_type == 1);
    Require((entry.status() == static_pattern_matching_proto::ScanStatus_Success) == loaded, "what is loaded scans");
    Require(entry.result().matched_rules_size() == (loaded && rule_type == 0 ? 1 : 0), "the file matches one rule");
  }
  return 0;
}
