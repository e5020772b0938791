#include "agent/sandbox.h"

#include <fstream>

namespace vond::agent {

std::string SandboxVariable(const SandboxOptions& options) {
  if (options.mode == SandboxMode::kOff) {
    return {};
  }
  std::string text = options.mode == SandboxMode::kRequired ? "required" : "on";
  const auto add = [&text](const char* name, std::uint64_t value) {
    if (value != 0) {
      text += std::string(",") + name + "=" + std::to_string(value);
    }
  };
  add("memory", options.memory_limit);
  add("descriptors", options.descriptor_limit);
  add("cpu", options.cpu_seconds);
  add("uid", options.uid);
  add("gid", options.gid);
  return text + (options.magic_database ? ",magic" : "");
}

bool IsConfined(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  bool no_new_privileges = false;
  bool filtered = false;
  for (std::string line; std::getline(status, line);) {
    no_new_privileges = no_new_privileges || line == "NoNewPrivs:\t1";
    filtered = filtered || line == "Seccomp:\t2";
  }
  return no_new_privileges && filtered;
}

}  // namespace vond::agent
