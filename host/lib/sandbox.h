// The sandboxed install root.
//
// The plug-in's install root is fixed at /opt/korvex. To run it anywhere
// without touching the machine's real /opt/korvex, the process enters a
// private mount namespace (with a user namespace when not root) and mounts a
// directory of its own choosing at /opt/korvex. Where /opt/korvex does not
// exist, a small tmpfs is mounted over /opt inside the namespace and the
// mount point is made there, so the machine's /opt is never written.
// All functions throw std::runtime_error with the failing step and errno
// text. They must be called before the process starts threads.
#pragma once

#include <string>

#include "internal_api.h"
#include "runtime.h"

namespace kxhost {

// Enters the namespace and mounts `dir` (made if missing) at /opt/korvex.
KX_HOST_INTERNAL void EnterSandbox(const std::string& dir);

// Inside an entered sandbox: mounts `dir` over /opt/korvex (stacked on the
// previous one), or removes the top-most such mount.
KX_HOST_INTERNAL void PushRoot(const std::string& dir);
KX_HOST_INTERNAL void PopRoot();

// The layout of an installation (fresh_install.h) plus var/run/sysctl, the
// sandboxed host's stand-in for /proc/sys. Existing directories are kept.
KX_HOST_INTERNAL void MakeRootLayout(const std::string& dir);

// What a host program's --root DIR does: MakeRootLayout(dir),
// SeedFreshInstall(dir), EnterSandbox(dir), SealFreshInstall() when the
// seeding found the root new (so its first checked change passes the
// integrity check; a root whose configuration exists is left as it is,
// sealed or not), and kernel parameters to files below
// /opt/korvex/var/run/sysctl in `options`. Forks: call before threads start.
KX_HOST_INTERNAL void EnterSandboxedRoot(const std::string& dir,
                                         RuntimeOptions* options);

// True when the process runs in the sandbox entered by EnterSandbox.
KX_HOST_INTERNAL bool InSandbox();

}  // namespace kxhost
