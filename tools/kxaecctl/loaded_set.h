// The loaded set: the rule set compiled into the form a kernel component
// reads, kept in /opt/korvex/var/lib/aec/loaded-rules and replaced
// atomically, so a reader sees the previous set or the new one, never a
// mixture.
//
// The text is written and read by the configuration model
// (aec_loaded_set.h). This file adds what the tool does on this machine:
// resolving users and groups to ids, checking that resources exist, and
// keeping the file. Rules in name order, each with its users, groups and
// resources sorted; then the whitelist in file order; then the exceptions,
// sorted.
#pragma once

#include <optional>
#include <string>

#include "configuration.h"

namespace aectool {

// Compiles the configuration. Everything it names must exist on this
// machine: throws ToolError kUsersNotFound (rule and whitelist users),
// kGroupsNotFound, kResourceMissing (rule resources; exceptions may name
// files that do not exist here) with every offending object.
std::string CompileLoadedSet(const Configuration& config);

// `previous` with its whitelist records replaced by `whitelist` (whose
// accounts must exist, as above). Throws ToolError(kKernelInteraction) when
// `previous` is not a loaded set.
std::string ReplaceWhitelist(const std::string& previous,
                             const UsersAndGroups& whitelist);

// The loaded set in force; nullopt when none was ever written. Throws
// ToolError(kKernelInteraction) when it exists but cannot be read.
std::optional<std::string> ReadLoadedSet();

// Replaces the loaded set. Throws ToolError(kKernelInteraction).
void WriteLoadedSet(const std::string& text);

}  // namespace aectool
