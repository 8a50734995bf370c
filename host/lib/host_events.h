// Recording of host events (send_message, free_msg_memory, update_clients,
// send_notify_systemwide, block_station, and policy_not_applied when a
// policy's Apply failed) for kxhost::Events() and the events file.
#pragma once

#include <string>
#include <vector>

namespace kxhost {

// Keeps the event in memory and appends it to RuntimeOptions.events_file
// when set: one line, the kind and then each argument after a tab, with
// backslash, tab, CR and line break escaped as \\ \t \r \n. Never throws
// for a file that cannot be written (that is logged).
void RecordEvent(const std::string& kind, std::vector<std::string> args);

}  // namespace kxhost
