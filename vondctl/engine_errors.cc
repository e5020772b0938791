#include "vondctl/engine_errors.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace vond::vondctl {
namespace {

struct Words {
  int code;
  const char* text;
};

// The codes of libyara that a scan can end with; the compiler's never get this far.
constexpr std::array<Words, 14> kWords{{
    {1, "the engine ran out of memory"},
    {3, "the engine could not open the file"},
    {4, "the file could not be read, or was cut short while it was scanned"},
    {25, "a rule's condition is nested too deeply for the engine's stack"},
    {27, "too many scans use the rules at once"},
    {28, "taking up the results failed in vond; its log says more"},
    {29, "the engine was called with a wrong argument"},
    {30, "a string of the rules occurs too often in it"},
    {31, "the engine met an error of its own"},
    {46, "a regular expression of the rules branches too often on it"},
    {52, "a number in a rule's condition grew too large on it"},
    {55, "the engine could not read the file"},
    {61, "part of the file was not there to be read"},
    {65, "a string of the rules is too slow on it"},
}};

}  // namespace

std::string EngineErrorText(int code, std::uint32_t timeout_in_seconds) {
  if (code == kEngineTimeout) {
    return fmt::format("the scan took longer than {} s", timeout_in_seconds);
  }
  const auto* const words =
      std::find_if(kWords.begin(), kWords.end(), [code](const Words& entry) { return entry.code == code; });
  return words != kWords.end() ? words->text : fmt::format("the engine failed with error {}", code);
}

}  // namespace vond::vondctl
