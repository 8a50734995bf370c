// Running one of the agent's tools for a client and keeping what it printed.
#pragma once

#include <string>
#include <vector>

namespace kxserv {

struct ToolOutput {
  int exit_code = 0;  // 127 not started, 128 + N ended by signal N
  std::string out;    // standard output, at most `max_output` bytes
  std::string err;    // standard error, at most `max_output` bytes
  bool timed_out = false;
  bool truncated = false;
};

// Runs `argv` (argv[0] a path; no shell) with standard input /dev/null,
// collects both output streams and waits for it. A tool that runs longer
// than `timeout_ms` is killed (SIGKILL) and reported with timed_out; output
// beyond `max_output` per stream is dropped and reported with truncated.
// Never throws for the tool's failures; std::system_error when the pipes or
// the process cannot be made.
ToolOutput RunTool(const std::vector<std::string>& argv, int timeout_ms,
                   std::size_t max_output);

}  // namespace kxserv
