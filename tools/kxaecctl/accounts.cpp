#include "accounts.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <vector>

#include "tool_error.h"

namespace aectool {
namespace {

// The reentrant calls, with a buffer grown until the entry fits: a group
// with many members does not fit a small fixed one.
template <typename Entry, typename Lookup>
bool Find(const std::string& name, Lookup lookup, Entry* entry) {
  std::vector<char> buffer(4096);
  for (;;) {
    Entry* found = nullptr;
    const int error =
        lookup(name.c_str(), entry, buffer.data(), buffer.size(), &found);
    if (error == ERANGE && buffer.size() < (1u << 24)) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    return error == 0 && found != nullptr;
  }
}

template <typename Known>
std::vector<std::string> Unknown(const std::vector<std::string>& names,
                                 Known known) {
  std::vector<std::string> unknown;
  for (const auto& name : names) {
    if (known(name)) continue;
    if (std::find(unknown.begin(), unknown.end(), name) == unknown.end()) {
      unknown.push_back(name);
    }
  }
  return unknown;
}

}  // namespace

std::optional<uid_t> UserId(const std::string& name) {
  struct passwd entry;
  if (!Find(name, getpwnam_r, &entry)) return std::nullopt;
  return entry.pw_uid;
}

std::optional<gid_t> GroupId(const std::string& name) {
  struct group entry;
  if (!Find(name, getgrnam_r, &entry)) return std::nullopt;
  return entry.gr_gid;
}

std::vector<std::string> UnknownUsers(const std::vector<std::string>& names) {
  return Unknown(
      names, [](const std::string& name) { return UserId(name).has_value(); });
}

std::vector<std::string> UnknownGroups(const std::vector<std::string>& names) {
  return Unknown(
      names, [](const std::string& name) { return GroupId(name).has_value(); });
}

void RequireAccounts(const std::vector<std::string>& users,
                     const std::vector<std::string>& groups) {
  const auto unknown_users = UnknownUsers(users);
  if (!unknown_users.empty()) {
    throw ToolError(Exit::kUsersNotFound,
                    WithObjects("users not found", unknown_users),
                    unknown_users);
  }
  const auto unknown_groups = UnknownGroups(groups);
  if (!unknown_groups.empty()) {
    throw ToolError(Exit::kGroupsNotFound,
                    WithObjects("groups not found", unknown_groups),
                    unknown_groups);
  }
}

}  // namespace aectool
