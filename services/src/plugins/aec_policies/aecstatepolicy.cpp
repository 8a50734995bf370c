#include "aec_policies/aecstatepolicy.h"

#include "aec_paths.h"
#include "aec_policies/aechardmodeconfirmation.h"

namespace {

constexpr const char* kLogFile = "aecstatepolicy";

}  // namespace

AecStatePolicy::AecStatePolicy(
    const KernelPolicyManager& manager,
    const std::shared_ptr<AecKernelModeStateSetter>& setter,
    const std::shared_ptr<ControlPolicyDbRequestGetter>& getter)
    : AecSwitchPolicy(manager, setter, getter,
                      &AecKernelModeStateSetter::SetState, kLogFile) {}

AecStatePolicy::~AecStatePolicy() = default;

void AecStatePolicy::SetSource(const std::string& source) {
  KernelPolicy::SetSource(source);
  // Central management decides for itself; an administrator at this station
  // has nothing left to confirm.
  if (source != aec::kPolicySourceLocal) {
    AecHardModeConfirmation::Get()->NotRequiereConfirmation();
  }
}

std::string AecStatePolicy::Name() const { return "state"; }

std::string AecStatePolicy::Description() const { return "AEC state"; }

std::map<std::string, std::string> AecStatePolicy::ValueDescriptions() const {
  return {{"0", "Disabled"}, {"1", "Enabled"}};
}

std::string AecStatePolicy::DbPolicyName() const { return "aec_state"; }
