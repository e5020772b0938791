// Preloaded into vond: std::thread::hardware_concurrency, by its mangled name, which then says what VOND_PROCESSORS
// does.

#include <cstdlib>

extern "C" __attribute__((visibility("default"))) unsigned _ZNSt6thread20hardware_concurrencyEv() {
  const char* const processors = std::getenv("VOND_PROCESSORS");
  return processors == nullptr ? 4 : static_cast<unsigned>(std::atoi(processors));
}
