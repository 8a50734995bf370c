// The plug-in's policy set and the first-start rows of the settings database.
#pragma once

#include <string>

#include "host/policy_manager.h"

// Owns every policy of the plug-in, in the order state, mode, the six audit
// events, whitelist, exceptions, rules (the order in which they are listed,
// stored and applied). Construction throws when a policy cannot be created
// (for example a broken whitelist file).
class AecPluginPolicy : public KernelPolicyManager {
 public:
  AecPluginPolicy();
  ~AecPluginPolicy() override;

  // Translates the settings of the older single policy "aec_control" into
  // "state" and "mode"; every other parameter passes unchanged. Always true.
  bool FilterParams(std::string& group, std::string& name, std::string& source,
                    std::string& value) override;
};

// Writes the plug-in's default rows into the settings database unless an
// "aec_state" row exists; upgrades the old "aec_control" row. Logs its own
// failures and never throws for them.
void InitStorage();
