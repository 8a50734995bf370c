// kxaecctl's failures. Each ends the run with one of the exit codes of the
// table the tool shares with the plug-in's driver (aec_tool_exit_codes.h).
#pragma once

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "aec_tool_exit_codes.h"

namespace aectool {

using Exit = aec::ToolExitCodes;
using ExitCode = Exit::Error;

// `reason` is the one line printed on standard error; `objects` are the
// offending users, groups, rules, resources or files, printed one per line
// on standard output with -v (the plug-in appends them to the code's text).
// Objects are given only for the codes whose text ends in ": ".
class ToolError : public std::runtime_error {
 public:
  ToolError(ExitCode code, const std::string& reason,
            std::vector<std::string> objects = {})
      : std::runtime_error(reason), code_(code), objects_(std::move(objects)) {}

  ExitCode code() const { return code_; }
  const std::vector<std::string>& objects() const { return objects_; }

 private:
  ExitCode code_;
  std::vector<std::string> objects_;
};

// "reason: a, b, c": the reason with its objects, for standard error.
inline std::string WithObjects(const std::string& reason,
                               const std::vector<std::string>& objects) {
  std::string text = reason;
  for (std::size_t i = 0; i < objects.size(); ++i) {
    text += (i == 0 ? ": " : ", ") + objects[i];
  }
  return text;
}

}  // namespace aectool
