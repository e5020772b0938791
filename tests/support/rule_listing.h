#pragma once

#include <optional>
#include <string>

#include "yara/yara_source/yara_source.h"

namespace vond::test {

/// What libyara makes of a source, one line for each module and each rule: its flags, name, tags and metadata, in
/// order. Nothing if it does not compile.
[[nodiscard]] std::optional<std::string> ListingByCompiler(const std::string& source);

/// The same lines from an index of the source.
[[nodiscard]] std::string ListingByIndex(const yara_source::SourceIndex& index);

}  // namespace vond::test
