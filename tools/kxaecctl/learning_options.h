// The long options of the learning commands (baseline, propose, simulate),
// which stand beside the plug-in's one-letter command table.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace aectool {

struct LongOptions {
  std::map<std::string, std::string> values;  // "--since" -> "123"
  std::set<std::string> flags;                // "--apply"
  bool Has(const std::string& name) const {
    return values.count(name) != 0 || flags.count(name) != 0;
  }
};

// Parses args[1..]: each of `valued` takes the next argument as its value
// (given once), each of `flags` stands alone; "--help" is always a flag.
// Throws ToolError(kInvalidArgument) for anything else, a missing or empty
// value, or an option given twice.
LongOptions ParseLongOptions(const std::vector<std::string>& args,
                             const std::set<std::string>& valued,
                             const std::set<std::string>& flags);

// Runs `body` and turns its failures into the exit code and one line
// "kxaecctl: WORD: reason" on `err`: a ToolError's own code, anything else
// kUnknownError. Returns what `body` returns otherwise.
int ReportFailures(const std::string& word, std::ostream& err,
                   const std::function<int()>& body);

// The groups of `user` as the kernel would give its processes: the primary
// group first, then the supplementary ones. Empty for an unknown user.
std::vector<gid_t> GroupsOfUser(const std::string& user);

}  // namespace aectool
