// The configuration kxaecctl works on: the rule files, the whitelist and the
// resource exceptions, read whole, changed in memory and written back in
// the formats the plug-in reads (through the plug-in's own readers and
// writers: AecRule, AECWhiteList::Get, AecExceptionsPolicy::Get,
// aec::WriteJsonConfig).
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "aec_rule.h"
#include "users_and_groups.h"

namespace aectool {

class Configuration {
 public:
  // Reads everything. Throws ToolError:
  //  - kConfigMissing when the rules directory or the whitelist file is
  //    missing (a missing exceptions file is an empty list, as the
  //    exceptions policy takes it);
  //  - kConfigInvalid with every offending file as an object: a rule file
  //    that AecRule refuses, an entry of the rules directory that is not a
  //    regular "<name>.conf" file, a rule whose name is not its file's
  //    name, a whitelist or exceptions file that does not parse.
  // The reason of each refusal also reaches standard error.
  static Configuration Load();

  // The whitelist file alone (reload -w); the same failures.
  static UsersAndGroups LoadWhitelist();

  const std::map<std::string, AecRule>& Rules() const { return rules_; }
  // Null when there is no such rule.
  const AecRule* FindRule(const std::string& name) const;
  // The named rules must all exist and none may be a system rule. Throws
  // ToolError kRuleMissing with every missing name (each once) as an
  // object, else kSystemRule with every system rule named.
  void RequireChangeable(const std::vector<std::string>& names) const;
  // Adds or replaces the rule (under its name) and marks it to be written.
  void PutRule(const AecRule& rule);
  // Drops the rule and marks its file to be removed.
  void RemoveRule(const std::string& name);

  const UsersAndGroups& Whitelist() const { return whitelist_; }
  void SetWhitelist(const UsersAndGroups& whitelist);
  const std::set<std::string>& Exceptions() const { return exceptions_; }
  void SetExceptions(const std::set<std::string>& exceptions);

  // Writes what changed: new and changed rule files first, then removes
  // the dropped ones (a failure never leaves fewer rules than before and
  // after), then the whitelist and the exceptions. Each file is replaced
  // atomically. Throws ToolError(kConfigWrite) at the first failure; files
  // written before it stay written.
  void Save();

  // The files that Save would write or remove now.
  std::vector<std::string> PendingPaths() const;

 private:
  Configuration() = default;

  std::map<std::string, AecRule> rules_;
  UsersAndGroups whitelist_;
  std::set<std::string> exceptions_;
  std::set<std::string> rules_to_write_;
  std::set<std::string> rules_to_remove_;
  bool whitelist_changed_ = false;
  bool exceptions_changed_ = false;
};

}  // namespace aectool
