#include "run.h"

#include <exception>
#include <ostream>

#include "baseline_command.h"
#include "command_line.h"
#include "commands.h"
#include "integrity.h"
#include "propose_command.h"
#include "shown_object.h"
#include "simulate_command.h"
#include "tool_error.h"
#include "tool_lock.h"

namespace aectool {
namespace {

void Dispatch(const Invocation& invocation) {
  switch (invocation.command) {
    case Command::kAdd:
      return RunAdd(invocation);
    case Command::kRm:
      return RunRm(invocation);
    case Command::kUpdate:
      return RunUpdate(invocation);
    case Command::kEnable:
      return RunSwitch(invocation, true);
    case Command::kDisable:
      return RunSwitch(invocation, false);
    case Command::kRename:
      return RunRename(invocation);
    case Command::kExport:
      return RunExport(invocation);
    case Command::kReload:
      return RunReload(invocation);
    case Command::kRestart:
      return RunRestart(invocation);
    case Command::kConfirm:
      return RunConfirm(invocation);
  }
}

}  // namespace

int Run(const std::vector<std::string>& args, std::ostream& out,
        std::ostream& err) {
  // The learning commands take long options of their own, beside the
  // plug-in's command table.
  if (!args.empty() && args[0] == "baseline") {
    return RunBaselineCommand(args, out, err);
  }
  if (!args.empty() && args[0] == "propose") {
    return RunProposeCommand(args, out, err);
  }
  if (!args.empty() && args[0] == "simulate") {
    return RunSimulateCommand(args, out, err);
  }
  Invocation invocation;
  try {
    invocation = ParseCommandLine(args);
  } catch (const ToolError& e) {
    err << "kxaecctl: " << e.what() << "\nTry 'kxaecctl --help'.\n";
    return e.code();
  }
  if (invocation.help) {
    out << (invocation.word.empty() ? ToolHelp()
                                    : CommandHelp(invocation.command));
    return Exit::kSuccess;
  }
  try {
    if (invocation.command == Command::kConfirm) {
      // The confirmation keeps its own state safely; it needs no lock and
      // touches no configuration.
      Dispatch(invocation);
      return Exit::kSuccess;
    }
    const ToolLock lock;
    if (invocation.check && invocation.command != Command::kReload) {
      CheckIntegrity();
    }
    Dispatch(invocation);
    return Exit::kSuccess;
  } catch (const ToolError& e) {
    err << "kxaecctl: " << invocation.word << ": " << e.what() << "\n";
    if (invocation.verbose) {
      for (const auto& object : e.objects()) {
        out << ShownObject(object) << "\n";
      }
    }
    return e.code();
  } catch (const std::exception& e) {
    // Anything the table has no code for (a file-system error in an
    // unexpected place) is the unknown error, with its reason.
    err << "kxaecctl: " << invocation.word << ": " << e.what() << "\n";
    return Exit::kUnknownError;
  }
}

}  // namespace aectool
