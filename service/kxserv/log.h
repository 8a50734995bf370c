// The service's own log lines: syslog, facility daemon, identity kx_serv
// (the identity the plug-in's lines carry too), through the host's log so
// that -v mirrors them and tests can capture them.
#pragma once

#include <syslog.h>

#include <string>

namespace kxserv {

void Log(int priority, const std::string& text);

}  // namespace kxserv
