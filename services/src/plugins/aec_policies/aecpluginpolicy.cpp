#include "aec_policies/aecpluginpolicy.h"

#include <memory>
#include <vector>

#include "aec_policies/aecexceptionspolicy.h"
#include "aec_policies/aeckernelsetters.h"
#include "aec_policies/aeclogpolicy.h"
#include "aec_policies/aeclogtypes.h"
#include "aec_policies/aecmodepolicy.h"
#include "aec_policies/aecrulespolicy.h"
#include "aec_policies/aecstatepolicy.h"
#include "aec_policies/aecwhitelistpolicy.h"
#include "host/request_getters.h"

AecPluginPolicy::AecPluginPolicy()
    : KernelPolicyManager("aec", "aec", "Application execution control", 32) {
  auto mode_state_setter =
      std::make_shared<AecKernelModeStateSetter>(aec::kModeStateParameter);
  auto log_mode_setter =
      std::make_shared<AecLogModeSetter>(aec::kLogModeParameter);
  auto control_getter = std::make_shared<ControlPolicyDbRequestGetter>();
  auto log_getter = std::make_shared<AecLogPolicyDbRequestGetter>();

  std::vector<std::shared_ptr<AecLogPolicy>> log_policies;
  for (const AecLogType& type : aec::kAecLogTypes) {
    log_policies.push_back(std::make_shared<AecLogPolicy>(
        *this, type, log_mode_setter, log_getter));
  }

  // The state goes first so that the mode's application at start finds both
  // values set and writes the kernel once.
  AddPolicy(std::make_shared<AecStatePolicy>(*this, mode_state_setter,
                                             control_getter));
  AddPolicy(std::make_shared<AecModePolicy>(*this, mode_state_setter,
                                            control_getter));
  for (const auto& policy : log_policies) AddPolicy(policy);
  AddPolicy(std::make_shared<AecWhitelistPolicy>(*this));
  AddPolicy(std::make_shared<AecExceptionsPolicy>(*this));
  // The rules policy stays last: it is applied after everything it builds on.
  AddPolicy(std::make_shared<AecRulesPolicy>());
}

AecPluginPolicy::~AecPluginPolicy() = default;

bool AecPluginPolicy::FilterParams(std::string& group, std::string& name,
                                   std::string& source, std::string& value) {
  if (group != "aec_control") return true;
  if (name == "mode") {
    // Old values: 0 off, 1 on in soft mode, 2 on in hard mode.
    SetValueToPolicy<std::string>("state", source, value == "0" ? "0" : "1");
    value = value == "2" ? "1" : "0";
  }
  group = Group();
  return true;
}
