// kxhost's command line: options, then the steps to run in order.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace kxhost {

struct Step {
  std::string name;               // "exec", "policies", "setting", ...
  std::vector<std::string> args;  // FILE, NAME VALUE, ...
};

struct CommandLine {
  bool help = false;
  bool verbose = false;
  std::string root;  // "" : the machine's install root
  std::string plugin = "/opt/korvex/lib/libaec.so";
  std::vector<Step> steps;
};

// A command line that cannot be run; what() is a one-line reason.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws UsageError for an unknown option or step, a missing argument, or
// no step at all (unless --help).
CommandLine ParseCommandLine(int argc, char** argv);

// The text --help prints.
std::string UsageText();

// True for the steps that call the plug-in (all but store-password and
// setting).
bool NeedsPlugin(const Step& step);

}  // namespace kxhost
