// The command words of kxaecctl. Each returns normally on success and
// throws ToolError (with the exit code) on failure; the integrity check of
// -C and the lock are taken by Run (run.h) before a command starts.
// docs/tools.md describes each.
#pragma once

#include "command_line.h"

namespace aectool {

void RunAdd(const Invocation& invocation);
void RunRm(const Invocation& invocation);
void RunUpdate(const Invocation& invocation);
void RunSwitch(const Invocation& invocation, bool enable);  // enable/disable
void RunRename(const Invocation& invocation);
void RunExport(const Invocation& invocation);
void RunReload(const Invocation& invocation);
void RunRestart(const Invocation& invocation);
void RunConfirm(const Invocation& invocation);

}  // namespace aectool
