// The kernel-backed part of the plug-in's policy set: created in its fixed
// order and applied once at construction.
#include <string>
#include <vector>

#include "aec_policies/aecpluginpolicy.h"
#include "kernel_test_util.h"

namespace {

using kerneltest::kEnvironmentFile;
using kerneltest::kVerboseFile;
using kerneltest::ReadParameter;

class PolicySetKernelTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override { kxtest::InstallFakeTool("kxaecctl", {}); }
};

TEST_F(PolicySetKernelTest, StateModeAndTheSixAuditPoliciesComeFirstInOrder) {
  AecPluginPolicy policies;
  std::vector<std::string> names;
  for (const auto& policy : policies.Policies())
    names.push_back(policy->Name());
  ASSERT_GE(names.size(), 8u);
  names.resize(8);
  EXPECT_EQ(names, (std::vector<std::string>{
                       "state", "mode", "log_perm_exec", "log_deny_exec",
                       "log_perm_openlib", "log_deny_openlib",
                       "log_perm_openfile", "log_deny_openfile"}));
}

TEST_F(PolicySetKernelTest, FreshInstallationWritesControlOffAndMask15) {
  InitStorage();
  AecPluginPolicy policies;
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "0");
  EXPECT_EQ(ReadParameter(kVerboseFile), "15");
  for (const auto& call : kxtest::FakeToolCalls("kxaecctl")) {
    ASSERT_FALSE(call.empty());
    EXPECT_NE(call[0], "restart") << "control is off: no rules restart";
  }
}

TEST_F(PolicySetKernelTest, StateAndModeShareOneSetter) {
  AecPluginPolicy policies;
  // Switching control on through the state alone writes soft mode, which is
  // only possible when the state's setter already knows the mode's value.
  ASSERT_TRUE(policies.SetValueToPolicy<std::string>("state", "local", "1"));
  policies.ApplyPolicies();
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "1");
}

}  // namespace
