#pragma once

namespace vond::bench {

/// Why figures of this build would say nothing, or null.
constexpr const char* WhyBuildIsRefused() {
#if defined(VOND_SANITIZED) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return "a sanitizer build measures the sanitizer";
#elif !defined(__OPTIMIZE__) || !defined(NDEBUG)
  return "a debug build measures nothing of use";
#else
  return nullptr;
#endif
}

}  // namespace vond::bench
