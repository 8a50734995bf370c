#include "aec_policies/aecswitchpolicy.h"

#include "aec_log.h"

AecSwitchPolicy::AecSwitchPolicy(
    const KernelPolicyManager& manager,
    const std::shared_ptr<AecKernelModeStateSetter>& setter,
    const std::shared_ptr<ControlPolicyDbRequestGetter>& getter, Half half,
    const char* log_file)
    : KernelPolicy(manager, "0"),
      setter_(setter),
      getter_(getter),
      half_(half),
      log_file_(log_file) {}

AecSwitchPolicy::~AecSwitchPolicy() = default;

std::shared_ptr<PolicyDbRequestGetter> AecSwitchPolicy::RequestGetter() const {
  return getter_;
}

void AecSwitchPolicy::ApplyKernelValue(int value) {
  try {
    ((*setter_).*half_)(value);
    setter_->Apply();
  } catch (const NoConfirmedHardMode& e) {
    // Unconfirmed hard mode never stays on: from the mode it degrades to
    // soft mode (control stays on), from the state it switches control off.
    KernelPolicy::SetValue("0");
    ((*setter_).*half_)(0);
    setter_->Apply();
    AEC_LOG_CODED(log_file_, 7, aec::LogCode(LogId(), 7), Plugin().c_str(),
                  "[%d] %s: AEC Hard mode is off: %s", e.what());
  }
}
