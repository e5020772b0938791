#include "vondctl/unpack_command.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "vondctl/announcer.h"
#include "vondctl/exit_status.h"
#include "vondctl/json_lines.h"
#include "vondctl/output_file.h"
#include "vondctl/policy_source.h"
#include "vondctl/rule_file.h"

namespace vond::vondctl {
namespace {

constexpr const char* kFooter =
    "A packed file comes out whole or not at all. One that is not packed comes out as it is.\n"
    "\n"
    "Examples:\n"
    "  vondctl unpack rules.pack | less\n"
    "  vondctl unpack rules.pack -o rules.yar\n"
    "\n"
    "Exit status: 0 done, 2 the output could not be written, 3 the file is unreadable or damaged,\n"
    "64 wrong usage.\n";

struct UnpackArguments {
  std::string file;
  std::string output = "-";
};

int RunUnpack(const UnpackArguments& arguments, const CommonOptions& common) {
  const bool json = common.format == Format::kJsonLines;
  if (arguments.output == "-" && json) {
    Complain("--format jsonl writes to standard output, so -o must name a file");
    return kUsage;
  }
  try {
    const LoadedRuleFile file = LoadRuleFile(arguments.file);
    WriteOutputFile(arguments.output, file.source);
    if (json) {
      nlohmann::ordered_json line{{"type", "unpack"}};
      AddPath(line, "file", arguments.output);
      line["form"] = file.is_packed ? "packed" : "plain";
      line["bytes"] = file.content.size();
      line["text_bytes"] = file.source.size();
      line["text_sha256"] = Sha256(file.source);
      WriteJsonLine(line);
    }
    return kClean;
  } catch (const PolicyError& e) {
    const Announcer announcer(common);
    for (const Problem& problem : e.Problems()) {
      announcer.Say(problem);
    }
    return kPolicyRefused;
  } catch (const std::runtime_error& e) {
    Complain(fmt::format("nothing was written: {}", e.what()));
    return kNotScanned;
  }
}

}  // namespace

VerbRun AddUnpackCommand(CLI::App& app, const CommonOptions& common) {
  const auto arguments = std::make_shared<UnpackArguments>();
  app.add_option("-o,--output", arguments->output, "The file to write (default: standard output)")->type_name("FILE");
  app.add_option("FILE", arguments->file, "A packed rule file; - is standard input")->required()->type_name("");
  app.footer(kFooter);
  return [arguments, &common] { return RunUnpack(*arguments, common); };
}

}  // namespace vond::vondctl
