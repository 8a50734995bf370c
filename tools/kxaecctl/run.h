// One run of kxaecctl, from its arguments to its exit code.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace aectool {

// Parses `args` (after the program name), prints help when asked, takes the
// tool's lock, checks integrity for -C (reload only reports it), runs the
// command and returns the exit code (0, or one of the driver's table).
// Standard output (`out`) carries only the help and, with -v, the offending
// objects one per line, so that the service can put them into replies;
// everything meant for a person goes to `err`.
int Run(const std::vector<std::string>& args, std::ostream& out,
        std::ostream& err);

}  // namespace aectool
