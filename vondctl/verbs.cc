#include "vondctl/scan_command.h"
#include "vondctl/verb.h"

namespace vond::vondctl {

const std::vector<Verb>& Verbs() {
  static const std::vector<Verb> verbs{
      {"scan", "Start a private daemon and scan files and folders with it", &AddScanCommand},
  };
  return verbs;
}

}  // namespace vond::vondctl
