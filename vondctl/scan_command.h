#pragma once

#include <functional>
#include <memory>
#include <string>

#include "vondctl/file_walker.h"
#include "vondctl/report.h"
#include "vondctl/scan_options.h"
#include "vondctl/verb.h"

namespace vond::vondctl {

/// vondctl scan: starts a private daemon, sends it the policy, scans, reports.
[[nodiscard]] VerbRun AddScanCommand(CLI::App& app, const CommonOptions& common);

/// A source whose end is a signal. What is there when that comes is scanned, then the run is complete.
class LiveSource : public FileSource {
 public:
  /// A file has matches; `json_line` is its line of the results.
  virtual void OnMatch(const std::string& json_line) = 0;
  /// The last file is done. Adds to the summary; may take a few seconds.
  virtual void OnEnd(RunSummary& summary) = 0;
};

/// Makes the source before the daemon is started. May throw std::system_error.
using MakeLiveSource = std::function<std::unique_ptr<LiveSource>(const WalkOptions& options)>;

/// Scans with a private daemon what `options` name, or what `make_live` has if it is not empty, and reports. Returns
/// the exit status.
[[nodiscard]] int RunScan(const ScanOptions& options, const CommonOptions& common, const MakeLiveSource& make_live);

}  // namespace vond::vondctl
