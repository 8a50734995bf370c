// The confirmation state machine: every transition of its table, the state
// file, fresh-boot detection and the handler calls.
#include "host/confirmation.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <string>
#include <vector>

#include "kxtest.h"

namespace {

const std::string kStateFile = "/opt/korvex/var/aec_confirm";
const std::string kLockFile = "/opt/korvex/var/tmp/rm/aec_confirm_lock";

// Records the handlers in the order the state machine calls them.
class RecordingConfirmation : public LockFileConfirmation {
 public:
  RecordingConfirmation(const std::string& state_file = kStateFile,
                        const std::string& lock_file = kLockFile)
      : LockFileConfirmation(state_file, lock_file) {}
  bool HandlerInit() override { return Note("Init"); }
  bool HandlerWaitForConfirmation() override { return Note("Wait"); }
  bool HandlerConfirmed() override { return Note("Confirmed"); }
  bool HandlerNotConfirmed() override { return Note("NotConfirmed"); }

  std::vector<std::string> calls_;
  bool answer_ = true;

 private:
  bool Note(const std::string& name) {
    calls_.push_back(name);
    return answer_;
  }
};

using Calls = std::vector<std::string>;

class ConfirmationTest : public kxtest::SandboxTest {
 protected:
  // Puts a record in place as another process (or an earlier boot) left it.
  void Given(int state, bool required, bool lock_file_present) {
    kxtest::WriteFile(kStateFile, "state=" + std::to_string(state) +
                                      "\nrequired=" + (required ? "1" : "0") +
                                      "\n");
    if (lock_file_present) {
      kxtest::WriteFile(kLockFile, "");
    } else {
      ::unlink(kLockFile.c_str());
    }
  }
  std::string Record() {
    return kxtest::Exists(kStateFile) ? kxtest::ReadFile(kStateFile) : "<none>";
  }

  RecordingConfirmation confirmation_;
};

TEST_F(ConfirmationTest, FreshInstallationIsConfirmedAndRequired) {
  EXPECT_EQ(confirmation_.State(), 2);
  EXPECT_TRUE(confirmation_.Required());
  EXPECT_EQ(Record(), "<none>");
}

TEST_F(ConfirmationTest, UnreadableRecordReadsAsConfirmedAndRequired) {
  for (const char* text : {"garbage", "state=abc\nrequired=0\n", "state=1\n",
                           "state=1\nrequired=2\n"}) {
    kxtest::WriteFile(kStateFile, text);
    EXPECT_EQ(confirmation_.State(), 2) << text;
    EXPECT_TRUE(confirmation_.Required()) << text;
  }
}

TEST_F(ConfirmationTest, RecordWrittenElsewhereIsSeenAtOnce) {
  Given(1, true, true);
  EXPECT_EQ(confirmation_.State(), 1);
  kxtest::WriteFile(kStateFile, "state=2\nrequired=1\n");  // the tool's confirm
  EXPECT_EQ(confirmation_.State(), 2);
}

TEST_F(ConfirmationTest, UnknownStateIsKeptAndRefused) {
  Given(7, true, true);
  EXPECT_EQ(confirmation_.State(), 7);
  EXPECT_FALSE(confirmation_.Confirm());
  EXPECT_FALSE(confirmation_.Check(false));
  Given(-1, true, true);
  EXPECT_EQ(confirmation_.State(), -1);
  EXPECT_TRUE(confirmation_.calls_.empty());
}

TEST_F(ConfirmationTest, RecordIsStateAndRequiredLines) {
  Given(2, true, true);
  EXPECT_TRUE(confirmation_.Check(true));
  EXPECT_EQ(Record(), "state=1\nrequired=1\n");
  confirmation_.NotRequiereConfirmation();
  EXPECT_EQ(Record(), "state=2\nrequired=0\n");
}

// RequiereConfirmation / NotRequiereConfirmation

TEST_F(ConfirmationTest, RequiereConfirmationSetsRequiredKeepsTheState) {
  Given(1, false, true);
  confirmation_.RequiereConfirmation();
  EXPECT_TRUE(confirmation_.Required());
  EXPECT_EQ(confirmation_.State(), 1);
  EXPECT_TRUE(confirmation_.calls_.empty());
}

TEST_F(ConfirmationTest, NotRequiereConfirmationEndsAPendingRoundConfirmed) {
  for (int pending : {0, 1}) {
    Given(pending, true, true);
    confirmation_.calls_.clear();
    confirmation_.NotRequiereConfirmation();
    EXPECT_FALSE(confirmation_.Required());
    EXPECT_EQ(confirmation_.State(), 2) << pending;
    EXPECT_EQ(confirmation_.calls_, Calls{"Confirmed"}) << pending;
  }
}

TEST_F(ConfirmationTest, NotRequiereConfirmationLeavesConfirmedAndRefused) {
  for (int state : {2, 3}) {
    Given(state, true, true);
    confirmation_.calls_.clear();
    confirmation_.NotRequiereConfirmation();
    EXPECT_FALSE(confirmation_.Required());
    EXPECT_EQ(confirmation_.State(), state);
    EXPECT_TRUE(confirmation_.calls_.empty());
  }
}

// Confirm

TEST_F(ConfirmationTest, ConfirmEndsAPendingRound) {
  for (int pending : {0, 1}) {
    Given(pending, true, true);
    confirmation_.calls_.clear();
    EXPECT_TRUE(confirmation_.Confirm());
    EXPECT_EQ(confirmation_.State(), 2);
    EXPECT_EQ(confirmation_.calls_, Calls{"Confirmed"});
  }
}

TEST_F(ConfirmationTest, ConfirmOfConfirmedIsTrueAndQuiet) {
  Given(2, true, true);
  EXPECT_TRUE(confirmation_.Confirm());
  EXPECT_EQ(confirmation_.State(), 2);
  EXPECT_TRUE(confirmation_.calls_.empty());
}

TEST_F(ConfirmationTest, ConfirmOfRefusedIsFalse) {
  Given(3, true, true);
  EXPECT_FALSE(confirmation_.Confirm());
  EXPECT_EQ(confirmation_.State(), 3);
  EXPECT_TRUE(confirmation_.calls_.empty());
}

// Check

TEST_F(ConfirmationTest, CheckWhenNotRequiredIsTrueAndChangesNothing) {
  for (int state : {0, 1, 3}) {
    Given(state, false, false);
    confirmation_.calls_.clear();
    EXPECT_TRUE(confirmation_.Check(false));
    EXPECT_TRUE(confirmation_.Check(true));
    EXPECT_EQ(confirmation_.State(), state);
    EXPECT_TRUE(confirmation_.calls_.empty());
  }
}

TEST_F(ConfirmationTest, SwitchingOnStartsANewRoundFromAnyState) {
  for (int state : {0, 1, 2, 3}) {
    Given(state, true, state % 2 == 0);
    confirmation_.calls_.clear();
    EXPECT_TRUE(confirmation_.Check(true)) << state;
    EXPECT_EQ(confirmation_.State(), 1) << state;
    EXPECT_EQ(confirmation_.calls_, Calls{"Wait"}) << state;
  }
}

TEST_F(ConfirmationTest, CheckKeepsConfirmedHardModeAlsoAfterABoot) {
  for (bool lock : {true, false}) {
    Given(2, true, lock);
    EXPECT_TRUE(confirmation_.Check(false));
    EXPECT_EQ(confirmation_.State(), 2);
  }
  EXPECT_TRUE(confirmation_.calls_.empty());
}

TEST_F(ConfirmationTest, CheckRefusesARefusedRecord) {
  for (bool lock : {true, false}) {
    Given(3, true, lock);
    EXPECT_FALSE(confirmation_.Check(false));
    EXPECT_EQ(confirmation_.State(), 3);
  }
  EXPECT_TRUE(confirmation_.calls_.empty());
}

TEST_F(ConfirmationTest, AwaitingOnAFreshBootBecomesAwaitingAfterReboot) {
  Given(1, true, false);
  EXPECT_TRUE(confirmation_.Check(false));
  EXPECT_EQ(confirmation_.State(), 0);
  EXPECT_EQ(confirmation_.calls_, (Calls{"Init", "Wait"}));
}

TEST_F(ConfirmationTest, AwaitingWithinTheSameBootStaysAwaiting) {
  Given(1, true, true);
  EXPECT_TRUE(confirmation_.Check(false));
  EXPECT_EQ(confirmation_.State(), 1);
  EXPECT_TRUE(confirmation_.calls_.empty());
}

TEST_F(ConfirmationTest, AwaitingAfterRebootOnAnotherFreshBootIsRefused) {
  Given(0, true, false);
  EXPECT_FALSE(confirmation_.Check(false));
  EXPECT_EQ(confirmation_.State(), 3);
  EXPECT_EQ(confirmation_.calls_, Calls{"NotConfirmed"});
}

TEST_F(ConfirmationTest, AwaitingAfterRebootWithinTheSameBootIsKept) {
  Given(0, true, true);
  EXPECT_TRUE(confirmation_.Check(false));
  EXPECT_EQ(confirmation_.State(), 0);
  EXPECT_TRUE(confirmation_.calls_.empty());
}

TEST_F(ConfirmationTest, CheckMarksTheBootAfterDeciding) {
  Given(1, true, false);
  EXPECT_TRUE(confirmation_.IsFreshBoot());
  confirmation_.Check(false);
  EXPECT_TRUE(kxtest::Exists(kLockFile));
  EXPECT_FALSE(confirmation_.IsFreshBoot());
  // The same service goes on: no second "reboot".
  EXPECT_TRUE(confirmation_.Check(false));
  EXPECT_EQ(confirmation_.State(), 0);
}

TEST_F(ConfirmationTest, AWholeRoundAcrossTwoBootsWithoutConfirmation) {
  EXPECT_TRUE(confirmation_.Check(true));   // switched on while running
  ::unlink(kLockFile.c_str());              // reboot
  EXPECT_TRUE(confirmation_.Check(false));  // kept, users alerted
  ::unlink(kLockFile.c_str());              // reboot again
  EXPECT_FALSE(confirmation_.Check(false));
  EXPECT_EQ(confirmation_.calls_,
            (Calls{"Wait", "Init", "Wait", "NotConfirmed"}));
  EXPECT_FALSE(confirmation_.Confirm());
  EXPECT_TRUE(confirmation_.Check(true));  // only switching on anew helps
  EXPECT_TRUE(confirmation_.Confirm());
  EXPECT_EQ(confirmation_.State(), 2);
}

TEST_F(ConfirmationTest, WritingTheRecordMarksTheBoot) {
  ::unlink(kLockFile.c_str());
  confirmation_.NotRequiereConfirmation();
  EXPECT_TRUE(kxtest::Exists(kLockFile));
  EXPECT_EQ(kxtest::ReadFile(kLockFile), "");
}

TEST_F(ConfirmationTest, DirectoriesAreMadeAsNeeded) {
  RecordingConfirmation nested("/opt/korvex/var/new/dir/state",
                               "/opt/korvex/var/new/lock/dir/lock");
  EXPECT_TRUE(nested.CanModifyState());
  EXPECT_TRUE(nested.Check(true));
  EXPECT_EQ(kxtest::ReadFile("/opt/korvex/var/new/dir/state"),
            "state=1\nrequired=1\n");
  EXPECT_TRUE(kxtest::Exists("/opt/korvex/var/new/lock/dir/lock"));
}

TEST_F(ConfirmationTest, FailingHandlersAreLoggedAndDoNotChangeTheDecision) {
  confirmation_.answer_ = false;
  Given(1, true, false);
  EXPECT_TRUE(confirmation_.Check(false));
  EXPECT_EQ(confirmation_.State(), 0);
  EXPECT_TRUE(log_.Contains("confirmation handler HandlerInit failed"));
  EXPECT_TRUE(
      log_.Contains("confirmation handler HandlerWaitForConfirmation failed"));
}

TEST_F(ConfirmationTest, ARecordThatCannotBeWrittenIsLoggedNotThrown) {
  // The state file's directory cannot exist: a plain file is in the way.
  kxtest::WriteFile("/opt/korvex/var/blocked", "");
  RecordingConfirmation blocked("/opt/korvex/var/blocked/state", kLockFile);
  EXPECT_FALSE(blocked.CanModifyState());
  EXPECT_TRUE(blocked.Check(true));  // the decision stands
  EXPECT_EQ(blocked.calls_, Calls{"Wait"});
  EXPECT_TRUE(log_.Contains("cannot keep the confirmation state"));
  // Nothing was kept, so the next look finds the fresh record again.
  EXPECT_EQ(blocked.State(), 2);
}

}  // namespace
