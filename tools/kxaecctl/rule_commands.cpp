// add, update, enable, disable, rename: the commands that create or change
// rules (add without -n changes the whitelist and the exceptions).
#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "accounts.h"
#include "aec_whitelist_file.h"
#include "commands.h"
#include "commit.h"
#include "configuration.h"
#include "resources.h"
#include "rule_edit.h"
#include "tool_error.h"

namespace aectool {
namespace {

[[noreturn]] void Invalid(const std::string& reason) {
  throw ToolError(Exit::kInvalidArgument, reason);
}

bool WantsResources(const Invocation& invocation) {
  return !invocation.resources.empty() || invocation.file.has_value();
}

ResourceRequest ResourcesOf(const Invocation& invocation, bool dependencies) {
  ResourceRequest request;
  request.paths = invocation.resources;
  request.list_file = invocation.file;
  request.recursive = invocation.recursive;
  request.dependencies = dependencies;
  return request;
}

void RequireValidName(const std::string& name) {
  if (!AecRule::IsValidName(name)) {
    Invalid("'" + name + "' cannot be a rule name");
  }
}

std::set<std::string> Union(std::set<std::string> items,
                            const std::vector<std::string>& more) {
  items.insert(more.begin(), more.end());
  return items;
}

void Append(std::vector<std::string>* list,
            const std::vector<std::string>& more) {
  for (const auto& item : more) {
    if (std::find(list->begin(), list->end(), item) == list->end()) {
      list->push_back(item);
    }
  }
}

// add without -n: whitelist members and resource exceptions.
void AddToLists(const Invocation& invocation) {
  if (invocation.all_users || invocation.extended || invocation.disable) {
    Invalid("-a, -X and -D need a rule (-n)");
  }
  if (!invocation.HasMembers() && !WantsResources(invocation)) {
    Invalid("nothing to add");
  }
  if (invocation.HasMembers()) {
    // Centrally managed, the whitelist is central management's alone.
    if (aec::WhitelistUnderCentralControl()) {
      throw ToolError(Exit::kCentralizedControl,
                      "the whitelist is under centralized control");
    }
    RequireAccounts(invocation.users, invocation.groups);
  }
  // An exception relaxes control; it is never widened to what a program
  // loads, whatever -d says.
  std::set<std::string> exceptions;
  if (WantsResources(invocation)) {
    exceptions = CollectResources(ResourcesOf(invocation, false));
  }
  Configuration config = Configuration::Load();
  if (invocation.HasMembers()) {
    UsersAndGroups whitelist = config.Whitelist();
    Append(&whitelist.users, invocation.users);
    Append(&whitelist.groups, invocation.groups);
    config.SetWhitelist(whitelist);
  }
  if (WantsResources(invocation)) {
    exceptions.insert(config.Exceptions().begin(), config.Exceptions().end());
    config.SetExceptions(exceptions);
  }
  Commit(config);
}

// What add and update check alike before they read the configuration: -a
// excludes -u and -g, every named account exists. Returns the resources the
// invocation names (with their dependencies unless -N), empty when it names
// none.
std::set<std::string> CheckedMembersAndResources(const Invocation& invocation) {
  if (invocation.all_users && invocation.HasMembers()) {
    Invalid("-a (all users) and -u/-g exclude each other");
  }
  RequireAccounts(invocation.users, invocation.groups);
  if (!WantsResources(invocation)) return {};
  return CollectResources(ResourcesOf(invocation, !invocation.no_depend));
}

}  // namespace

void RunAdd(const Invocation& invocation) {
  if (invocation.names.empty()) {
    AddToLists(invocation);
    return;
  }
  if (invocation.names.size() > 1) Invalid("add takes one rule name");
  const std::string& name = invocation.names[0];
  RequireValidName(name);
  const std::set<std::string> resources =
      CheckedMembersAndResources(invocation);
  Configuration config = Configuration::Load();

  const AecRule* existing = config.FindRule(name);
  RuleEdit edit = existing ? RuleEdit(*existing) : RuleEdit::New(name);
  if (existing == nullptr) {
    if (resources.empty()) {
      throw ToolError(Exit::kResourceListEmpty,
                      "a rule needs at least one resource");
    }
  } else {
    // The rule exists: its "add" is the edit command's adding of members.
    config.RequireChangeable({name});
    if (invocation.HasMembers() && edit.Flag(rule_key::kAllAllowed) &&
        !invocation.all_users) {
      throw ToolError(Exit::kAllowedForAll,
                      "the rule applies to all users; users and groups "
                      "cannot be added");
    }
  }
  if (invocation.all_users) {
    edit.SetFlag(rule_key::kAllAllowed, true);
    edit.SetList(rule_key::kUsers, {});
    edit.SetList(rule_key::kGroups, {});
  } else {
    edit.SetList(rule_key::kUsers,
                 Union(edit.List(rule_key::kUsers), invocation.users));
    edit.SetList(rule_key::kGroups,
                 Union(edit.List(rule_key::kGroups), invocation.groups));
  }
  std::set<std::string> all_resources = edit.List(rule_key::kResources);
  all_resources.insert(resources.begin(), resources.end());
  edit.SetList(rule_key::kResources, all_resources);
  if (invocation.extended) edit.SetFlag(rule_key::kExtended, true);
  if (invocation.disable) edit.SetFlag(rule_key::kEnable, false);
  config.PutRule(edit.ToRule());
  Commit(config);
}

void RunUpdate(const Invocation& invocation) {
  if (invocation.names.empty()) Invalid("update needs a rule (-n)");
  const std::set<std::string> resources =
      CheckedMembersAndResources(invocation);
  if (WantsResources(invocation) && resources.empty()) {
    throw ToolError(Exit::kResourceListEmpty,
                    "a rule needs at least one resource");
  }
  Configuration config = Configuration::Load();
  config.RequireChangeable(invocation.names);
  for (const auto& name : invocation.names) {
    RuleEdit edit(*config.FindRule(name));
    // Users and groups are one membership: giving either replaces both.
    if (invocation.all_users) {
      edit.SetFlag(rule_key::kAllAllowed, true);
      edit.SetList(rule_key::kUsers, {});
      edit.SetList(rule_key::kGroups, {});
    } else if (invocation.HasMembers()) {
      edit.SetFlag(rule_key::kAllAllowed, false);
      edit.SetList(rule_key::kUsers, Union({}, invocation.users));
      edit.SetList(rule_key::kGroups, Union({}, invocation.groups));
    }
    if (WantsResources(invocation)) {
      edit.SetList(rule_key::kResources, resources);
    }
    if (invocation.extended) edit.SetFlag(rule_key::kExtended, true);
    if (invocation.disable) edit.SetFlag(rule_key::kEnable, false);
    config.PutRule(edit.ToRule());
  }
  Commit(config);
}

void RunSwitch(const Invocation& invocation, bool enable) {
  if (invocation.names.empty()) Invalid(invocation.word + " needs a rule (-n)");
  Configuration config = Configuration::Load();
  config.RequireChangeable(invocation.names);
  for (const auto& name : invocation.names) {
    RuleEdit edit(*config.FindRule(name));
    edit.SetFlag(rule_key::kEnable, enable);
    config.PutRule(edit.ToRule());
  }
  Commit(config);
}

void RunRename(const Invocation& invocation) {
  if (invocation.names.size() != 1 || !invocation.new_name) {
    Invalid("rename takes one rule (-n) and its new name (-N)");
  }
  const std::string& old_name = invocation.names[0];
  const std::string& new_name = *invocation.new_name;
  RequireValidName(new_name);
  Configuration config = Configuration::Load();
  config.RequireChangeable({old_name});
  if (new_name == old_name) return;
  if (config.FindRule(new_name) != nullptr) {
    throw ToolError(Exit::kRuleExists, "a rule named " + new_name + " exists",
                    {new_name});
  }
  RuleEdit edit(*config.FindRule(old_name));
  edit.SetName(new_name);
  config.PutRule(edit.ToRule());
  config.RemoveRule(old_name);
  Commit(config);
}

}  // namespace aectool
