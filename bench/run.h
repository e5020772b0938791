#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bench/engine.h"
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
  /// Compiles `rules` with the library linked; throws std::runtime_error if they do not compile.
  explicit RawYara(const std::string& rules) : RawYara(rules, Engine::Linked()) {}
  RawYara(const std::string& rules, const Engine& engine);
  ~RawYara();
  RawYara(const RawYara&) = delete;
  RawYara& operator=(const RawYara&) = delete;

  [[nodiscard]] PassResult Pass(const std::vector<auto_resources::ManagedFD>& files, std::size_t threads);
  /// The names of the rules that match `content`, each followed by a blank; "error <n>" if it can't be scanned. May be
  /// called from several threads.
  [[nodiscard]] std::string Verdict(std::string_view content) const;
  /// What compiling alone took.
  [[nodiscard]] double CompileSeconds() const { return compile_seconds_; }
  /// The rules about which the compiler warns that they may slow down scanning.
  [[nodiscard]] const std::vector<std::string>& SlowRules() const { return slow_rules_; }

 private:
  const Engine& engine_;
  YR_RULES* rules_ = nullptr;
  double compile_seconds_ = 0;
  std::vector<std::string> slow_rules_;
};

/// The same through the daemon, with `in_flight` requests at a time.
class Daemon {
 public:
  /// Starts vond without a policy; throws agent::Error.
  explicit Daemon(std::uint32_t workers, bool sandbox = true);
  /// Starts vond with `workers` workers and these rules; throws agent::Error.
  Daemon(const std::string& rules, std::uint32_t workers, bool sandbox = true);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  /// Throws std::runtime_error if a file was not scanned.
  [[nodiscard]] PassResult Pass(const std::vector<auto_resources::ManagedFD>& files, std::size_t in_flight);
  /// Puts a policy of one rule set in force, the content of `rule_set_fd`, and returns the seconds from the request to
  /// the answer; throws agent::Error.
  double Apply(int rule_set_fd);
  /// The bytes of the answer to a scan of `file`.
  [[nodiscard]] std::size_t AnswerBytes(const auto_resources::ManagedFD& file);
  [[nodiscard]] pid_t Pid() const;
  /// Processor time that it has used since its start.
  [[nodiscard]] double CpuSeconds() const;

 private:
  struct State;
  const std::uint32_t workers_;
  std::unique_ptr<State> state_;
};

}  // namespace vond::bench
