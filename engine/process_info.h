// What the engine learns about the process behind an event, from /proc
// (never on a watched file system, so reading it raises no event).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace aec::engine {

struct ProcessIdentity {
  std::uint32_t uid = 0;           // real uid
  std::vector<std::uint32_t> gids; // real gid, then supplementary groups
};

// Reads /proc/PID/status (or `proc_root`/PID/status); false when the
// process is gone or the file cannot be understood.
bool ReadProcessIdentity(pid_t pid, ProcessIdentity *identity,
                         const std::string &proc_root = "/proc");

// Parses the text of a status file; exposed for tests.
bool ParseProcessStatus(const std::string &text, ProcessIdentity *identity);

// The program the process runs (/proc/PID/exe); "" when unknown.
std::string ProcessProgram(pid_t pid);

} // namespace aec::engine
