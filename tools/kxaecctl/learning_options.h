// The long options of the learning commands (baseline, propose, simulate),
// which stand beside the plug-in's one-letter command table.
#pragma once

#include <map>
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

}  // namespace aectool
