#include "baseline_command.h"

#include <exception>

#include "commit.h"
#include "configuration.h"
#include "dpkg_database.h"
#include "integrity.h"
#include "learning_options.h"
#include "rule_edit.h"
#include "tool_error.h"
#include "tool_lock.h"

namespace aectool {
namespace {

constexpr const char* kHelp =
    "Usage: kxaecctl baseline [--admindir DIR] [--skip-dangling] [--refresh]\n"
    "                         [--check]\n"
    "\n"
    "Replaces the system rule \"system-base\" (for all users) with the\n"
    "executables, shared objects and \"#!\" scripts of every installed\n"
    "Debian package, as dpkg's database lists them, then loads and seals the\n"
    "configuration. Prints how many files it took from how many packages.\n"
    "A package without a file list, or a listed file that is a dangling\n"
    "link, is an error and nothing is written.\n"
    "\n"
    "  --admindir DIR  dpkg's database directory (default /var/lib/dpkg)\n"
    "  --skip-dangling name each dangling link on standard error and go on\n"
    "  --refresh       only replace a baseline that exists: without the\n"
    "                  system rule, change nothing, print nothing, exit 0\n"
    "  --check         refuse when the configuration differs from its seal,\n"
    "                  as -C does for the other commands\n"
    "\n"
    "The package's apt hook runs it with --refresh --check --skip-dangling\n"
    "after every package change.\n";

struct BaselineOptions {
  bool help = false;
  std::string admin_dir = kDpkgAdminDir;
  bool skip_dangling = false;
  bool refresh = false;
  bool check = false;
};

BaselineOptions ParseBaselineOptions(const std::vector<std::string>& args) {
  const LongOptions parsed = ParseLongOptions(
      args, {"--admindir"}, {"--skip-dangling", "--refresh", "--check"});
  BaselineOptions options;
  options.help = parsed.Has("--help");
  options.skip_dangling = parsed.Has("--skip-dangling");
  options.refresh = parsed.Has("--refresh");
  options.check = parsed.Has("--check");
  if (parsed.values.count("--admindir")) {
    options.admin_dir = parsed.values.at("--admindir");
  }
  return options;
}

void Baseline(const BaselineOptions& options, std::ostream& out,
              std::ostream& err) {
  const ToolLock lock;
  Configuration config = Configuration::Load();
  const AecRule* existing = config.FindRule(kBaselineRule);
  const bool ours = existing != nullptr && existing->System();
  if (options.refresh && !ours) {
    // A host that never asked for a baseline gets no system rule behind its
    // administrator's back, and the package hook stays silent there.
    return;
  }
  if (existing != nullptr && !ours) {
    // An administrator's own rule of that name is not ours to replace.
    throw ToolError(Exit::kRuleExists,
                    std::string("a rule named ") + kBaselineRule +
                        " exists and is not the system baseline",
                    {kBaselineRule});
  }
  // The commit seals everything it finds; an unattended run must not seal
  // over a hand edit nobody has vouched for.
  if (options.check) CheckIntegrity();
  // Everything is read before the configuration is touched, so a broken
  // package database leaves the rules as they were.
  const PackageFiles packages =
      ReadPackageFiles(options.admin_dir, options.skip_dangling);
  for (const auto& link : packages.dangling) {
    err << "kxaecctl: baseline: skipped the dangling link " << link << "\n";
  }
  if (packages.files.empty()) {
    throw ToolError(Exit::kResourceListEmpty,
                    "the package database lists no executable files");
  }
  RuleEdit edit = RuleEdit::New(kBaselineRule);
  edit.SetFlag(rule_key::kSystem, true);
  edit.SetFlag(rule_key::kAllAllowed, true);
  edit.SetList(rule_key::kResources, packages.files);
  config.PutRule(edit.ToRule());
  Commit(config);
  out << "baseline: " << packages.files.size() << " files from "
      << packages.contributing_packages << " packages (" << packages.packages
      << " packages read";
  if (packages.vanished != 0) {
    out << ", " << packages.vanished << " listed paths no longer exist";
  }
  out << ")\n";
}

}  // namespace

int RunBaselineCommand(const std::vector<std::string>& args, std::ostream& out,
                       std::ostream& err) {
  BaselineOptions options;
  try {
    options = ParseBaselineOptions(args);
  } catch (const ToolError& e) {
    err << "kxaecctl: baseline: " << e.what()
        << "\nTry 'kxaecctl baseline --help'.\n";
    return e.code();
  }
  if (options.help) {
    out << kHelp;
    return Exit::kSuccess;
  }
  return ReportFailures("baseline", err, [&] {
    Baseline(options, out, err);
    return static_cast<int>(Exit::kSuccess);
  });
}

}  // namespace aectool
