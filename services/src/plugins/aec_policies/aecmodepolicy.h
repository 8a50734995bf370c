// The "mode" policy: soft ("0") or hard ("1") execution control, stored as
// "aec_mode" in control_plugin_conf and written to the kernel through the
// setter it shares with the state policy. Hard mode stays on only while the
// hard-mode confirmation allows it.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "aec_policies/aeckernelsetters.h"
#include "aec_policies/aecswitchpolicy.h"
#include "host/policy.h"
#include "host/request_getters.h"

class AecModePolicy : public AecSwitchPolicy {
 public:
  // The default value is "0": soft mode.
  AecModePolicy(const KernelPolicyManager& manager,
                const std::shared_ptr<AecKernelModeStateSetter>& setter,
                const std::shared_ptr<ControlPolicyDbRequestGetter>& getter);
  ~AecModePolicy() override;

  std::string Name() const override;         // "mode"
  std::string Description() const override;  // "AEC mode"
  std::map<std::string, std::string> ValueDescriptions() const override;
  std::string DbPolicyName() const override;  // "aec_mode"
};
