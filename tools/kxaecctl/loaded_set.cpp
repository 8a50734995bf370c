#include "loaded_set.h"

#include <algorithm>
#include <boost/filesystem.hpp>
#include <system_error>
#include <vector>

#include "accounts.h"
#include "aec_config_read.h"
#include "aec_loaded_set.h"
#include "host/file_util.h"
#include "host/line_escape.h"
#include "resources.h"
#include "rule_edit.h"
#include "tool_error.h"
#include "tool_paths.h"

namespace aectool {
namespace {

template <typename T>
void AddMissing(std::vector<std::string>* missing, const T& names,
                bool (*known)(const std::string&)) {
  for (const auto& name : names) {
    if (!known(name) &&
        std::find(missing->begin(), missing->end(), name) == missing->end()) {
      missing->push_back(name);
    }
  }
}

bool KnownUser(const std::string& name) { return UserId(name).has_value(); }
bool KnownGroup(const std::string& name) { return GroupId(name).has_value(); }

void RequireKnown(const std::vector<std::string>& unknown, ExitCode code,
                  const char* what) {
  if (!unknown.empty()) {
    throw ToolError(code, WithObjects(what, unknown), unknown);
  }
}

// The whitelist's accounts with their ids; throws for unknown ones.
void ResolveWhitelist(const UsersAndGroups& whitelist, aec::LoadedSet* set) {
  std::vector<std::string> unknown_users, unknown_groups;
  AddMissing(&unknown_users, whitelist.users, KnownUser);
  RequireKnown(unknown_users, Exit::kUsersNotFound, "users not found");
  AddMissing(&unknown_groups, whitelist.groups, KnownGroup);
  RequireKnown(unknown_groups, Exit::kGroupsNotFound, "groups not found");
  set->whitelist_users.clear();
  set->whitelist_groups.clear();
  for (const auto& user : whitelist.users) {
    set->whitelist_users.push_back({*UserId(user), user});
  }
  for (const auto& group : whitelist.groups) {
    set->whitelist_groups.push_back({*GroupId(group), group});
  }
}

[[noreturn]] void KernelError(const std::string& reason) {
  throw ToolError(Exit::kKernelInteraction, reason);
}

}  // namespace

std::string CompileLoadedSet(const Configuration& config) {
  // Everything is checked before anything is compiled, so the objects of
  // one code are reported together: users, then groups, then resources.
  std::vector<std::string> unknown_users, unknown_groups, missing;
  for (const auto& [name, rule] : config.Rules()) {
    const RuleEdit edit(rule);
    AddMissing(&unknown_users, edit.List(rule_key::kUsers), KnownUser);
    AddMissing(&unknown_groups, edit.List(rule_key::kGroups), KnownGroup);
    AddMissing(&missing, edit.List(rule_key::kResources), ResourceExists);
  }
  AddMissing(&unknown_users, config.Whitelist().users, KnownUser);
  AddMissing(&unknown_groups, config.Whitelist().groups, KnownGroup);
  RequireKnown(unknown_users, Exit::kUsersNotFound, "users not found");
  RequireKnown(unknown_groups, Exit::kGroupsNotFound, "groups not found");
  RequireKnown(missing, Exit::kResourceMissing, "resources do not exist");

  aec::LoadedSet set;
  for (const auto& [name, rule] : config.Rules()) {
    const RuleEdit edit(rule);
    aec::LoadedRule loaded;
    loaded.name = name;
    loaded.enable = edit.Flag(rule_key::kEnable);
    loaded.all_users = edit.Flag(rule_key::kAllAllowed);
    loaded.extended = edit.Flag(rule_key::kExtended);
    loaded.system = edit.Flag(rule_key::kSystem);
    for (const auto& user : edit.List(rule_key::kUsers)) {
      loaded.users.push_back({*UserId(user), user});
    }
    for (const auto& group : edit.List(rule_key::kGroups)) {
      loaded.groups.push_back({*GroupId(group), group});
    }
    const auto resources = edit.List(rule_key::kResources);
    loaded.resources.assign(resources.begin(), resources.end());
    set.rules.push_back(std::move(loaded));
  }
  ResolveWhitelist(config.Whitelist(), &set);
  set.exceptions.assign(config.Exceptions().begin(), config.Exceptions().end());
  return aec::FormatLoadedSet(set);
}

std::string ReplaceWhitelist(const std::string& previous,
                             const UsersAndGroups& whitelist) {
  aec::LoadedSet set;
  try {
    set = aec::ParseLoadedSet(previous);
  } catch (const aec::LoadedSetError& e) {
    KernelError("damaged loaded set " + LoadedSetPath() + ": " + e.what());
  }
  ResolveWhitelist(whitelist, &set);
  return aec::FormatLoadedSet(set);
}

std::optional<std::string> ReadLoadedSet() {
  try {
    return aec::ReadConfigFile(LoadedSetPath(), aec::kMaxLoadedSetBytes,
                               aec::Links::kRefuse);
  } catch (const aec::ConfigReadError& e) {
    if (e.kind() == aec::ConfigReadError::Kind::kMissing) return std::nullopt;
    KernelError(std::string("cannot read the loaded set ") + e.what());
  }
}

void WriteLoadedSet(const std::string& text) {
  boost::system::error_code ec;
  boost::filesystem::create_directories(LoadedSetDir(), ec);
  try {
    kxfs::ReplaceFile(LoadedSetPath(), text, LoadedSetDir(), 0644);
  } catch (const std::system_error& e) {
    KernelError(std::string("cannot load the rule set: ") + e.what());
  }
}

}  // namespace aectool
