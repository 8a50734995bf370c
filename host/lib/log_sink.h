// The host's one path for log lines: syslog, the optional mirror on standard
// error and the observer. log_message and the Boost.Log sink both end here.
#pragma once

#include <string>

#include "runtime.h"

namespace kxhost {

// Writes one fully formatted line. `facility` is syslog's encoded facility
// (LOG_DAEMON is 24); `ident` the identity syslog shows. Never throws.
void WriteLogLine(const char* file, int line, int priority, int facility,
                  const char* ident, const std::string& text);

// The observer set with SetLogObserver (empty when none).
LogObserver CurrentLogObserver();

}  // namespace kxhost
