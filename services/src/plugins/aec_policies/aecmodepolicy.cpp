#include "aec_policies/aecmodepolicy.h"

namespace {

constexpr const char* kLogFile = "aecmodepolicy";

}  // namespace

AecModePolicy::AecModePolicy(
    const KernelPolicyManager& manager,
    const std::shared_ptr<AecKernelModeStateSetter>& setter,
    const std::shared_ptr<ControlPolicyDbRequestGetter>& getter)
    : AecSwitchPolicy(manager, setter, getter,
                      &AecKernelModeStateSetter::SetMode, kLogFile) {}

AecModePolicy::~AecModePolicy() = default;

std::string AecModePolicy::Name() const { return "mode"; }

std::string AecModePolicy::Description() const { return "AEC mode"; }

std::map<std::string, std::string> AecModePolicy::ValueDescriptions() const {
  return {{"0", "Soft mode"}, {"1", "Hard mode"}};
}

std::string AecModePolicy::DbPolicyName() const { return "aec_mode"; }
