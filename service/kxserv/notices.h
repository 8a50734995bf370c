// How the service reaches people: notices on logged-in users' terminals (as
// wall does) and the visible record of a blocked station.
#pragma once

#include <string>

namespace kxserv {

// The file that says the station is blocked: the reason on its first line,
// "now" or "pending" on the second. It stays until an administrator removes
// it; the service reports it in `state` and logs it at every start.
constexpr const char* kBlockFile = "/opt/korvex/var/run/station-blocked";

// Writes a notice with `title` and `text` to the terminal of every user
// process listed in `utmp_file`. Control characters in the texts are shown
// as '?', so a notice cannot drive the terminal. A terminal that would block
// is skipped. Returns how many terminals got the notice.
int NotifyTerminals(const std::string& utmp_file, const std::string& title,
                    const std::string& text);

// Writes kBlockFile (atomically). False when it cannot be written.
bool RecordStationBlock(const std::string& reason, bool now);
// Reads kBlockFile; false when the station is not blocked.
bool ReadStationBlock(std::string* reason);

}  // namespace kxserv
