// Who may talk to the service: root, and members of the administrators'
// group named in the configuration.
#pragma once

#include <sys/types.h>

#include <string>

namespace kxserv {

// True for uid 0, and for a user whose primary or supplementary groups hold
// `group`. An unknown group admits root only.
bool MayTalk(uid_t uid, gid_t gid, const std::string& group);

}  // namespace kxserv
