// kxaecctl simulate: what hard mode would have denied.
//
// Before the switch to hard mode an administrator wants to know what it
// would stop. simulate replays the journal's program starts, library loads
// and file opens of a period (events 1050 to 1055, permitted and denied
// alike) against the rules in force now, or the rule files of another
// directory, with the engine's own decision function (aec::engine::Decide,
// the one kxaecd answers the kernel with) in hard mode, and prints what
// would be denied grouped by program and user, with counts.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace aectool {

// The exit code when something would be denied. Outside the plug-in's
// table: the plug-in never runs simulate.
inline constexpr int kWouldDeny = 26;

// Runs `kxaecctl simulate ARGS...` (args[0] is "simulate"); returns the exit
// code: 0 when nothing would be denied, kWouldDeny when something would,
// a ToolError code on failure.
int RunSimulateCommand(const std::vector<std::string>& args, std::ostream& out,
                       std::ostream& err);

}  // namespace aectool
