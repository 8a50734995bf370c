#include "aec_policies/aecstatepolicy.h"

#include "aec_log.h"
#include "aec_paths.h"
#include "aec_policies/aechardmodeconfirmation.h"

namespace {

constexpr const char* kLogFile = "aecstatepolicy";

}  // namespace

AecStatePolicy::AecStatePolicy(
    const KernelPolicyManager& manager,
    const std::shared_ptr<AecKernelModeStateSetter>& setter,
    const std::shared_ptr<ControlPolicyDbRequestGetter>& getter)
    : KernelPolicy(manager, "0"), setter_(setter), getter_(getter) {}

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

std::shared_ptr<PolicyDbRequestGetter> AecStatePolicy::RequestGetter() const {
  return getter_;
}

std::string AecStatePolicy::DbPolicyName() const { return "aec_state"; }

void AecStatePolicy::ApplyKernelValue(int value) {
  try {
    setter_->SetState(value);
    setter_->Apply();
  } catch (const NoConfirmedHardMode& e) {
    // Refused hard mode coming from the state switches control off rather
    // than leaving it on unconfirmed.
    KernelPolicy::SetValue("0");
    setter_->SetState(0);
    setter_->Apply();
    log_message(kLogFile, __LINE__, 7, aec::kLogFacility, aec::kLogIdent,
                "[%d] %s: AEC Hard mode is off: %s", aec::LogCode(LogId(), 7),
                Plugin().c_str(), e.what());
  }
}
