// kxaecctl confirm: the hard-mode confirmation through the service's state.
#include <string>

#include "aec_policies/aechardmodeconfirmation.h"
#include "tools_test_util.h"

namespace {

const std::string kStateFile = "/opt/korvex/var/aec_confirm";
const std::string kLockFile = "/opt/korvex/var/tmp/rm/aec_confirm_lock";
const std::string kWarning =
    "/opt/korvex/var/tmp/pam_messages/aec_confirm_warning";

class KxaecctlConfirmTest : public toolstest::ToolsTest {
 protected:
  // The confirmation as the service keeps it (the plug-in's object, in this
  // process), driven into a round of its own.
  AecHardModeConfirmation& Service() { return *AecHardModeConfirmation::Get(); }
};

}  // namespace

TEST_F(KxaecctlConfirmTest, ConfirmEndsAnAwaitedRoundAndRemovesTheWarning) {
  Service().RequiereConfirmation();
  ASSERT_TRUE(Service().Check(true));  // hard mode switched on: state 1
  ASSERT_EQ(Service().State(), 1);
  ASSERT_TRUE(kxtest::Exists(kWarning));

  const auto run = Ctl({"confirm"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(Service().State(), 2);
  EXPECT_FALSE(kxtest::Exists(kWarning));
}

TEST_F(KxaecctlConfirmTest, ConfirmAfterAReboot) {
  Service().RequiereConfirmation();
  ASSERT_TRUE(Service().Check(true));
  ASSERT_EQ(unlink(kLockFile.c_str()), 0);  // a reboot empties var/tmp/rm
  ASSERT_TRUE(Service().Check(false));
  ASSERT_EQ(Service().State(), 0);
  EXPECT_EQ(Ctl({"confirm"}).exit_code, 0);
  EXPECT_EQ(Service().State(), 2);
  EXPECT_FALSE(kxtest::Exists(kWarning));
}

TEST_F(KxaecctlConfirmTest, ARoundThatRanOutCannotBeConfirmedAndIsThree) {
  Service().RequiereConfirmation();
  ASSERT_TRUE(Service().Check(true));
  ASSERT_EQ(unlink(kLockFile.c_str()), 0);
  ASSERT_TRUE(Service().Check(false));
  ASSERT_EQ(unlink(kLockFile.c_str()), 0);
  ASSERT_FALSE(Service().Check(false));
  ASSERT_EQ(Service().State(), 3);
  const auto run = Ctl({"confirm"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kOperationCanceled);
  EXPECT_EQ(run.out, "");
  EXPECT_NE(run.err.find("switch hard mode off and on again"),
            std::string::npos);
  EXPECT_EQ(Service().State(), 3);
}

TEST_F(KxaecctlConfirmTest, ConfirmWithNothingAwaitedSucceeds) {
  ASSERT_FALSE(kxtest::Exists(kStateFile));
  EXPECT_EQ(Ctl({"confirm"}).exit_code, 0);
  EXPECT_EQ(Service().State(), 2);
}
