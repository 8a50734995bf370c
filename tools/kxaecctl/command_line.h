// kxaecctl's command line: a command word, then options.
//
// An option is an argument of exactly two characters, "-" and a letter; a
// value option (-n -u -g -r -f -N) takes every following argument up to the
// next option, each argument one value exactly as given (the plug-in runs
// the tool without a shell, so values may hold blanks, quotes or "$").
// "--" makes the next argument a value whatever it looks like (the plug-in
// puts it before every value that starts with "-"). A value holding a
// control character is refused. "--help" anywhere else asks for the
// command's help. docs/tools.md has the table of which command takes which
// option.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace aectool {

enum class Command {
  kAdd,
  kRm,
  kUpdate,
  kEnable,
  kDisable,
  kRename,
  kExport,
  kReload,
  kRestart,
  kConfirm,
};

struct Invocation {
  Command command = Command::kAdd;
  std::string word;   // the command word as given
  bool help = false;  // --help: print the help and do nothing else

  bool check = false;      // -C  check integrity first
  bool verbose = false;    // -v  offending objects on standard output
  bool whitelist = false;  // -w  reload: the whitelist only

  std::vector<std::string> names;       // -n
  std::vector<std::string> users;       // -u
  std::vector<std::string> groups;      // -g
  std::vector<std::string> resources;   // -r
  std::optional<std::string> file;      // -f
  std::optional<std::string> new_name;  // -N

  bool all_rules = false;  // -A
  bool all_users = false;  // -a
  bool extended = false;   // -X
  bool disable = false;    // -D
  bool no_depend = false;  // -d
  bool recursive = false;  // -R

  bool HasMembers() const { return !users.empty() || !groups.empty(); }
};

// Parses the arguments after the program name. Throws ToolError
// (kInvalidArgument) for an unknown command word, an unknown option, an
// option the command does not take, a value option without values, a
// one-value option given several, values after a flag, a "--" that is not
// followed by a value of a value option, or a value holding a control
// character. With no
// arguments at all the result is the tool's help (word empty, help true).
Invocation ParseCommandLine(const std::vector<std::string>& args);

// The tool's help, and the help of one command word.
std::string ToolHelp();
std::string CommandHelp(Command command);

}  // namespace aectool
