#include "bench/engine.h"

#include <dlfcn.h>

#include <optional>

namespace vond::bench {
namespace {

// Whether `call` was found in `library`.
template <typename Call>
bool Find(void* library, const char* name, Call& call) {
  call = reinterpret_cast<Call>(::dlsym(library, name));
  return call != nullptr;
}

std::optional<Engine> LoadSystem() {
  // Its own calls to itself must not end in the library linked here.
  void* const library = ::dlopen("libyara.so.9", RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
  Engine engine{};
  if (library != nullptr && Find(library, "yr_initialize", engine.initialize) &&
      Find(library, "yr_finalize", engine.finalize) && Find(library, "yr_compiler_create", engine.compiler_create) &&
      Find(library, "yr_compiler_destroy", engine.compiler_destroy) &&
      Find(library, "yr_compiler_set_callback", engine.compiler_set_callback) &&
      Find(library, "yr_compiler_add_string", engine.compiler_add_string) &&
      Find(library, "yr_compiler_get_rules", engine.compiler_get_rules) &&
      Find(library, "yr_rules_destroy", engine.rules_destroy) &&
      Find(library, "yr_rules_scan_fd", engine.rules_scan_fd) &&
      Find(library, "yr_rules_scan_mem", engine.rules_scan_mem)) {
    return engine;
  }
  return std::nullopt;
}

}  // namespace

const Engine& Engine::Linked() {
  static const Engine engine{&::yr_initialize,
                             &::yr_finalize,
                             &::yr_compiler_create,
                             &::yr_compiler_destroy,
                             &::yr_compiler_set_callback,
                             &::yr_compiler_add_string,
                             &::yr_compiler_get_rules,
                             &::yr_rules_destroy,
                             &::yr_rules_scan_fd,
                             &::yr_rules_scan_mem};
  return engine;
}

const Engine* Engine::System() {
  static const std::optional<Engine> engine = LoadSystem();
  return engine ? &*engine : nullptr;
}

}  // namespace vond::bench
