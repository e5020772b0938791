#include "vondctl/scan_options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <system_error>

namespace vond::vondctl {
namespace {

constexpr const char* kFooter = R"(Examples:
  vondctl scan --rules rules/ /usr/bin
  vondctl scan -r block.yar --allow-rules allow.yar --exclude .git .
  vondctl scan -p policy.json --format jsonl /srv > results.jsonl
  find . -newer stamp -type f -print0 | vondctl scan -r rules/ -0 --files-from -
  curl -s https://example.org/x | vondctl scan -r rules/ -
  vondctl scan --connect /run/vond.sock /srv

Folders are walked to any depth, also those that --files-from lists. In them only regular files
count; links are not followed, and the kernel's own file systems, such as /proc, are not entered
unless named. A GLOB without a slash is held against the last part of a path, one with a slash
against the whole of it or its end; * matches slashes too. What --exclude and --include leave out is
not counted; what is larger than --max-size is skipped and counts as not scanned. Standard input is
kept in memory, at most 1G of it unless --max-size says otherwise.

Each file ends as match, clean, timeout, skipped, error or changed (its size or times moved
meanwhile); only match and clean were scanned. vondctl opens the files with its user's rights; the
daemon never sees a path. A daemon that dies or hangs is replaced, and the files it had are tried
once more; with --connect that is the relay's affair, and the policy is its owner's. With --format
jsonl a policy comes first, then the files, then a summary.

Exit status: 0 nothing matched, 1 something matched, 2 something was not scanned (whatever matched),
3 the policy was refused, 4 the daemon failed, 64 wrong usage, 130 after Ctrl-C.
)";

// For an option whose value is a number with a unit.
std::string CheckSize(const std::string& text) {
  return ParseSize(text) ? "" : "\"" + text + "\" is not a size, such as 500K, 20M or 1G";
}

std::string CheckRuleType(const std::string& word) {
  return word == "block" || word == "allow" ? "" : "\"" + word + "\" is neither block nor allow";
}

std::optional<std::uint64_t> ParseNumber(const std::string& text) {
  std::uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stopped == end ? std::optional(number) : std::nullopt;
}

// What --recursive says without a number.
constexpr const char* kAllLevels = "all";

std::string CheckDepth(const std::string& text) {
  return text == kAllLevels || ParseNumber(text) ? "" : "\"" + text + "\" is not a depth";
}

struct Parsed {
  ScanOptions options;
  std::string max_size;
  std::string depth;
};

// One value per option, so that what stands behind it stays a path.
CLI::Option* AddList(CLI::App& app, const char* names, std::vector<std::string>& values, const char* description) {
  return app.add_option(names, values, description)->allow_extra_args(false);
}

void AddSelectionOptions(CLI::App& app, ScanOptions& options) {
  app.add_option("--file-type", options.file_type, "File type whose rule sets are used (default 0)")
      ->type_name("N")
      ->group("Policy");
  app.add_option("--rule-type", options.rule_types,
                 "Which rules: block, allow, or both as block,allow (default: all there are)")
      ->delimiter(',')
      ->allow_extra_args(false)
      ->check(CLI::Validator(CheckRuleType, "", ""))
      ->type_name("block|allow")
      ->group("Policy");
}

void AddSelection(CLI::App& app, Parsed& parsed) {
  AddList(app, "--include", parsed.options.include, "Only files that match GLOB; may be repeated")
      ->type_name("GLOB")
      ->group("Files");
  AddList(app, "--exclude", parsed.options.exclude, "Neither files nor folders that match GLOB; may be repeated")
      ->type_name("GLOB")
      ->group("Files");
  app.add_option("--max-size", parsed.max_size, "Skip larger files; with K, M or G behind it for larger units")
      ->check(CLI::Validator(CheckSize, "", ""))
      ->type_name("SIZE")
      ->group("Files");
}

void AddFileOptions(CLI::App& app, Parsed& parsed) {
  ScanOptions& options = parsed.options;
  app.add_option("PATH", options.paths, "Files and folders to scan; - is standard input")->type_name("");
  app.add_option("--files-from", options.files_from, "Also scan what FILE lists, one path a line; - is standard input")
      ->type_name("FILE")
      ->group("Files");
  app.add_flag("-0,--null", options.zero_terminated, "The paths in --files-from end in zero bytes, not newlines")
      ->group("Files");
  app.add_option("-R,--recursive", parsed.depth,
                 "Walk folders N levels deep, 0 is a folder's own files (default, and without N: all levels)")
      ->expected(0, 1)
      ->default_str(kAllLevels)
      ->check(CLI::Validator(CheckDepth, "", ""))
      ->type_name("N")
      ->group("Files");
  AddSelection(app, parsed);
  app.add_flag("--one-file-system", options.one_file_system, "Stay on the file system of each PATH")->group("Files");
  app.add_flag("--follow", options.follow, "Follow symbolic links in folders; each folder is entered once")
      ->group("Files");
}

void AddRunOptions(CLI::App& app, ScanOptions& options) {
  app.add_option("--max-errors", options.max_errors, "Stop after N files that failed or timed out")
      ->check(CLI::Validator(CheckPositive, "", ""))
      ->type_name("N")
      ->group("Run");
  app.add_option("--deadline", options.deadline_in_seconds,
                 "Seconds that one file may take before the daemon counts as hung and is replaced (default: what the "
                 "time-outs add up to, and 60 more)")
      ->check(CLI::Validator(CheckPositive, "", ""))
      ->type_name("SECONDS")
      ->group("Run");
  app.add_option("--vond", options.executable, "Path of the daemon's program")->type_name("FILE")->group("Run");
  AddSandboxOptions(app, options.sandbox, "Run");
}

// Behind all the options that it makes meaningless.
void AddConnectOption(CLI::App& app, ScanOptions& options) {
  auto* const connect =
      app.add_option("--connect", options.connect,
                     "Scan with the daemon of the \"vondctl start\" that listens at SOCKET, and its policy");
  connect->type_name("SOCKET")->group("Run");
  for (const char* const name : {"--policy", "--rules", "--allow-rules", "--jobs", "--timeout", "--confirm", "--vond",
                                 "--no-sandbox", "--require-sandbox"}) {
    connect->excludes(app.get_option(name));
  }
}

void AddResultOptions(CLI::App& app, ScanOptions& options) {
  app.add_flag("--all", options.all, "Report clean files too")->group("Results");
  app.add_flag("-c,--count", options.count, "Print only how many files ended in which way")->group("Results");
  app.add_flag("--meta", options.meta, "Show the metadata of the rules that matched")->group("Results");
  app.add_flag("--tags", options.tags, "Show the tags of the rules that matched")->group("Results");
  app.add_flag("--private", options.private_rules, "Private rules count as matches and are shown")->group("Results");
  app.add_option("--report", options.report, "Write the results as JSON Lines into FILE too, complete or not at all")
      ->type_name("FILE")
      ->group("Results");
}

// What parsing alone does not see.
void Complete(Parsed& parsed) {
  ScanOptions& options = parsed.options;
  if (options.paths.empty() && options.files_from.empty()) {
    throw CLI::RequiredError("PATH");
  }
  if (options.connect.empty()) {
    RequirePolicy(options);
  }
  const auto from_stdin = std::count(options.paths.begin(), options.paths.end(), "-");
  if (from_stdin + (options.files_from == "-" ? 1 : 0) > 1) {
    throw CLI::ValidationError("-", "standard input can be read only once");
  }
  if (options.zero_terminated && options.files_from.empty()) {
    throw CLI::RequiresError("--null", "--files-from");
  }
  options.max_size = ParseSize(parsed.max_size).value_or(0);
  if (const auto depth = ParseNumber(parsed.depth)) {
    options.max_depth = *depth;
  }
}

}  // namespace

std::optional<std::uint64_t> ParseSize(const std::string& text) {
  unsigned shift = 0;
  std::string digits = text;
  if (!digits.empty()) {
    switch (digits.back()) {
      case 'K':
      case 'k':
        shift = 10;
        break;
      case 'M':
      case 'm':
        shift = 20;
        break;
      case 'G':
      case 'g':
        shift = 30;
        break;
      default:
        break;
    }
    if (shift != 0) {
      digits.pop_back();
    }
  }
  const auto number = ParseNumber(digits);
  if (!number || *number == 0 || *number > std::numeric_limits<std::uint64_t>::max() >> shift) {
    return std::nullopt;
  }
  return *number << shift;
}

std::shared_ptr<const ScanOptions> AddScanOptions(CLI::App& app) {
  const auto parsed = std::make_shared<Parsed>();
  AddPolicyOptions(app, parsed->options);
  AddSelectionOptions(app, parsed->options);
  AddFileOptions(app, *parsed);
  AddRunOptions(app, parsed->options);
  AddConnectOption(app, parsed->options);
  AddResultOptions(app, parsed->options);
  app.footer(kFooter);
  app.parse_complete_callback([parsed] { Complete(*parsed); });
  return {parsed, &parsed->options};
}

std::shared_ptr<const ScanOptions> AddScanOptionsForWatch(CLI::App& app, std::function<void()> complete) {
  const auto parsed = std::make_shared<Parsed>();
  AddPolicyOptions(app, parsed->options);
  app.add_option("PATH", parsed->options.paths, "Folders to watch, with all that is below them")
      ->required()
      ->type_name("");
  AddSelection(app, *parsed);
  AddRunOptions(app, parsed->options);
  AddResultOptions(app, parsed->options);
  app.parse_complete_callback([parsed, complete = std::move(complete)] {
    RequirePolicy(parsed->options);
    parsed->options.max_size = ParseSize(parsed->max_size).value_or(0);
    complete();
  });
  return {parsed, &parsed->options};
}

}  // namespace vond::vondctl
