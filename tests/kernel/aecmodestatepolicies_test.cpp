// The state and mode policies over their shared setter: values, fallbacks
// when hard mode is refused, and the state policy's source.
#include <memory>
#include <stdexcept>
#include <string>

#include "aec_policies/aecmodepolicy.h"
#include "aec_policies/aecstatepolicy.h"
#include "host/policy_manager.h"
#include "kernel_test_util.h"

namespace {

using kerneltest::kEnvironmentFile;
using kerneltest::ReadParameter;

// (32 << 24) | 7: the policy set's log identifier at debug priority.
constexpr const char* kHardModeOffLine =
    "[536870919] aec: AEC Hard mode is off: AEC Hard Mode is not confirmed";

class ModeStatePoliciesTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override { kxtest::InstallFakeTool("kxaecctl", {}); }

  KernelPolicyManager manager_{"aec", "aec", "Application execution control",
                               32};
  std::shared_ptr<AecKernelModeStateSetter> setter_ =
      std::make_shared<AecKernelModeStateSetter>(aec::kModeStateParameter);
  std::shared_ptr<ControlPolicyDbRequestGetter> getter_ =
      std::make_shared<ControlPolicyDbRequestGetter>();
  AecStatePolicy state_{manager_, setter_, getter_};
  AecModePolicy mode_{manager_, setter_, getter_};
};

TEST_F(ModeStatePoliciesTest, StatePolicyDescribesItself) {
  EXPECT_EQ(state_.Name(), "state");
  EXPECT_EQ(state_.Description(), "AEC state");
  EXPECT_EQ(state_.DbPolicyName(), "aec_state");
  EXPECT_EQ(state_.ValueDescriptions(),
            (std::map<std::string, std::string>{{"0", "Disabled"},
                                                {"1", "Enabled"}}));
  EXPECT_EQ(state_.RequestGetter(), getter_);
  EXPECT_EQ(state_.Type(), "enum");
  EXPECT_EQ(state_.ValueNodeName(), "type");
  EXPECT_EQ(state_.DefaultValue(), "0");
}

TEST_F(ModeStatePoliciesTest, ModePolicyDescribesItself) {
  EXPECT_EQ(mode_.Name(), "mode");
  EXPECT_EQ(mode_.Description(), "AEC mode");
  EXPECT_EQ(mode_.DbPolicyName(), "aec_mode");
  EXPECT_EQ(mode_.ValueDescriptions(),
            (std::map<std::string, std::string>{{"0", "Soft mode"},
                                                {"1", "Hard mode"}}));
  EXPECT_EQ(mode_.RequestGetter(), getter_);
  EXPECT_EQ(mode_.Type(), "enum");
  EXPECT_EQ(mode_.ValueNodeName(), "type");
  EXPECT_EQ(mode_.DefaultValue(), "0");
}

TEST_F(ModeStatePoliciesTest, BothPoliciesWriteThroughTheOneSetter) {
  state_.SetValue("1");
  state_.Apply();
  // The mode is still unknown: nothing may reach the kernel yet.
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "<unwritten>");

  mode_.SetValue("0");
  mode_.Apply();
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "1");
  EXPECT_EQ(setter_->State(), 1);
  EXPECT_EQ(setter_->Mode(), 0);
}

TEST_F(ModeStatePoliciesTest,
       HardModeWithFailingCheckLeavesModeAtZeroAndKernelInSoftMode) {
  kerneltest::DriveToNotConfirmed();
  state_.SetValue("1");
  state_.Apply();
  log_.Clear();

  mode_.SetValue("1");
  EXPECT_NO_THROW(mode_.Apply());

  EXPECT_EQ(mode_.Value(), "0");
  EXPECT_EQ(state_.Value(), "1");
  EXPECT_EQ(setter_->Mode(), 0);
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "1");
  EXPECT_TRUE(log_.Contains("aecmodepolicy:"));
  EXPECT_TRUE(log_.Contains(kHardModeOffLine));
}

TEST_F(ModeStatePoliciesTest, HardModeRefusedFromTheStateSwitchesControlOff) {
  kerneltest::DriveToNotConfirmed();
  mode_.SetValue("1");
  mode_.Apply();  // state unknown: nothing written, nothing checked
  ASSERT_EQ(ReadParameter(kEnvironmentFile), "<unwritten>");
  log_.Clear();

  state_.SetValue("1");
  EXPECT_NO_THROW(state_.Apply());

  EXPECT_EQ(state_.Value(), "0");
  EXPECT_EQ(mode_.Value(), "1");
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "2");
  EXPECT_TRUE(log_.Contains("aecstatepolicy:"));
  EXPECT_TRUE(log_.Contains(kHardModeOffLine));
  // Control is off after the fallback: the rules are not restarted.
  EXPECT_TRUE(kxtest::FakeToolCalls("kxaecctl").empty());
}

TEST_F(ModeStatePoliciesTest, HardModeSwitchedOnAnewStaysOnAwaitingConfirm) {
  state_.SetValue("1");
  state_.Apply();
  mode_.SetValue("0");
  mode_.Apply();
  ASSERT_EQ(ReadParameter(kEnvironmentFile), "1");

  mode_.SetValue("1");
  mode_.Apply();

  EXPECT_EQ(mode_.Value(), "1");
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "3");
  EXPECT_EQ(AecHardModeConfirmation::Get()->State(), 1);
  EXPECT_FALSE(log_.Contains("AEC Hard mode is off"));
}

TEST_F(ModeStatePoliciesTest, ExceptionsOtherThanRefusalPassThrough) {
  // Output without a final newline makes the tool driver throw a length
  // error, which neither the setter nor the policy may swallow.
  kxtest::FakeBehaviour broken;
  broken.lines = {"half a line"};
  broken.last_line_without_newline = true;
  kxtest::InstallFakeTool("kxaecctl", broken);

  mode_.SetValue("0");
  mode_.Apply();
  EXPECT_THROW(state_.ApplyKernelValue(1), std::length_error);
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "<unwritten>");
  EXPECT_FALSE(log_.Contains("AEC Hard mode is off"));
}

TEST_F(ModeStatePoliciesTest, LocalSourceDoesNotTouchTheConfirmation) {
  auto& confirmation = AecHardModeConfirmation::Get();
  confirmation->RequiereConfirmation();
  ASSERT_TRUE(confirmation->Check(true));

  state_.SetSource("local");

  EXPECT_EQ(state_.Source(), "local");
  EXPECT_TRUE(confirmation->Required());
  EXPECT_EQ(confirmation->State(), 1);
}

TEST_F(ModeStatePoliciesTest, AnyOtherSourceLiftsTheConfirmation) {
  auto& confirmation = AecHardModeConfirmation::Get();
  for (const std::string source : {"dorvi", "yunko", "Local", "central-7"}) {
    SCOPED_TRACE(source);
    confirmation->RequiereConfirmation();
    ASSERT_TRUE(confirmation->Check(true));
    ASSERT_EQ(confirmation->State(), 1);

    state_.SetSource(source);

    EXPECT_EQ(state_.Source(), source);
    EXPECT_FALSE(confirmation->Required());
    EXPECT_EQ(confirmation->State(), 2);
  }
}

TEST_F(ModeStatePoliciesTest, ModePolicySourceNeverTouchesTheConfirmation) {
  auto& confirmation = AecHardModeConfirmation::Get();
  confirmation->RequiereConfirmation();
  ASSERT_TRUE(confirmation->Check(true));
  mode_.SetSource("dorvi");
  EXPECT_TRUE(confirmation->Required());
  EXPECT_EQ(confirmation->State(), 1);
}

}  // namespace
