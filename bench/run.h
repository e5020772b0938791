#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "utils/managed_fd.h"

namespace vond::bench {

/// What one pass over all files came to.
struct PassResult {
  double seconds = 0;
  std::size_t matches = 0;
};

/// Scans every file once with raw libyara on `threads` threads: load the rules once, one yr_rules_scan_fd a file.
class RawYara {
 public:
  /// Compiles `rules`; throws std::runtime_error if they do not compile.
  explicit RawYara(const std::string& rules);
  ~RawYara();
  RawYara(const RawYara&) = delete;
  RawYara& operator=(const RawYara&) = delete;

  [[nodiscard]] PassResult Pass(const std::vector<auto_resources::ManagedFD>& files, std::size_t threads);
  /// The names of the rules that match `content`, each followed by a blank; "error <n>" if it can't be scanned. May be
  /// called from several threads.
  [[nodiscard]] std::string Verdict(std::string_view content) const;

 private:
  struct Rules;
  std::unique_ptr<Rules> rules_;
};

/// The same through the daemon, with `in_flight` requests at a time.
class Daemon {
 public:
  /// Starts vond with `workers` workers and these rules; throws agent::Error.
  Daemon(const std::string& rules, std::uint32_t workers);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  /// Throws std::runtime_error if a file was not scanned.
  [[nodiscard]] PassResult Pass(const std::vector<auto_resources::ManagedFD>& files, std::size_t in_flight);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vond::bench
