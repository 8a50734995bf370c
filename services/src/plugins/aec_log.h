// The plug-in's logging conventions over the host's log_message, in one
// place.
//
// Every line goes to facility 24 (daemon) with ident "kx_serv"; the format
// begins "[%d] %s: " and takes the message code (identifier << 24 | priority)
// and a name first. `file` is the base name of the logging source file: it
// is part of every line, so each call names its own file, not this one.
#pragma once

#include <libintl.h>

#include "host/log.h"

namespace aec {

constexpr int kLogFacility = 24;
constexpr const char* kLogIdent = "kx_serv";
constexpr const char* kPluginName = "aec";
constexpr int kCoreLogId = 0x10;     // the plug-in core
constexpr int kPolicyLogId = 0x20;   // the whitelist and exceptions policies
constexpr int kNetworkLogId = 0x47;  // the network settings store

constexpr int LogCode(int id, int priority) { return (id << 24) | priority; }

}  // namespace aec

// One line at syslog `priority` whose message code is `code` (see LogCode;
// its priority part need not be `priority`) and whose name is `name`. The
// format's first two conversions take the code and the name.
#define AEC_LOG_CODED(file, priority, code, name, format, ...)                 \
  log_message(file, __LINE__, priority, ::aec::kLogFacility, ::aec::kLogIdent, \
              format, code, name, ##__VA_ARGS__)

// Logs with the core's identifier and the name "aec".
#define AEC_LOG(file, priority, format, ...)                                 \
  AEC_LOG_CODED(file, priority, ::aec::LogCode(::aec::kCoreLogId, priority), \
                ::aec::kPluginName, format, ##__VA_ARGS__)
