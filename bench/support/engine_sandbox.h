// Where the engine's benchmarks run kxaecd: kxhost's sandbox (a private
// mount namespace with a scratch root at /opt/korvex) and a tmpfs mounted
// in it, the only mount anything there marks.
#pragma once

#include <string>

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

// The whole content of `path`; empty when it cannot be read.
std::string Slurp(const std::string& path);

}  // namespace kxbench
