#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "yara/yara_lib/compiled_rules.h"
#include "yara/yara_lib/yara_rule_set.h"

namespace korvo::yara::yara_lib {

/// libyara's settings, by libyara's numbers. All are 32-bit unsigned.
enum class YaraConfigurationName : std::int32_t {
  StackSize = 0,
  MaxStringsPerRule = 1,
  MaxMatchData = 2,
  Max = 3,  ///< end marker
};

struct YaraScanOptions {
  std::uint32_t report_private_rules = 0;  ///< flag
  std::uint32_t retries_on_match = 0;      ///< how often a scan that matched is repeated; a match must survive all
  std::uint32_t timeout_in_seconds = 0;    ///< per run, 0 is no limit; libyara looks at it only now and then
};

/// What a scan came to.
struct YaraScanOutcome {
  std::int32_t error = 0;  ///< libyara's result of the last run; anything but 0 means "not scanned"
  std::vector<std::shared_ptr<const YaraRuleRecord>> matches;  ///< of the last run, in libyara's order
  std::unordered_map<std::string, std::size_t> match_by_name;  ///< rule name to position in `matches`
};

/// libyara, initialised: holding a reference proves it. Compiles, loads and scans; failures are YaraException and its
/// kin, after an assertion line. Stateless: every method may run on several threads at once, but for
/// SetConfiguration, which changes libyara process-wide without a lock.
class YaraLib {
 public:
  /// The process's engine, made on first use (several threads may come at once) and finalised at exit. Throws
  /// YaraException when libyara fails to initialise, and again on each later call: libyara does not recover from it.
  [[nodiscard]] static YaraLib& Instance();

  YaraLib(const YaraLib&) = delete;
  YaraLib& operator=(const YaraLib&) = delete;

  /// Read and write one of libyara's process-wide settings; `value` points at a std::uint32_t. Throw std::out_of_range
  /// "config_setting" for Max and above, YaraException with libyara's code for anything libyara refuses.
  void GetConfiguration(YaraConfigurationName config_setting, void* value);
  void SetConfiguration(YaraConfigurationName config_setting, std::uint32_t value);

  /// The version of the engine's interface that this layer keeps to, not that of the library beneath.
  [[nodiscard]] static std::string_view GetVersion() noexcept { return "4.0.2"; }
  [[nodiscard]] static std::uint32_t GetVersionNumber() noexcept { return 0x40002; }

  /// Compiles the text of one rule set. Everything comes with the text: includes are off, and a zero byte, behind which
  /// libyara would not look, is an error. Warnings fail nothing here; `treat_warnings_as_errors` only counts them as
  /// errors in the exception of a compilation that failed. Throws YaraCompilationException.
  [[nodiscard]] CompiledRules Compile(const std::string& source, bool treat_warnings_as_errors);

  /// Loads compiled rules; for `id_key` and `modules` see YaraRuleSet. A buffer without bytes is reported and gives a
  /// null pointer. A damaged image throws YaraException.
  [[nodiscard]] std::shared_ptr<YaraRuleSet> Load(const CompiledRules& compiled_rules, const std::string& id_key,
                                                  const std::vector<std::string>& modules);

  /// Compile, then Load.
  [[nodiscard]] std::shared_ptr<YaraRuleSet> CompileAndLoad(const std::string& source, const std::string& id_key,
                                                            bool treat_warnings_as_errors,
                                                            const std::vector<std::string>& modules);

  /// Scans an open file, whose position is neither used nor changed, or a block of memory. A missing rule set is
  /// reported and reads as a clean scan, on purpose. A file that is cut short under the scan gives error 4 (could not
  /// map file) and no matches. Blocks as long as the scan takes. Throws what the set's observers throw.
  [[nodiscard]] YaraScanOutcome ScanFileDescriptor(const std::shared_ptr<YaraRuleSet>& rule_set, int fd,
                                                   const YaraScanOptions& options);
  [[nodiscard]] YaraScanOutcome ScanMemory(const std::uint8_t* data, std::size_t length,
                                           const std::shared_ptr<YaraRuleSet>& rule_set,
                                           const YaraScanOptions& options);

 private:
  YaraLib();
  ~YaraLib();
};

}  // namespace korvo::yara::yara_lib
