// One kxaecctl at a time, and never while the plug-in is changing the
// configuration: the tool holds the model's configuration lock
// (aec_config_lock.h) for its whole run. Run by the plug-in while the
// plug-in holds that lock, it shares the lock the plug-in hands down.
#pragma once

#include <memory>

#include "aec_config_lock.h"

namespace aectool {

// Holds the configuration lock while it lives (waiting for another holder).
// Throws ToolError(kUnknownError) when the lock file cannot be made or
// locked.
class ToolLock {
 public:
  ToolLock();

 private:
  std::unique_ptr<aec::ConfigLock> lock_;
};

}  // namespace aectool
