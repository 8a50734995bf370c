// rm: removes rules, members of a rule, whitelist members or resource
// exceptions. All or nothing: what is named must be there, or nothing is
// removed.
#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "aec_whitelist_file.h"
#include "commands.h"
#include "commit.h"
#include "configuration.h"
#include "rule_edit.h"
#include "tool_error.h"

namespace aectool {
namespace {

[[noreturn]] void Invalid(const std::string& reason) {
  throw ToolError(Exit::kInvalidArgument, reason);
}

// The items of `wanted` that `present` lacks, each once, in the order given.
template <typename Container>
std::vector<std::string> Absent(const std::vector<std::string>& wanted,
                                const Container& present) {
  std::vector<std::string> absent;
  for (const auto& item : wanted) {
    if (std::find(present.begin(), present.end(), item) == present.end() &&
        std::find(absent.begin(), absent.end(), item) == absent.end()) {
      absent.push_back(item);
    }
  }
  return absent;
}

void RequirePresent(const std::vector<std::string>& absent, ExitCode code,
                    const char* what) {
  if (!absent.empty()) throw ToolError(code, WithObjects(what, absent), absent);
}

template <typename Container>
Container Without(Container items, const std::vector<std::string>& gone) {
  items.erase(std::remove_if(items.begin(), items.end(),
                             [&](const std::string& item) {
                               return std::find(gone.begin(), gone.end(),
                                                item) != gone.end();
                             }),
              items.end());
  return items;
}

std::set<std::string> Without(std::set<std::string> items,
                              const std::vector<std::string>& gone) {
  for (const auto& item : gone) items.erase(item);
  return items;
}

void RemoveFromRule(const Invocation& invocation) {
  if (invocation.names.size() != 1) {
    Invalid("members are removed from one rule at a time");
  }
  const std::string& name = invocation.names[0];
  Configuration config = Configuration::Load();
  config.RequireChangeable({name});
  RuleEdit edit(*config.FindRule(name));
  if (invocation.HasMembers() && edit.Flag(rule_key::kAllAllowed)) {
    throw ToolError(Exit::kAllowedForAll,
                    "the rule applies to all users; it has no users or "
                    "groups to remove");
  }
  const auto users = edit.List(rule_key::kUsers);
  const auto groups = edit.List(rule_key::kGroups);
  const auto resources = edit.List(rule_key::kResources);
  RequirePresent(Absent(invocation.users, users), Exit::kUsersNotInRule,
                 "users not in the rule");
  RequirePresent(Absent(invocation.groups, groups), Exit::kGroupsNotInRule,
                 "groups not in the rule");
  RequirePresent(Absent(invocation.resources, resources),
                 Exit::kResourcesNotInRule, "resources not in the rule");
  const auto remaining = Without(resources, invocation.resources);
  if (remaining.empty()) {
    throw ToolError(Exit::kResourceListEmpty,
                    "a rule needs at least one resource; remove the rule "
                    "instead");
  }
  edit.SetList(rule_key::kUsers, Without(users, invocation.users));
  edit.SetList(rule_key::kGroups, Without(groups, invocation.groups));
  edit.SetList(rule_key::kResources, remaining);
  config.PutRule(edit.ToRule());
  Commit(config);
}

void RemoveRules(const Invocation& invocation) {
  Configuration config = Configuration::Load();
  config.RequireChangeable(invocation.names);
  for (const auto& name : invocation.names) config.RemoveRule(name);
  Commit(config);
}

void RemoveAllRules(const Invocation& invocation) {
  if (!invocation.names.empty() || invocation.HasMembers() ||
      !invocation.resources.empty()) {
    Invalid("-A removes every rule and takes nothing else");
  }
  Configuration config = Configuration::Load();
  std::vector<std::string> names;
  for (const auto& [name, rule] : config.Rules()) {
    if (!rule.System()) names.push_back(name);
  }
  for (const auto& name : names) config.RemoveRule(name);
  Commit(config);
}

void RemoveFromLists(const Invocation& invocation) {
  if (!invocation.HasMembers() && invocation.resources.empty()) {
    Invalid("nothing to remove");
  }
  if (invocation.HasMembers() && aec::WhitelistUnderCentralControl()) {
    throw ToolError(Exit::kCentralizedControl,
                    "the whitelist is under centralized control");
  }
  Configuration config = Configuration::Load();
  if (invocation.HasMembers()) {
    UsersAndGroups whitelist = config.Whitelist();
    RequirePresent(Absent(invocation.users, whitelist.users),
                   Exit::kUsersNotInRule, "users not in the whitelist");
    RequirePresent(Absent(invocation.groups, whitelist.groups),
                   Exit::kGroupsNotInRule, "groups not in the whitelist");
    whitelist.users = Without(whitelist.users, invocation.users);
    whitelist.groups = Without(whitelist.groups, invocation.groups);
    config.SetWhitelist(whitelist);
  }
  if (!invocation.resources.empty()) {
    RequirePresent(Absent(invocation.resources, config.Exceptions()),
                   Exit::kResourcesNotInRule,
                   "resources not among the exceptions");
    config.SetExceptions(Without(config.Exceptions(), invocation.resources));
  }
  Commit(config);
}

}  // namespace

void RunRm(const Invocation& invocation) {
  if (invocation.all_rules) {
    RemoveAllRules(invocation);
  } else if (invocation.names.empty()) {
    RemoveFromLists(invocation);
  } else if (invocation.HasMembers() || !invocation.resources.empty()) {
    RemoveFromRule(invocation);
  } else {
    RemoveRules(invocation);
  }
}

}  // namespace aectool
