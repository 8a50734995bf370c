// Finishing a change of the configuration.
#pragma once

#include "configuration.h"

namespace aectool {

// Compiles the changed configuration (so nothing is written when it could
// not be loaded), writes its files, loads it and seals the checksum
// database over the result. Throws ToolError: the compile's codes (4, 5,
// 25) before anything is written; kConfigWrite when a file cannot be
// written; kKernelInteraction when the loaded set cannot be replaced (the
// files are written and sealed all the same: they are the tool's own
// legitimate change); kIntegrityCalculation when sealing fails.
void Commit(Configuration& config);

}  // namespace aectool
