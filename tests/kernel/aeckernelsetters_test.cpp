// The mode/state setter (hard-mode guard, rules restart, station block) and
// the audit mask setter.
#include "aec_policies/aeckernelsetters.h"

#include <string>

#include "kernel_test_util.h"

namespace {

using kerneltest::EventsOfKind;
using kerneltest::kEnvironmentFile;
using kerneltest::kVerboseFile;
using kerneltest::ReadParameter;

class ModeStateSetterTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override { kxtest::InstallFakeTool("kxaecctl", {}); }
  AecKernelModeStateSetter setter_{aec::kModeStateParameter};
};

TEST(NoConfirmedHardModeTest, CarriesItsFixedMessage) {
  const NoConfirmedHardMode error;
  EXPECT_STREQ(error.what(), "AEC Hard Mode is not confirmed");
  const std::runtime_error& base = error;
  EXPECT_STREQ(base.what(), "AEC Hard Mode is not confirmed");
}

TEST(KernelParameterNamesTest, AreTheKernelsOwn) {
  EXPECT_EQ(aec::kModeStateParameter, "korvex/secure/environment");
  EXPECT_EQ(aec::kLogModeParameter, "korvex/secure/secenv_verbose");
}

TEST_F(ModeStateSetterTest, NothingIsWrittenUntilStateAndModeAreBothSet) {
  setter_.SetState(1);
  EXPECT_FALSE(setter_.Apply());
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "<unwritten>");

  AecKernelModeStateSetter mode_only(aec::kModeStateParameter);
  mode_only.SetMode(1);
  EXPECT_FALSE(mode_only.Apply());
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "<unwritten>");
  EXPECT_TRUE(kxtest::FakeToolCalls("kxaecctl").empty());
}

TEST_F(ModeStateSetterTest,
       StateOnInSoftModeConfirmsPendingRoundRerunsRulesWritesSoftMode) {
  auto& confirmation = AecHardModeConfirmation::Get();
  confirmation->RequiereConfirmation();
  ASSERT_TRUE(confirmation->Check(true));
  ASSERT_EQ(confirmation->State(), 1);

  setter_.SetState(1);
  setter_.SetMode(0);
  EXPECT_TRUE(setter_.Apply());

  EXPECT_TRUE(confirmation->Required());
  EXPECT_EQ(confirmation->State(), 2);
  EXPECT_EQ(kxtest::FakeToolCalls("kxaecctl"),
            (std::vector<std::vector<std::string>>{{"restart"}}));
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "1");
  EXPECT_TRUE(EventsOfKind("block_station").empty());
}

TEST_F(ModeStateSetterTest, SoftModeApplicationAsksForConfirmationAgain) {
  // A remote source lifted the need to confirm; going back to soft mode
  // restores it, so the next switch to hard mode is confirmed locally.
  auto& confirmation = AecHardModeConfirmation::Get();
  confirmation->NotRequiereConfirmation();
  ASSERT_FALSE(confirmation->Required());

  setter_.SetState(1);
  setter_.SetMode(0);
  EXPECT_TRUE(setter_.Apply());

  EXPECT_TRUE(confirmation->Required());
  EXPECT_EQ(confirmation->State(), 2);
}

TEST_F(ModeStateSetterTest, LeavingHardModeClosesAPendingRound) {
  auto& confirmation = AecHardModeConfirmation::Get();
  confirmation->RequiereConfirmation();
  ASSERT_TRUE(confirmation->Check(true));
  ASSERT_EQ(confirmation->State(), 1);
  ASSERT_TRUE(kxtest::Exists(kerneltest::kWarningFile));

  setter_.SetState(0);
  setter_.SetMode(0);
  EXPECT_TRUE(setter_.Apply());

  EXPECT_EQ(confirmation->State(), 2);
  EXPECT_FALSE(kxtest::Exists(kerneltest::kWarningFile));
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "0");
  // Control off: the rules are not touched.
  EXPECT_TRUE(kxtest::FakeToolCalls("kxaecctl").empty());
}

TEST_F(ModeStateSetterTest, HardModeWithStateOffNeitherChecksNorRerunsRules) {
  // A confirmation that would refuse hard mode if it were asked.
  kerneltest::DriveToNotConfirmed();
  kxhost::ClearEvents();

  setter_.SetState(0);
  setter_.SetMode(1);
  EXPECT_NO_THROW(EXPECT_TRUE(setter_.Apply()));

  EXPECT_EQ(ReadParameter(kEnvironmentFile), "2");
  EXPECT_TRUE(kxtest::FakeToolCalls("kxaecctl").empty());
  EXPECT_EQ(AecHardModeConfirmation::Get()->State(), 3);
}

TEST_F(ModeStateSetterTest, HardModeSwitchedOnAnewStartsARoundAndWrites3) {
  setter_.SetState(1);
  setter_.SetMode(0);
  ASSERT_TRUE(setter_.Apply());  // soft mode written first

  setter_.SetMode(1);
  EXPECT_TRUE(setter_.Apply());

  EXPECT_EQ(AecHardModeConfirmation::Get()->State(), 1);
  EXPECT_TRUE(kxtest::Exists(kerneltest::kWarningFile));
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "3");
  EXPECT_EQ(kxtest::FakeToolCalls("kxaecctl").size(), 2u);
}

TEST_F(ModeStateSetterTest, RefusedHardModeThrowsAndWritesNothing) {
  kerneltest::DriveToNotConfirmed();
  // A new setter is a new service start: hard mode is kept, not switched on
  // anew, so the refusal stands.
  setter_.SetState(1);
  setter_.SetMode(1);
  EXPECT_THROW(setter_.Apply(), NoConfirmedHardMode);
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "<unwritten>");
  EXPECT_TRUE(kxtest::FakeToolCalls("kxaecctl").empty());
}

TEST_F(ModeStateSetterTest, FailingRestartBlocksStationAndStillWrites) {
  kxtest::FakeBehaviour failing;
  failing.exit_code = 6;
  kxtest::InstallFakeTool("kxaecctl", failing);

  setter_.SetState(1);
  setter_.SetMode(0);
  EXPECT_TRUE(setter_.Apply());

  const auto blocks = EventsOfKind("block_station");
  ASSERT_EQ(blocks.size(), 1u);
  EXPECT_EQ(blocks[0].args,
            (std::vector<std::string>{"Failed to apply AEC rules", "1"}));
  EXPECT_TRUE(log_.Contains("aeckernelsetters:"));
  // No single policy owns the setter: the core's identifier, (0x10 << 24) | 3.
  EXPECT_TRUE(log_.Contains("[268435459] aec: failed to apply AEC rules"));
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "1");
}

TEST_F(ModeStateSetterTest, RestartThatCannotStartBlocksStationAndStillWrites) {
  ASSERT_EQ(::unlink("/opt/korvex/bin/kxaecctl"), 0);

  setter_.SetState(1);
  setter_.SetMode(0);
  EXPECT_TRUE(setter_.Apply());

  EXPECT_EQ(EventsOfKind("block_station").size(), 1u);
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "1");
}

TEST_F(ModeStateSetterTest, SuccessfulRestartDoesNotBlock) {
  setter_.SetState(1);
  setter_.SetMode(0);
  ASSERT_TRUE(setter_.Apply());
  EXPECT_TRUE(EventsOfKind("block_station").empty());
  EXPECT_FALSE(log_.Contains("failed to apply AEC rules"));
}

class LogModeSetterTest : public kxtest::SandboxTest {
 protected:
  AecLogModeSetter setter_{aec::kLogModeParameter};
};

TEST_F(LogModeSetterTest, StartsWithAnEmptyMaskAndWritesItAsDecimal) {
  EXPECT_EQ(setter_.Mask(), 0);
  EXPECT_FALSE(setter_.IsChanged());
  EXPECT_TRUE(setter_.Apply());
  EXPECT_EQ(ReadParameter(kVerboseFile), "0");
}

TEST_F(LogModeSetterTest, DefaultsGive15AndOpeningFilesMakesIt31) {
  for (auto type :
       {AecLogModeSetter::kLogPermExec, AecLogModeSetter::kLogDenyExec,
        AecLogModeSetter::kLogPermOpenLib, AecLogModeSetter::kLogDenyOpenLib}) {
    setter_.SetLogMode(type, 1);
  }
  ASSERT_TRUE(setter_.Apply());
  EXPECT_EQ(ReadParameter(kVerboseFile), "15");

  setter_.SetLogMode(AecLogModeSetter::kLogPermOpenFile, 1);
  ASSERT_TRUE(setter_.Apply());
  EXPECT_EQ(ReadParameter(kVerboseFile), "31");
}

TEST_F(LogModeSetterTest, ApplyingValueEqualToCurrentBitDoesNotMarkChanged) {
  setter_.SetLogMode(AecLogModeSetter::kLogDenyExec, 0);
  EXPECT_FALSE(setter_.IsChanged());

  setter_.SetLogMode(AecLogModeSetter::kLogDenyExec, 1);
  EXPECT_TRUE(setter_.IsChanged());
  ASSERT_TRUE(setter_.Apply());
  ASSERT_FALSE(setter_.IsChanged());

  setter_.SetLogMode(AecLogModeSetter::kLogDenyExec, 1);
  EXPECT_FALSE(setter_.IsChanged());
  setter_.SetLogMode(AecLogModeSetter::kLogDenyExec, 5);
  EXPECT_FALSE(setter_.IsChanged());
  EXPECT_EQ(setter_.Mask(), 2);
}

TEST_F(LogModeSetterTest, AnyNonZeroValueSetsTheBit) {
  setter_.SetLogMode(AecLogModeSetter::kLogDenyOpenFile, 7);
  EXPECT_TRUE(setter_.GetLogMode(AecLogModeSetter::kLogDenyOpenFile));
  setter_.SetLogMode(AecLogModeSetter::kLogPermOpenFile, -1);
  EXPECT_TRUE(setter_.GetLogMode(AecLogModeSetter::kLogPermOpenFile));
  EXPECT_EQ(setter_.Mask(), 48);
  ASSERT_TRUE(setter_.Apply());
  EXPECT_EQ(ReadParameter(kVerboseFile), "48");
}

TEST_F(LogModeSetterTest, ZeroClearsOnlyItsOwnBit) {
  for (int bit = 0; bit < 6; ++bit) {
    setter_.SetLogMode(static_cast<AecLogModeSetter::LogType>(bit), 1);
  }
  ASSERT_EQ(setter_.Mask(), 63);
  setter_.SetLogMode(AecLogModeSetter::kLogDenyOpenLib, 0);
  EXPECT_TRUE(setter_.IsChanged());
  EXPECT_FALSE(setter_.GetLogMode(AecLogModeSetter::kLogDenyOpenLib));
  ASSERT_TRUE(setter_.Apply());
  EXPECT_EQ(ReadParameter(kVerboseFile), "55");
}

}  // namespace
