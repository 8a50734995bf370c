#include "aec_policies/aecfilepolicy.h"

AecFilePolicy::AecFilePolicy(const std::string& name,
                             const std::string& description,
                             const KernelPolicyManager& manager)
    : LocalPolicy(name, "string", description), log_tag_(manager.Plugin()) {}

AecFilePolicy::~AecFilePolicy() = default;

void AecFilePolicy::SetSource(const std::string& source) {
  const std::string before = Source();
  LocalPolicy::SetSource(source);
  // A new source must rewrite the file under its own name.
  if (Source() != before) changed_ = true;
}

void AecFilePolicy::ResetSourceByName(const std::string& source) {
  const std::string before = Source();
  LocalPolicy::ResetSourceByName(source);
  if (Source() != before) SourceWasReset();
}
