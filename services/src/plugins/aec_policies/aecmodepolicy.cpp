#include "aec_policies/aecmodepolicy.h"

#include "aec_log.h"

namespace {

constexpr const char* kLogFile = "aecmodepolicy";

}  // namespace

AecModePolicy::AecModePolicy(
    const KernelPolicyManager& manager,
    const std::shared_ptr<AecKernelModeStateSetter>& setter,
    const std::shared_ptr<ControlPolicyDbRequestGetter>& getter)
    : KernelPolicy(manager, "0"), setter_(setter), getter_(getter) {}

AecModePolicy::~AecModePolicy() = default;

std::string AecModePolicy::Name() const { return "mode"; }

std::string AecModePolicy::Description() const { return "AEC mode"; }

std::map<std::string, std::string> AecModePolicy::ValueDescriptions() const {
  return {{"0", "Soft mode"}, {"1", "Hard mode"}};
}

std::shared_ptr<PolicyDbRequestGetter> AecModePolicy::RequestGetter() const {
  return getter_;
}

std::string AecModePolicy::DbPolicyName() const { return "aec_mode"; }

void AecModePolicy::ApplyKernelValue(int value) {
  try {
    setter_->SetMode(value);
    setter_->Apply();
  } catch (const NoConfirmedHardMode& e) {
    // Unconfirmed hard mode degrades to soft mode: control stays on.
    KernelPolicy::SetValue("0");
    setter_->SetMode(0);
    setter_->Apply();
    log_message(kLogFile, __LINE__, 7, aec::kLogFacility, aec::kLogIdent,
                "[%d] %s: AEC Hard mode is off: %s", aec::LogCode(LogId(), 7),
                Plugin().c_str(), e.what());
  }
}
