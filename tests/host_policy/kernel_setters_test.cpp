// Kernel setters: the changed flag, the mode-and-state encoding written to
// the kernel parameter, and the base flag.
#include "host/kernel_setters.h"

#include <gtest/gtest.h>

#include <boost/filesystem/operations.hpp>
#include <string>

#include "kxtest.h"

namespace {

const std::string kParameter = "korvex/secure/environment";
const std::string kParameterFile =
    "/opt/korvex/var/run/sysctl/korvex/secure/environment";

std::string Written() {
  return kxtest::Exists(kParameterFile) ? kxtest::ReadFile(kParameterFile)
                                        : "<unwritten>";
}

// Exposes the protected flags and lets a test choose ChildApply's answer.
class ScriptedSetter : public IKernelStateSetter {
 public:
  ScriptedSetter() : IKernelStateSetter("test/parameter") {}
  bool ChildApply() override {
    ++calls_;
    return answer_;
  }
  void Change() { SetChanged(true); }
  bool answer_ = true;
  int calls_ = 0;
};

class StateOnlySetter : public KernelStateSetter {
 public:
  StateOnlySetter() : KernelStateSetter("test/state") {}
  bool ChildApply() override { return true; }
};

class ObservableModeStateSetter : public KernelModeStateSetter {
 public:
  ObservableModeStateSetter() : KernelModeStateSetter(kParameter) {}
  bool Base() const { return BaseFlag(); }
};

class KernelSettersTest : public kxtest::SandboxTest {};

TEST_F(KernelSettersTest, ApplyCallsChildApplyAndLowersTheFlagOnSuccess) {
  ScriptedSetter setter;
  EXPECT_FALSE(setter.IsChanged());
  setter.Change();
  EXPECT_TRUE(setter.Apply());
  EXPECT_EQ(setter.calls_, 1);
  EXPECT_FALSE(setter.IsChanged());
  EXPECT_EQ(setter.ParameterName(), "test/parameter");
}

TEST_F(KernelSettersTest, AFailedApplyKeepsTheChangePending) {
  ScriptedSetter setter;
  setter.Change();
  setter.answer_ = false;
  EXPECT_FALSE(setter.Apply());
  EXPECT_TRUE(setter.IsChanged());
}

TEST_F(KernelSettersTest, SetStateRaisesTheFlagOnlyForANewValue) {
  StateOnlySetter setter;
  EXPECT_FALSE(setter.IsStateSet());
  setter.SetState(0);  // first time: a change even though 0 is the start
  EXPECT_TRUE(setter.IsChanged());
  EXPECT_TRUE(setter.IsStateSet());
  ObservableModeStateSetter both;
  both.SetState(1);
  both.SetMode(0);
  ASSERT_TRUE(both.Apply());
  EXPECT_FALSE(both.IsChanged());
  both.SetState(1);
  both.SetMode(0);
  EXPECT_FALSE(both.IsChanged());
  both.SetMode(1);
  EXPECT_TRUE(both.IsChanged());
}

TEST_F(KernelSettersTest, NothingIsWrittenUntilStateAndModeAreSet) {
  ObservableModeStateSetter setter;
  setter.SetState(1);
  EXPECT_FALSE(setter.Apply());
  EXPECT_EQ(Written(), "<unwritten>");
  EXPECT_TRUE(setter.IsChanged());

  ObservableModeStateSetter mode_only;
  mode_only.SetMode(1);
  EXPECT_FALSE(mode_only.Apply());
  EXPECT_EQ(Written(), "<unwritten>");
}

TEST_F(KernelSettersTest, StateAndModeAreOneDecimalNumber) {
  struct Case {
    int state, mode;
    const char* written;
  } cases[] = {{0, 0, "0"}, {1, 0, "1"}, {0, 1, "2"}, {1, 1, "3"}};
  for (const auto& c : cases) {
    ObservableModeStateSetter setter;
    setter.SetState(c.state);
    setter.SetMode(c.mode);
    ASSERT_TRUE(setter.Apply());
    EXPECT_EQ(Written(), c.written) << c.state << "/" << c.mode;
  }
}

TEST_F(KernelSettersTest, ValuesOtherThanOneCountAsZero) {
  ObservableModeStateSetter setter;
  setter.SetState(5);
  setter.SetMode(-1);
  ASSERT_TRUE(setter.Apply());
  EXPECT_EQ(Written(), "0");
  EXPECT_FALSE(setter.Base());
}

TEST_F(KernelSettersTest, BaseFlagStartsTrueAndFollowsWhatWasWritten) {
  ObservableModeStateSetter setter;
  EXPECT_TRUE(setter.Base());
  setter.SetState(1);
  setter.SetMode(0);
  ASSERT_TRUE(setter.Apply());
  EXPECT_FALSE(setter.Base());  // soft mode written
  setter.SetMode(1);
  ASSERT_TRUE(setter.Apply());
  EXPECT_TRUE(setter.Base());  // hard mode on written
  setter.SetState(0);
  ASSERT_TRUE(setter.Apply());
  EXPECT_FALSE(setter.Base());  // off, hard mode chosen, is not hard mode on
}

TEST_F(KernelSettersTest, AFailedWriteKeepsTheBaseFlagAndThePendingChange) {
  // A directory where the parameter's file belongs cannot be written.
  ASSERT_TRUE(boost::filesystem::create_directories(kParameterFile));
  ObservableModeStateSetter setter;
  setter.SetState(1);
  setter.SetMode(0);
  EXPECT_FALSE(setter.Apply());
  EXPECT_TRUE(setter.Base());
  EXPECT_TRUE(setter.IsChanged());
}

}  // namespace
