// Kernel parameters.
//
// sysctl::set writes `value` to the kernel parameter `name` (a path such as
// "korvex/secure/environment", relative to /proc/sys). Under a sandboxed host
// the parameters are plain files below the host's sysctl directory (see
// docs/host.md). Returns false, after logging, when the write failed.
// sysctl::get reads a parameter back; "" when it cannot be read.
#pragma once

#include <string>

#include "host/host_api.h"

namespace sysctl {
KX_HOST_API bool set(const std::string& name, const std::string& value);
KX_HOST_API std::string get(const std::string& name);
}  // namespace sysctl
