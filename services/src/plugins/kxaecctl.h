// One run of the rule-control tool /opt/korvex/bin/kxaecctl.
//
// The builders append to a command line ("/opt/korvex/bin/kxaecctl add -C -v
// -n \"r1\" -u \"alice\"") that is what logs and tests see. The tool itself
// is started WITHOUT a shell: beside the text the object keeps the argument
// vector exactly as the builders append it, one argument per word and one
// per value (the value itself, without the quotes), and executes that. So a
// value holding quotes, "$", a backquote or ";" reaches the tool as it is and
// can never run anything else (docs/security.md).
//
// Use: construct, add options, Apply once, then read GetError,
// GetErrorDescription and GetInvalidObjects. A second Apply runs the tool
// again and appends to the output lines.
//
// Failure:
//  - The tool cannot be started (pipe or fork failure, or exec failure such
//    as a missing tool): logged "kxaecctl popen error <errno>" at Boost.Log
//    error severity, PluginException(error::kUnknown).
//  - A non-zero exit code is no exception: Apply returns false.
//  - Output whose last chunk has no newline (a last line without one, or a
//    line of 4096 bytes or more): std::length_error, thrown after the child
//    has been reaped and the pipe closed; the exit status is not updated.
// Every path through Apply closes the pipe and reaps the child.
// An object is used by one thread; Apply blocks until the tool has exited.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "aec_tool_exit_codes.h"

// The exit codes (Error, kSuccess, ...) are the shared table of
// aec_tool_exit_codes.h.
class KxAecCtl : public aec::ToolExitCodes {
 public:
  // Command line = tool path + " " + command; with `standardOptions` then
  // " -C" and " -v".
  KxAecCtl(const std::string& command, bool standardOptions);

  // Appends " " + arg: one argument.
  void AddArg(const std::string& arg);
  // Nothing when `values` is empty; otherwise " " + option, then for each
  // value " \"value\"". Each value is one argument.
  void AddArg(const std::string& option,
              const std::vector<std::string>& values);
  // Nothing when `value` is empty; otherwise " " + option + " \"value\"".
  void AddArg(const std::string& option, const std::string& value);

  void AddRules(const std::vector<std::string>& rules);          // -n
  void AddUsers(const std::vector<std::string>& users);          // -u
  void AddGroups(const std::vector<std::string>& groups);        // -g
  void AddResources(const std::vector<std::string>& resources);  // -r
  void AddResourceFile(const std::string& path);                 // -f
  void AddNewName(const std::string& name);                      // -N

  void SetAllRules();   // -A
  void SetAllUseres();  // -a (the name is spelled so on purpose)
  void SetExtended();   // -X
  void SetDisable();    // -D
  void SetNoDepend();   // -d
  void SetRecursive();  // -R

  // Runs the tool and collects its output lines; true when it exited 0.
  bool Apply();

  Error GetError() const;
  // The table text of the exit status followed by the output lines joined
  // with ", "; for a code missing from the table error::kUnknown alone
  // (logged "unknown kxaecctl error <code>").
  std::string GetErrorDescription() const;
  std::vector<std::string> GetInvalidObjects() const;

  // The command line as built: the text that logs and tests see; no shell
  // ever runs it.
  const std::string& CommandLine() const { return command_line_; }
  // The argument vector that Apply executes, the tool path first: the
  // words and values of the command line, each value without its quotes,
  // and "--" before every value that starts with "-" (the tool's mark for
  // "the next argument is a value").
  const std::vector<std::string>& Arguments() const { return arguments_; }

 private:
  std::string command_line_;
  Error error_ = kSuccess;
  std::vector<std::string> output_;
  std::vector<std::string> arguments_;
};
