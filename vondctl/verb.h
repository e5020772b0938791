#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace vond::vondctl {

enum class Format { kText, kJsonLines };
enum class ColorMode { kAuto, kAlways, kNever };

/// The options that every verb takes, before its name or behind it, with the same meaning for each.
struct CommonOptions {
  Format format = Format::kText;
  ColorMode color = ColorMode::kAuto;
  bool quiet = false;  ///< neither progress nor summary
  int verbosity = 0;   ///< 1 relays the daemon's log, 2 all of it
};

/// Runs a verb whose command line has been parsed, and returns the exit status (exit_status.h).
using VerbRun = std::function<int()>;

/// One verb. CLI11's table of its options is the only one: help, completion and the manual's test go by it.
struct Verb {
  const char* name;
  const char* summary;  ///< one line for the list of verbs
  /// Adds the verb's own options and footer to `app`; `common` is filled by the time the verb runs.
  VerbRun (*add)(CLI::App& app, const CommonOptions& common);
  bool has_common_options = true;  ///< false where none of them would mean anything
};

/// All verbs, in the order in which help lists them.
[[nodiscard]] const std::vector<Verb>& Verbs();

}  // namespace vond::vondctl
