#include "integrity.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <system_error>

#include "child_process.h"
#include "tool_error.h"
#include "tool_paths.h"
#include "unsealed_change.h"

namespace aectool {
namespace {

// kxaide's exit codes (tools/kxaide/aide_error.h).
constexpr int kAideDifferences = 1;
constexpr int kAideBadDatabase = 4;

[[noreturn]] void CalculationError(const std::string& reason) {
  throw ToolError(Exit::kIntegrityCalculation, reason);
}

ChildResult RunAide(const std::vector<std::string>& options) {
  std::vector<std::string> argv = {IntegrityToolPath()};
  argv.insert(argv.end(), options.begin(), options.end());
  try {
    return RunProgram(argv);
  } catch (const std::system_error& e) {
    CalculationError(e.what());
  }
}

ChildResult RunCheck() {
  return RunAide({"-k", "-c", IntegrityListPath(), "-d", IntegrityDbPath()});
}

}  // namespace

void CheckIntegrity() {
  const ChildResult result = RunCheck();
  switch (result.exit_code) {
    case 0:
      return;
    case kAideDifferences:
      if (OnlyUnsealedChanges(result.lines)) {
        // The tool's own change whose seal failed: seal it now. When that
        // fails again the record stays and the change still goes ahead.
        try {
          Seal();
        } catch (const ToolError& e) {
          std::cerr << "kxaecctl: an earlier change is still not sealed: "
                    << e.what() << "\n";
        }
        return;
      }
      throw ToolError(Exit::kIntegrityDbUpdate,
                      WithObjects("configuration changed since it was sealed",
                                  result.lines),
                      result.lines);
    case kAideBadDatabase:
      throw ToolError(Exit::kIntegrityViolation,
                      "the checksum database " + IntegrityDbPath() +
                          " is missing or damaged");
    default:
      CalculationError("kxaide failed with exit code " +
                       std::to_string(result.exit_code));
  }
}

void ReportIntegrity() {
  try {
    CheckIntegrity();
  } catch (const ToolError& e) {
    std::cerr << "kxaecctl: reload accepts the configuration on disk: "
              << e.what() << "\n";
  }
}

void Seal() {
  const ChildResult result = RunAide({"-i", "-c", IntegrityListPath()});
  if (result.exit_code != 0) {
    CalculationError("kxaide -i failed with exit code " +
                     std::to_string(result.exit_code));
  }
  // One rename: the database in force is the old one or the new one.
  if (std::rename(IntegrityOutputPath().c_str(), IntegrityDbPath().c_str()) !=
      0) {
    CalculationError("cannot move " + IntegrityOutputPath() + " to " +
                     IntegrityDbPath() + ": " + std::strerror(errno));
  }
  ForgetUnsealedChange();
}

}  // namespace aectool
