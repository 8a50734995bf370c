// The policy "whitelist": the whitelist file (aecwhitelist.h) as one policy
// of the host's policy framework.
//
// Values arrive in two forms:
//  - from the management server (SetValue(text)): a comma-separated list in
//    which every entry "*S-…" is a directory security identifier. Each is
//    resolved through the directory (the account named by the network
//    settings' KXDomainUser / KXDomainPassword on the server KXActiveLDS,
//    port 3268) to an account or group name, which must then exist locally
//    as "name@domain" or "domain\name" (domain: the directory's DNS domain cut
//    at its first dot); the local entry's own name is kept. Unresolvable
//    SIDs are dropped; any error (directory unreachable, bad credentials,
//    malformed SID) is logged as "is not parse" and the value kept.
//  - from policy import (SetValue(tree)): an array of {"name", "type"} with
//    type "user" or "group"; a missing member raises the tree's error.
// Apply writes the file, records the source (turning centralized control on
// for a source other than "local") and reloads; a failure is logged as "is
// not applied" and answered false with the changed flag left up.
// Not thread-safe.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <string>

#include "aec_policies/aecfilepolicy.h"
#include "host/policy_manager.h"
#include "users_and_groups.h"

class AecWhitelistPolicy : public AecFilePolicy {
 public:
  // Raises PluginException (error::kInvalidConfig) when the whitelist file
  // is missing or broken.
  explicit AecWhitelistPolicy(const KernelPolicyManager& manager);
  ~AecWhitelistPolicy() override;

  // Returns to the default source and switches centralized control off.
  void ResetSource() override;
  void SetValue(const std::string& value) override;
  void SetValue(const boost::property_tree::ptree& value) override;
  bool Apply() override;

  // Resolves the server form (see above). Errors of the directory client,
  // the settings store or the SID text pass to the caller.
  UsersAndGroups ParseFromServer(const std::string& text);

  const UsersAndGroups& Pending() const { return value_list_; }
  const UsersAndGroups& Applied() const { return applied_; }

 private:
  // Switches centralized control off.
  void SourceWasReset() override;
  void Store(UsersAndGroups parsed);

  UsersAndGroups value_list_;
  UsersAndGroups applied_;
};
