#include "vondctl/adopt_command.h"
#include "vondctl/bench_command.h"
#include "vondctl/check_command.h"
#include "vondctl/completion_command.h"
#include "vondctl/diff_command.h"
#include "vondctl/help_command.h"
#include "vondctl/inspect_command.h"
#include "vondctl/pack_command.h"
#include "vondctl/policy_command.h"
#include "vondctl/scan_command.h"
#include "vondctl/start_command.h"
#include "vondctl/status_command.h"
#include "vondctl/unpack_command.h"
#include "vondctl/verb.h"
#include "vondctl/watch_command.h"

namespace vond::vondctl {

const std::vector<Verb>& Verbs() {
  static const std::vector<Verb> verbs{
      {"scan", "Start a private daemon and scan files and folders with it", &AddScanCommand},
      {"start", "Keep a daemon alive and relay the scans of others to it", &AddStartCommand},
      {"status", "Show what a running \"vondctl start\" does", &AddStatusCommand},
      {"watch", "Scan files as they are closed after writing", &AddWatchCommand},
      {"check", "Tell what the daemon would say of rule files, and what it would not", &AddCheckCommand},
      {"explain", "Explain the code of a problem", &AddExplainCommand},
      {"policy", "Check a policy file, or show what a scan with it would send", &AddPolicyCommand},
      {"adopt", "Make a public rule set one that the daemon takes", &AddAdoptCommand},
      {"pack", "Make one file that the daemon takes from many rule files", &AddPackCommand},
      {"unpack", "Print the source in a packed rule file", &AddUnpackCommand},
      {"inspect", "Say what rule files hold", &AddInspectCommand},
      {"diff", "Compare two rule sets, rule by rule", &AddDiffCommand},
      {"bench", "Measure vond beside libyara on your own rules and files", &AddBenchCommand},
      {"completion", "Print what makes a shell complete vondctl's command lines", &AddCompletionCommand, false},
      {"help", "Show the help of a verb", &AddHelpCommand, false},
  };
  return verbs;
}

}  // namespace vond::vondctl
