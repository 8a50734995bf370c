// kxaecctl baseline: the system rule that lets the operating system run.
//
// In hard mode only what a rule allows may start or be loaded, so without a
// rule for the installed packages the first switch to hard mode stops the
// shell, the package manager and every daemon. The baseline is one system
// rule, kBaselineRule, for all users, holding the executables, shared
// objects and "#!" scripts of every installed Debian package as dpkg's
// database lists them. It is rebuilt whole on each run (the package hook
// runs it after every package change) and committed as any other change:
// written atomically, loaded and sealed.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace aectool {

inline constexpr const char* kBaselineRule = "system-base";

// Runs `kxaecctl baseline ARGS...` (args[0] is "baseline"); returns the exit
// code. Options: --admindir DIR (dpkg's database, default /var/lib/dpkg),
// --skip-dangling (a dangling link is named on `err` and left out instead
// of refusing), --refresh (only when the system rule exists already:
// otherwise nothing is read, written or printed and the run succeeds),
// --check (the configuration must match its seal first, as with -C),
// --help.
int RunBaselineCommand(const std::vector<std::string>& args, std::ostream& out,
                       std::ostream& err);

}  // namespace aectool
