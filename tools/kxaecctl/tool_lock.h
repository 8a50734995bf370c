// One kxaecctl at a time: the service and an administrator may run the
// tool together, and two read-change-write runs must not interleave.
#pragma once

namespace aectool {

// Holds an exclusive flock(2) on /opt/korvex/var/lib/aec/kxaecctl.lock
// while it lives (waiting for another holder). Throws
// ToolError(kUnknownError) when the lock file cannot be made or locked.
class ToolLock {
 public:
  ToolLock();
  ~ToolLock();
  ToolLock(const ToolLock&) = delete;
  ToolLock& operator=(const ToolLock&) = delete;

 private:
  int fd_ = -1;
};

}  // namespace aectool
