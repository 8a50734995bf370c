// Plain host services a plug-in calls: reply path, client notification,
// notices to users and station blocking.
//
// None of them throws for an ordinary failure; failures are logged by the
// host. They may be called only from the thread the host calls the plug-in on.
#pragma once

#include <string>

#include "host/host_api.h"
#include "host/ixml.h"

// Sends the reply document of `request` to the client and takes the record
// back. `kind` 1 is an ordinary reply. Exactly one of send_message and
// free_msg_memory is called for each request whose command could be read.
KX_HOST_API void send_message(int kind, parsed_xml_data_t* request);

// Releases `request` without sending a reply.
KX_HOST_API void free_msg_memory(parsed_xml_data_t* request);

// Tells the host's management clients that the named plug-in's policies
// changed.
KX_HOST_API void update_clients(const std::string& plugin);

// Shows a notice to every logged-in user.
KX_HOST_API void send_notify_systemwide(const std::string& title,
                                        const std::string& text);

// Blocks the station, giving the reason. `flag` true: block now.
KX_HOST_API void block_station(const std::string& reason, bool flag);
