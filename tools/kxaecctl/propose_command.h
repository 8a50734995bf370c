// kxaecctl propose: rules learned from what soft mode would have denied.
//
// Soft mode lets everything run but journals what the rules deny (success
// 0). Those denials are what hard mode would stop, so they are the rules an
// administrator is missing. propose reads the denied program starts (event
// 1051) and library loads (1053), groups them by program and by the users
// who ran it, adds what each program loads as `add` does, and prints each
// proposal as a rule document. With --apply each is added through `add`.
//
// Never proposed: anything for a whitelisted user or group, a program or
// library among the resource exceptions, a user the account database does
// not know, or what an enabled rule already allows the user (so a second
// run after --apply proposes nothing). Denied opens of files (1055) are
// never proposed: such a file belongs to an extended rule of other users.
// A proposal that adds to an existing rule says so on standard error.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace aectool {

// Name of a rule learned for the program at `path`: "learned-" and the
// file name, characters other than letters, digits, ".", "_" and "-"
// replaced by "-".
std::string LearnedRuleName(const std::string& path);

// Runs `kxaecctl propose ARGS...` (args[0] is "propose"); returns the exit
// code.
int RunProposeCommand(const std::vector<std::string>& args, std::ostream& out,
                      std::ostream& err);

}  // namespace aectool
