// The request fuzzers' shared frame: the plug-in started once in a fuzz
// sandbox, one request run through plugin_exec, the dispatch contract
// checked, and the root put back when the request changed it.
#pragma once

#include <boost/shared_ptr.hpp>

#include "host/ixml.h"

namespace kxfuzz {

// Enters the sandbox, writes a small audit journal and the directory
// settings, and starts the plug-in (plugin_init must succeed).
void StartPlugin();

// Runs `request` through plugin_exec and checks the dispatch contract:
// exactly one of send_message or free_msg_memory for a request with a
// command (neither without one), the busy flag back at 0, and a sent reply
// that names the command. Then puts the root back as StartPlugin left it,
// restarting the plug-in if anything had changed.
void RunRequest(const boost::shared_ptr<IXml>& request);

}  // namespace kxfuzz
