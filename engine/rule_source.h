// The loaded set as the engine's tables take it: the file written by
// kxaecctl (/opt/korvex/var/lib/aec/loaded-rules), read with the model
// library's one reader.
#pragma once

#include <string>

#include "tables.h"

namespace aec {
struct LoadedSet;
}

namespace aec::engine {

extern const char kLoadedSetPath[]; // "/opt/korvex/var/lib/aec/loaded-rules"

// The rule set a loaded set describes (numeric ids; paths as given). Takes
// the set by value: a caller done with it moves it in and no path is
// copied.
RuleSetInput InputFromLoadedSet(aec::LoadedSet set);

// Reads and parses the file. False, with the reason, when it is missing or
// does not parse; *input is untouched then.
bool ReadRuleSetFile(const std::string &path, RuleSetInput *input,
                     std::string *why);

} // namespace aec::engine
