#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <functional>

#include "tests/support/test_support.h"
#include "yara/yara_lib/yara_exceptions.h"
#include "yara/yara_lib/yara_lib.h"

// What the tests of the engine and of the policy share.
namespace korvo::yara::yara_lib {

/// The assertion line of a site in yara/yara_lib/<file>.
inline std::string Line(const std::string& line, const std::string& condition, const std::string& text,
                        const std::string& file = "yara_lib") {
  return "Line " + line + " @ yara/yara_lib/" + file + " *** Assertion '((" + condition + "))' failed *** " + text +
         "\n";
}

/// The text of what `action` throws, with the code of a YaraException; "" for nothing.
inline std::string Thrown(const std::function<void()>& action) {
  try {
    action();
  } catch (const YaraException& e) {
    return std::string(e.what()) + " " + std::to_string(e.error);
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

/// Expects `action` to write exactly `written` to standard error, and to throw `thrown`.
inline void ExpectReport(const std::string& written, const std::string& thrown, const std::function<void()>& action) {
  std::string what;
  EXPECT_EQ(vond::test::CaptureOutput(STDERR_FILENO, [&] { what = Thrown(action); }), written);
  EXPECT_EQ(what, thrown) << written;
}

inline std::shared_ptr<YaraRuleSet> LoadRules(const std::string& source, const std::vector<std::string>& modules = {}) {
  return YaraLib::Instance().CompileAndLoad(source, "id", false, modules);
}

/// "error <n> " if the scan failed, then the names of the matched rules, separated by blanks.
inline std::string Summary(const YaraScanOutcome& outcome) {
  std::string text = outcome.error == 0 ? "" : "error " + std::to_string(outcome.error);
  for (const auto& rule : outcome.matches) {
    text += (text.empty() ? "" : " ") + rule->name;
  }
  return text;
}

inline std::string ScanText(const std::shared_ptr<YaraRuleSet>& rule_set, const std::string& content,
                            const YaraScanOptions& options = {}) {
  const auto* const data = reinterpret_cast<const std::uint8_t*>(content.data());
  return Summary(YaraLib::Instance().ScanMemory(data, content.size(), rule_set, options));
}

/// Whether a scan holds a file of MakeFile in memory.
inline bool IsTestFileMapped() {
  std::ifstream maps("/proc/self/maps");
  return std::string(std::istreambuf_iterator<char>(maps), {}).find("memfd:test") != std::string::npos;
}

/// Hands every event on as text: what happened, and the rule's index or the module's name.
class Observer : public IYaraRuleSetObserver {
 public:
  explicit Observer(std::function<void(const std::string&)> on_event) : on_event_(std::move(on_event)) {}
  void OnRuleEnabled(std::size_t index) override { on_event_("enabled " + std::to_string(index)); }
  void OnRuleDisabled(std::size_t index) override { on_event_("disabled " + std::to_string(index)); }
  void OnRuleMatchedNotReported(std::size_t index) override { on_event_("kept back " + std::to_string(index)); }
  void OnRuleMatchedReported(std::size_t index) override { on_event_("reported " + std::to_string(index)); }
  void OnModuleImported(const std::string& name, const void*, std::size_t, bool allowed) override {
    on_event_((allowed ? "allowed " : "refused ") + name);
  }

 private:
  std::function<void(const std::string&)> on_event_;
};

}  // namespace korvo::yara::yara_lib
