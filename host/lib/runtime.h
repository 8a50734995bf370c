// The stand-alone host's own runtime settings and observation points.
//
// Used by the kxhost program, the reference tools and the tests; plug-ins
// never include this (they see only include/host/).
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "internal_api.h"

namespace kxhost {

struct RuntimeOptions {
  // kxhost -v: every log line (log_message and the Boost.Log trivial
  // logger) is also written to standard error in syslog's format.
  bool mirror_to_stderr = false;
  // Where sysctl::set writes: "<sysctl_root>/<name>". /proc/sys normally;
  // a directory inside the sandbox when sandboxed.
  std::string sysctl_root = "/proc/sys";
  // Where host events (send_message, free_msg_memory, update_clients,
  // send_notify_systemwide, block_station) are appended, one line each;
  // "" for none. They are also kept in memory (Events()).
  std::string events_file;
  // Whether events are kept in memory for Events(). A long-running host
  // turns this off: it sees each event through its observer, and a list
  // that grows with every request would grow without end.
  bool keep_events = true;
  // The syslog identity of the host's own lines (those logged as "kxhost"):
  // a service process shows all its lines, its own and the plug-in's, under
  // the one identity it runs as.
  std::string host_ident = "kxhost";
};

KX_HOST_INTERNAL void Configure(const RuntimeOptions& options);
KX_HOST_INTERNAL const RuntimeOptions& Options();

// Receives every log line the host writes (log_message and Boost.Log
// trivial records, the latter with a syslog priority from their severity),
// as "file:line: text" with the text fully formatted. Null removes it.
using LogObserver = std::function<void(int priority, const std::string& line)>;
KX_HOST_INTERNAL void SetLogObserver(LogObserver observer);

struct HostEvent {
  std::string kind;  // "send_message", "block_station", "policy_not_applied"
  std::vector<std::string> args;  // the call's arguments as text
};
KX_HOST_INTERNAL std::vector<HostEvent> Events();
KX_HOST_INTERNAL void ClearEvents();

// Receives every host event as it is recorded, on the thread that called the
// host service (the plug-in's), after it is kept and written to the events
// file. A long-running host uses it to reach its clients and users. It must
// not call back into the plug-in. Null removes it.
using EventObserver = std::function<void(const HostEvent& event)>;
KX_HOST_INTERNAL void SetEventObserver(EventObserver observer);

// Receives the text of every statement handed to db_execute, exactly as
// given and before it runs, so that tests can compare what a plug-in sends
// byte for byte. Null removes it.
using StatementObserver = std::function<void(const std::string& sql)>;
KX_HOST_INTERNAL void SetStatementObserver(StatementObserver observer);
// The observer set with SetStatementObserver (empty when none).
KX_HOST_INTERNAL StatementObserver CurrentStatementObserver();

// Forgets every open handle and cached state that belongs to the current
// /opt/korvex (the settings database connection, the policy sources), so
// that the next use reads the root mounted now. For tests that mount a new
// scratch root in the same process.
KX_HOST_INTERNAL void ResetState();

}  // namespace kxhost
