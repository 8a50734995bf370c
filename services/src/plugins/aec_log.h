// The plug-in's logging conventions over the host's log_message.
//
// Every line goes to facility 24 (daemon) with ident "kx_serv"; the format
// begins "[%d] %s: " and takes the message code (identifier << 24 | priority)
// and a name first. `file` is the base name of the logging source file.
#pragma once

#include <libintl.h>

#include "host/log.h"

namespace aec {

constexpr int kLogFacility = 24;
constexpr const char* kLogIdent = "kx_serv";
constexpr const char* kPluginName = "aec";
constexpr int kCoreLogId = 0x10;    // the plug-in core
constexpr int kPolicyLogId = 0x20;  // the whitelist and exceptions policies

constexpr int LogCode(int id, int priority) { return (id << 24) | priority; }

}  // namespace aec

// Logs with the core's identifier and the name "aec".
#define AEC_LOG(file, priority, format, ...)                                 \
  log_message(file, __LINE__, priority, ::aec::kLogFacility, ::aec::kLogIdent, \
              format, ::aec::LogCode(::aec::kCoreLogId, priority),            \
              ::aec::kPluginName, ##__VA_ARGS__)
