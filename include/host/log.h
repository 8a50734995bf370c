// Logging through the host.
//
// log_message(file, line, priority, facility, ident, format, ...) formats like
// printf and writes one line to syslog(3) with the given facility and ident,
// prefixed by the source file's base name and line. Priorities are syslog's
// (2 critical, 3 error, 4 warning, 6 information, 7 debug). It never throws
// and never fails from the caller's point of view.
//
// The plug-in's own convention: every format begins "[%d] %s: " and the two
// first arguments are a message code (log identifier << 24 | priority) and
// the plug-in's short name.
#pragma once

#include <functional>
#include <string>

#include "host/host_api.h"

KX_HOST_API void log_message(const char* file, int line, int priority,
                             int facility, const char* ident,
                             const char* format, ...)
    __attribute__((format(printf, 6, 7)));

// Writes `text` as one record of the process's Boost.Log trivial logger, at
// the severity matching the syslog `priority` (2 fatal, 3 error, 4 warning,
// 5 and 6 info, 7 debug). The host owns the logger and its sink, so a
// plug-in or tool reports its configuration-reading failures this way
// without linking Boost.Log itself. Only the logger's own failures (memory
// exhaustion) leave it.
KX_HOST_API void log_trivial(int priority, const std::string& text);

// Lets a program that runs plug-in code outside a host process (the agent
// tools) see every line that code logs, with its syslog priority, besides
// syslog: a tool shows the person running it why a file was refused. An
// empty observer stops it. One observer per process; not for use while
// another thread logs.
using LogLineObserver =
    std::function<void(int priority, const std::string& line)>;
KX_HOST_API void set_log_line_observer(LogLineObserver observer);
