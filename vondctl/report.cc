#include "vondctl/report.h"

#include <fmt/format.h>
#include <unistd.h>

#include <iostream>
#include <nlohmann/json.hpp>

#include "vondctl/text.h"

namespace vond::vondctl {
namespace {

using nlohmann::ordered_json;
using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kProgressInterval{200};

const char* OutcomeName(Outcome outcome) {
  switch (outcome) {
    case Outcome::kMatch:
      return "match";
    case Outcome::kClean:
      return "clean";
    case Outcome::kTimeout:
      return "timeout";
    case Outcome::kSkipped:
      return "skipped";
    case Outcome::kError:
      return "error";
    case Outcome::kChanged:
      return "changed";
  }
  return "error";
}

// "block", "allow", or the number of a type without a name.
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

ordered_json ValueJson(const yara_lib::MetaDataItemValue& value) {
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

ordered_json MatchJson(const Match& match) {
  ordered_json id;
  ordered_json action;
  ordered_json meta = ordered_json::array();
  for (const auto& item : match.rule.metadata_items()) {
    if (item.key() == "id") {  // of several the last one counts, as for the daemon
      id = ValueJson(item.value());
    } else if (item.key() == "action") {
      action = ValueJson(item.value());
    } else {
      meta.push_back({{"key", item.key()}, {"value", ValueJson(item.value())}});
    }
  }
  ordered_json tags = ordered_json::array();
  for (const std::string& tag : match.rule.tags()) {
    tags.push_back(tag);
  }
  return {{"rule", match.rule.name()},
          {"rule_type", RuleTypeJson(match.rule_type)},
          {"id", id},
          {"action", action},
          {"tags", tags},
          {"private", match.rule.is_private_rule()},
          {"meta", meta}};
}

ordered_json FileJson(const FileReport& file) {
  ordered_json json = {
      {"type", "file"}, {"path", file.path}, {"size", file.size}, {"outcome", OutcomeName(file.outcome)}};
  if (file.engine_error) {
    json["engine_error"] = *file.engine_error;
  }
  if (!file.error.empty()) {
    json["error"] = file.error;
  }
  if (!file.matches.empty()) {
    ordered_json matches = ordered_json::array();
    for (const Match& match : file.matches) {
      matches.push_back(MatchJson(match));
    }
    json["matches"] = matches;
  }
  return json;
}

void WriteJson(const ordered_json& json) {
  // Paths may hold any bytes; JSON may not.
  std::cout << json.dump(-1, ' ', false, ordered_json::error_handler_t::replace) << '\n';
}

std::string JsonAsText(const ordered_json& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

}  // namespace

Reporter::Reporter(const Options& options)
    : options_(options),
      show_progress_(!options.quiet && ::isatty(STDERR_FILENO) == 1),
      start_(steady_clock::now()),
      last_progress_(start_) {}

void Reporter::Policy(const std::vector<RuleSetCount>& rule_sets) const {
  if (options_.format == Format::kJsonLines) {
    ordered_json sets = ordered_json::array();
    for (const RuleSetCount& set : rule_sets) {
      sets.push_back({{"file_type", set.file_type}, {"rule_type", RuleTypeJson(set.rule_type)}, {"rules", set.rules}});
    }
    WriteJson({{"type", "policy"}, {"rule_sets", sets}});
    return;
  }
  for (const RuleSetCount& set : rule_sets) {
    if (!options_.quiet) {
      std::cerr << fmt::format("{} {} rules for file type {}\n", set.rules, JsonAsText(RuleTypeJson(set.rule_type)),
                               set.file_type);
    }
  }
}

void Reporter::File(const FileReport& file) {
  ++counts_[static_cast<std::size_t>(file.outcome)];
  bytes_ += file.size;
  if (file.outcome != Outcome::kClean || options_.all) {
    ClearProgress();
    if (options_.format == Format::kJsonLines) {
      WriteJson(FileJson(file));
    } else {
      FileAsText(file);
    }
    std::cout.flush();
  }
  ShowProgress();
}

void Reporter::FileAsText(const FileReport& file) {
  const std::string path = EscapeForTerminal(file.path);
  for (const Match& match : file.matches) {
    const ordered_json json = MatchJson(match);
    std::string line =
        fmt::format("{}: {} ({}, id {}, action {}", path, match.rule.name(), JsonAsText(json["rule_type"]),
                    EscapeForTerminal(JsonAsText(json["id"])), EscapeForTerminal(JsonAsText(json["action"])));
    if (!match.rule.tags().empty()) {
      line += ", tags " + fmt::format("{}", fmt::join(match.rule.tags(), " "));
    }
    std::cout << line << ")\n";
  }
  if (file.outcome == Outcome::kClean) {
    std::cout << path << ": clean\n";
  } else if (file.outcome != Outcome::kMatch) {
    std::cout << path << ": NOT SCANNED (" << OutcomeName(file.outcome) << "): " << EscapeForTerminal(file.error)
              << '\n';
  }
}

bool Reporter::AnyNotScanned() const {
  return Count(Outcome::kTimeout) + Count(Outcome::kSkipped) + Count(Outcome::kError) + Count(Outcome::kChanged) > 0;
}

bool Reporter::Summary(int exit_status) {
  ClearProgress();
  std::size_t files = 0;
  for (const std::size_t count : counts_) {
    files += count;
  }
  const double seconds = std::chrono::duration<double>(steady_clock::now() - start_).count();
  if (options_.format == Format::kJsonLines) {
    WriteJson({{"type", "summary"},
               {"files", files},
               {"match", Count(Outcome::kMatch)},
               {"clean", Count(Outcome::kClean)},
               {"timeout", Count(Outcome::kTimeout)},
               {"skipped", Count(Outcome::kSkipped)},
               {"error", Count(Outcome::kError)},
               {"changed", Count(Outcome::kChanged)},
               {"bytes", bytes_},
               {"seconds", static_cast<double>(static_cast<std::int64_t>(seconds * 1000)) / 1000},
               {"exit", exit_status}});
  } else if (!options_.quiet) {
    std::cerr << fmt::format(
        "{} files ({:.1f} MB) in {:.1f} s: {} matched, {} clean, {} timed out, {} skipped, {} failed, {} changed\n",
        files, static_cast<double>(bytes_) / 1e6, seconds, Count(Outcome::kMatch), Count(Outcome::kClean),
        Count(Outcome::kTimeout), Count(Outcome::kSkipped), Count(Outcome::kError), Count(Outcome::kChanged));
  }
  return static_cast<bool>(std::cout.flush());
}

void Reporter::ShowProgress() {
  const auto now = steady_clock::now();
  if (!show_progress_ || now - last_progress_ < kProgressInterval) {
    return;
  }
  last_progress_ = now;
  std::size_t files = 0;
  for (const std::size_t count : counts_) {
    files += count;
  }
  std::cerr << fmt::format("\r\033[K{} files, {:.0f} MB, {} matched", files, static_cast<double>(bytes_) / 1e6,
                           Count(Outcome::kMatch))
            << std::flush;
  progress_shown_ = true;
}

void Reporter::ClearProgress() {
  if (progress_shown_) {
    std::cerr << "\r\033[K" << std::flush;
    progress_shown_ = false;
  }
}

}  // namespace vond::vondctl
