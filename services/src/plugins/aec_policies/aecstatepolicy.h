// The "state" policy: execution control on ("1") or off ("0"), stored as
// "aec_state" in control_plugin_conf and written to the kernel through the
// setter it shares with the mode policy.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "aec_policies/aeckernelsetters.h"
#include "aec_policies/aecswitchpolicy.h"
#include "host/policy.h"
#include "host/request_getters.h"

class AecStatePolicy : public AecSwitchPolicy {
 public:
  // The default value is "0": control is off until someone switches it on.
  AecStatePolicy(const KernelPolicyManager& manager,
                 const std::shared_ptr<AecKernelModeStateSetter>& setter,
                 const std::shared_ptr<ControlPolicyDbRequestGetter>& getter);
  ~AecStatePolicy() override;

  // Records the source; a source other than "local" also lifts the need for
  // a local hard-mode confirmation.
  void SetSource(const std::string& source) override;
  std::string Name() const override;         // "state"
  std::string Description() const override;  // "AEC state"
  std::map<std::string, std::string> ValueDescriptions() const override;
  std::string DbPolicyName() const override;  // "aec_state"
};
