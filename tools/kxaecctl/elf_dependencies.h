// What a program or library loads when it runs: its interpreter and its
// shared objects, found as the dynamic loader finds them. A rule that allows
// a program without them would allow a program that cannot start.
#pragma once

#include <set>
#include <string>

namespace aectool {

struct Dependencies {
  // Canonical paths (symbolic links resolved) of everything found.
  std::set<std::string> found;
  // "<object>: <name>" for every needed name that no search path held.
  std::set<std::string> unresolved;
};

// The dependencies of the file at `path`, transitively:
//  - an ELF object of this machine's byte order: its interpreter (PT_INTERP)
//    and every DT_NEEDED object, searched in its DT_RUNPATH, or DT_RPATH
//    when it has no DT_RUNPATH ($ORIGIN expanded), then the directories of
//    /etc/ld.so.conf (with its includes) and the system's default library
//    directories; a candidate counts only when it is an ELF object of the
//    same class and machine;
//  - a script starting "#!": its interpreter, with the interpreter's own
//    dependencies;
//  - anything else: nothing.
// The environment (LD_LIBRARY_PATH, LD_PRELOAD) is never consulted: a rule
// must not depend on who ran the tool. The file itself is not part of the
// result. Never throws for unreadable or malformed files: they have no
// dependencies. What a file's headers say is read once per process and
// remembered by path (a tool run is short; see the .cpp). The result is
// kept for the life of the process and may be read from any thread; safe
// to call from several threads at once.
const Dependencies& FindDependencies(const std::string& path);

}  // namespace aectool
