// Where the engine's benchmarks run kxaecd: kxhost's sandbox (a private
// mount namespace with a scratch root at /opt/korvex) and a tmpfs mounted
// in it, the only mount anything there marks.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kxbench {

struct EngineSandbox {
  std::string scratch;  // /tmp/<prefix>XXXXXX: the root, the tmpfs, logs
  std::string dir;      // the tmpfs, at scratch + "/w"
};

// Checks for root, makes the scratch directory, enters the sandbox and
// mounts a tmpfs of `tmpfs_size` (mount's size= option). On failure says
// why on standard error, prefixed with `bench`, and exits with 2.
EngineSandbox EnterEngineSandbox(const std::string& bench,
                                 const std::string& prefix,
                                 const std::string& tmpfs_size);

// Starts `kxaecd` (the built daemon's path) in the foreground watching the
// tmpfs `dir` only, its kernel parameters under the sandbox's
// /opt/korvex/var/run/sysctl, standard output and error appended to `log`,
// with `extra` arguments after those. Returns its pid; exits with 2 when it
// cannot fork.
pid_t LaunchEngine(const std::string& kxaecd, const std::string& dir,
                   const std::string& log,
                   const std::vector<std::string>& extra);

// The whole content of `path`; empty when it cannot be read.
std::string Slurp(const std::string& path);

}  // namespace kxbench
