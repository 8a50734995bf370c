// The kernel parameters the engine obeys, as files: state and mode
// ("korvex/secure/environment", state | mode << 1) and the audit mask
// ("korvex/secure/secenv_verbose", bit n journals event 1050 + n), below a
// sysctl root. An installed system has no /proc/sys/korvex, so the host and
// the engine both use /opt/korvex/var/run/sysctl there (docs/host.md).
#pragma once

#include <string>

namespace aec::engine {

extern const char kEnvironmentParameter[]; // "korvex/secure/environment"
extern const char kVerboseParameter[];     // "korvex/secure/secenv_verbose"
extern const char kInstalledSysctlRoot[];  // "/opt/korvex/var/run/sysctl"

// The root to read: /proc/sys when the kernel offers the parameters there,
// the installed root otherwise.
std::string DefaultSysctlRoot();

// Reads a decimal value in [0, max] (trailing white space allowed).
// False, with the reason in *why, for a missing file or junk; the caller
// keeps the value it had.
bool ReadParameter(const std::string &path, int max, int *value,
                   std::string *why);

// Parses the text of a parameter; exposed for tests.
bool ParseParameter(const std::string &text, int max, int *value);

} // namespace aec::engine
