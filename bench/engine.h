#pragma once

#include <yara.h>

namespace vond::bench {

/// libyara's calls, of one of two libraries.
struct Engine {
  decltype(&::yr_initialize) initialize;
  decltype(&::yr_finalize) finalize;
  decltype(&::yr_compiler_create) compiler_create;
  decltype(&::yr_compiler_destroy) compiler_destroy;
  decltype(&::yr_compiler_set_callback) compiler_set_callback;
  decltype(&::yr_compiler_add_string) compiler_add_string;
  decltype(&::yr_compiler_get_rules) compiler_get_rules;
  decltype(&::yr_rules_destroy) rules_destroy;
  decltype(&::yr_rules_scan_fd) rules_scan_fd;
  decltype(&::yr_rules_scan_mem) rules_scan_mem;

  /// The one that this program, and so the daemon, is built with.
  [[nodiscard]] static const Engine& Linked();
  /// The shared library that the system has installed, which may be the same. Null where there is none. Nothing of its
  /// structures may be read: they are not those of yara.h when the versions differ.
  [[nodiscard]] static const Engine* System();
};

}  // namespace vond::bench
