// The one lock every writer of the configuration takes: rule files,
// whitelist, resource exceptions, policy sources, loaded set and checksum
// database. It is an exclusive flock(2) on
// /opt/korvex/var/lib/aec/kxaecctl.lock, held around a whole change: the
// writes and the seal of the checksum database that accepts them. Without
// it a tool run that checks integrity could see a file the plug-in has
// written but not yet sealed (a false violation), or two read-change-write
// runs could interleave and lose a change.
//
// The plug-in holds the lock while it runs kxaecctl to load and seal what
// it wrote; kxaecctl takes the same lock. So that this cannot deadlock, the
// lock is handed down: while it is held, the descriptor stays open across
// exec and the environment variable KX_AEC_LOCK_FD names it. A ConfigLock
// made in a child that finds a descriptor there for the same lock file
// takes the lock through that descriptor (the same open file, so the
// parent's lock serves), and waits like anyone else when the parent does
// not hold it. A wrong or stale variable can therefore never skip the
// lock. docs/security.md gives the order of the steps.
//
// Re-entrant within a process: a nested ConfigLock (the whitelist apply
// inside a policy apply) shares the outer one. Meant for one thread of a
// process at a time (the host calls the plug-in from one thread); the
// environment variable is process-wide.
#pragma once

#include <string>

namespace aec {

extern const char* const kConfigLockFdVariable;  // "KX_AEC_LOCK_FD"

class ConfigLock {
 public:
  // Waits for the lock. Throws std::system_error naming the lock file when
  // it cannot be made or locked.
  ConfigLock();
  ~ConfigLock();
  ConfigLock(const ConfigLock&) = delete;
  ConfigLock& operator=(const ConfigLock&) = delete;

  // The lock file's path.
  static const std::string& Path();
};

}  // namespace aec
