// Running a helper program (kxaide) without a shell and reading what it
// prints.
#pragma once

#include <string>
#include <vector>

namespace aectool {

struct ChildResult {
  // The exit code; 128 + the signal number for a program killed by one.
  int exit_code = -1;
  std::vector<std::string> lines;  // standard output, line by line
};

// Runs argv[0] with `argv` (fork and execv; standard input /dev/null,
// standard error inherited) and waits for it. Throws std::system_error when
// it cannot be started (the program missing or not executable included).
ChildResult RunProgram(const std::vector<std::string>& argv);

}  // namespace aectool
