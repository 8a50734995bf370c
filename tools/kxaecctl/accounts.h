// Users and groups as the system's user database knows them (getpwnam,
// getgrnam: /etc/passwd and /etc/group, or whatever NSS is configured).
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace aectool {

std::optional<uid_t> UserId(const std::string& name);
std::optional<gid_t> GroupId(const std::string& name);

// The names the database does not know, each once, in the order given.
std::vector<std::string> UnknownUsers(const std::vector<std::string>& names);
std::vector<std::string> UnknownGroups(const std::vector<std::string>& names);

// Throws ToolError kUsersNotFound / kGroupsNotFound with the unknown names
// as objects, users first.
void RequireAccounts(const std::vector<std::string>& users,
                     const std::vector<std::string>& groups);

}  // namespace aectool
