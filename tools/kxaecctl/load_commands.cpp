// reload and restart: load the configuration as it is on disk.
#include <string>

#include "commands.h"
#include "configuration.h"
#include "integrity.h"
#include "loaded_set.h"
#include "tool_error.h"

namespace aectool {
namespace {

// Everything is read and compiled before the loaded set is touched: an
// invalid configuration leaves the previous loaded set in force.
void LoadAll() {
  const Configuration config = Configuration::Load();
  WriteLoadedSet(CompileLoadedSet(config));
}

void LoadWhitelist() {
  const UsersAndGroups whitelist = Configuration::LoadWhitelist();
  // Without a previous set there are no rules or exceptions loaded yet, and
  // -w loads none.
  const std::string previous = ReadLoadedSet().value_or("format\t1\n");
  WriteLoadedSet(ReplaceWhitelist(previous, whitelist));
}

}  // namespace

void RunReload(const Invocation& invocation) {
  // Reload is how a configuration changed on disk is accepted (the rules
  // and exceptions policies write their files and then reload -C), so the
  // check only names what is being accepted.
  if (invocation.check) ReportIntegrity();
  if (invocation.whitelist) {
    LoadWhitelist();
  } else {
    LoadAll();
  }
  Seal();
}

void RunRestart(const Invocation&) { LoadAll(); }

}  // namespace aectool
