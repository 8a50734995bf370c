// What the "mode" and "state" policies share: each is one half of the same
// kernel parameter, written through the mode-and-state setter they share and
// stored through the control_plugin_conf request getter. Both refuse to
// leave hard mode on unconfirmed: when the setter reports NoConfirmedHardMode
// the policy falls back to "0" for its own half, applies that and logs why
// (priority 7) under its own source file's name. Other exceptions pass
// through. Not thread-safe.
#pragma once

#include <memory>
#include <string>

#include "aec_policies/aeckernelsetters.h"
#include "host/policy.h"
#include "host/request_getters.h"

class AecSwitchPolicy : public KernelPolicy {
 public:
  std::shared_ptr<PolicyDbRequestGetter> RequestGetter() const override;
  void ApplyKernelValue(int value) override;

 protected:
  // The setter's operation for this policy's half of the parameter.
  using Half = void (AecKernelModeStateSetter::*)(int);

  // `log_file` is the base name that the fallback's log line carries; it
  // must outlive the policy (a literal). The default value is "0".
  AecSwitchPolicy(const KernelPolicyManager& manager,
                  const std::shared_ptr<AecKernelModeStateSetter>& setter,
                  const std::shared_ptr<ControlPolicyDbRequestGetter>& getter,
                  Half half, const char* log_file);
  ~AecSwitchPolicy() override;

 private:
  std::shared_ptr<AecKernelModeStateSetter> setter_;
  std::shared_ptr<ControlPolicyDbRequestGetter> getter_;
  Half half_;
  const char* log_file_;
};
