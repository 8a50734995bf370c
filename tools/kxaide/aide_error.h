// kxaide's failures and the exit codes they end the program with.
#pragma once

#include <stdexcept>
#include <string>

namespace kxaide {

// Exit codes (docs/tools.md).
enum ExitCode : int {
  kExitOk = 0,
  kExitDifferences = 1,  // check mode: files changed, appeared or vanished
  kExitUsage = 2,        // bad command line
  kExitBadList = 3,      // the list is missing, unreadable or malformed
  kExitBadDatabase = 4,  // check mode: the database is missing or damaged
  kExitIo = 5,           // a listed file or directory cannot be read, or
                         // the output database cannot be written
};

// A failure that ends the run with `code`; what() is the one-line reason
// printed on standard error.
class AideError : public std::runtime_error {
 public:
  AideError(ExitCode code, const std::string& reason)
      : std::runtime_error(reason), code_(code) {}
  ExitCode code() const { return code_; }

 private:
  ExitCode code_;
};

}  // namespace kxaide
