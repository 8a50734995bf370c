#include "commit.h"

#include <iostream>
#include <optional>

#include "integrity.h"
#include "loaded_set.h"
#include "tool_error.h"
#include "unsealed_change.h"

namespace aectool {

void Commit(Configuration& config) {
  const std::string loaded = CompileLoadedSet(config);
  RecordUnsealedChange(config.PendingPaths());
  config.Save();
  RecordUnsealedContent();
  std::optional<ToolError> load_failure;
  try {
    WriteLoadedSet(loaded);
  } catch (const ToolError& e) {
    load_failure = e;
  }
  try {
    Seal();
  } catch (const ToolError& e) {
    // The change is made (and loaded, unless load_failure says otherwise);
    // its record makes the next run seal it instead of refusing it as a
    // violation, so the run reports what it did.
    std::cerr << "kxaecctl: the change is made but not sealed yet (" << e.what()
              << "); the next change or reload seals it\n";
  }
  if (load_failure) throw *load_failure;
}

}  // namespace aectool
