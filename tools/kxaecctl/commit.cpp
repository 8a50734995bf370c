#include "commit.h"

#include <optional>

#include "integrity.h"
#include "loaded_set.h"
#include "tool_error.h"

namespace aectool {

void Commit(Configuration& config) {
  const std::string loaded = CompileLoadedSet(config);
  config.Save();
  std::optional<ToolError> load_failure;
  try {
    WriteLoadedSet(loaded);
  } catch (const ToolError& e) {
    load_failure = e;
  }
  Seal();
  if (load_failure) throw *load_failure;
}

}  // namespace aectool
