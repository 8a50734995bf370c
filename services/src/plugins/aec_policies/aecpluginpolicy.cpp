#include "aec_policies/aecpluginpolicy.h"

AecPluginPolicy::AecPluginPolicy()
    : KernelPolicyManager("aec", "aec", "Application execution control", 32) {}

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

void InitStorage() {}
