#pragma once

namespace korvo_common {

/// Finds the functions that libc_overrides.cc stands before, so that signal context need not. Whoever calls this also
/// has the overrides linked in, which the linker would leave out where another library's come first.
void ResolveOverriddenFunctions() noexcept;

}  // namespace korvo_common
