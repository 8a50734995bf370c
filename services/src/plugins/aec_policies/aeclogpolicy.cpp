#include "aec_policies/aeclogpolicy.h"

AecLogPolicy::AecLogPolicy(
    const KernelPolicyManager& manager, const AecLogType& type,
    const std::shared_ptr<AecLogModeSetter>& setter,
    const std::shared_ptr<AecLogPolicyDbRequestGetter>& getter)
    : KernelPolicy(manager, ""),
      name_(type.name),
      description_(type.description),
      type_(type.type),
      setter_(setter),
      getter_(getter) {}

AecLogPolicy::~AecLogPolicy() = default;

std::string AecLogPolicy::Name() const { return name_; }

std::string AecLogPolicy::Description() const { return description_; }

std::map<std::string, std::string> AecLogPolicy::ValueDescriptions() const {
  return {{"0", "Disabled"}, {"1", "Enabled"}};
}

std::shared_ptr<PolicyDbRequestGetter> AecLogPolicy::RequestGetter() const {
  return getter_;
}

void AecLogPolicy::ApplyKernelValue(int value) {
  setter_->SetLogMode(type_, value);
  setter_->Apply();
}
