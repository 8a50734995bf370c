// kxaecctl rm: rules, members of a rule, whitelist members, exceptions.
#include <set>
#include <string>
#include <vector>

#include "tools_test_util.h"

namespace {

using toolstest::RuleJson;
using toolstest::RulePath;
using Lines = std::vector<std::string>;
using Names = std::set<std::string>;

class KxaecctlRmTest : public toolstest::TwoResourcesTest {
 protected:
  void SetUp() override {
    TwoResourcesTest::SetUp();
    kxtest::WriteFile(RulePath("r1"),
                      RuleJson("r1", false, false, false, true, {"bin", "root"},
                               {"adm"}, {a_, b_}));
    kxtest::WriteFile(RulePath("r2"),
                      RuleJson("r2", true, false, false, true, {}, {}, {a_}));
    kxtest::WriteFile(RulePath("sys"),
                      RuleJson("sys", false, false, true, true, {}, {}, {a_}));
    kxtest::WriteFile(toolstest::kWhitelist,
                      toolstest::WhitelistJson({"root", "daemon"}, {"adm"}));
    Seal();
  }
};

}  // namespace

TEST_F(KxaecctlRmTest, RmRemovesTheNamedRules) {
  const auto run = Ctl({"rm", "-C", "-v", "-n", "r1", "r2"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(toolstest::RuleFiles(), (Names{"sys.conf"}));
}

TEST_F(KxaecctlRmTest, RmOfAMissingRuleIsFourteenAndRemovesNothing) {
  const auto run = Ctl({"rm", "-v", "-n", "r1", "nope", "gone"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kRuleMissing);
  EXPECT_EQ(run.OutLines(), (Lines{"nope", "gone"}));
  EXPECT_EQ(toolstest::RuleFiles(), (Names{"r1.conf", "r2.conf", "sys.conf"}));
}

TEST_F(KxaecctlRmTest, RmOfASystemRuleIsSixteen) {
  const auto run = Ctl({"rm", "-v", "-n", "r1", "sys"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kSystemRule);
  EXPECT_EQ(run.OutLines(), (Lines{"sys"}));
  EXPECT_TRUE(kxtest::Exists(RulePath("r1")));
}

TEST_F(KxaecctlRmTest, RmAllRemovesEveryRuleButTheSystemRules) {
  ASSERT_EQ(Ctl({"rm", "-C", "-v", "-A"}).exit_code, 0);
  EXPECT_EQ(toolstest::RuleFiles(), (Names{"sys.conf"}));
  EXPECT_EQ(Ctl({"rm", "-A", "-n", "r1"}).exit_code,
            KxAecCtl::kInvalidArgument);
}

TEST_F(KxaecctlRmTest, RmWithMembersTakesThemOffTheRule) {
  const auto run =
      Ctl({"rm", "-C", "-v", "-n", "r1", "-r", b_, "-u", "bin", "-g", "adm"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(kxtest::ReadFile(RulePath("r1")),
            RuleJson("r1", false, false, false, true, {"root"}, {}, {a_}));
}

TEST_F(KxaecctlRmTest, MembersNotInTheRuleAreSevenEightAndNine) {
  auto run = Ctl({"rm", "-v", "-n", "r1", "-u", "daemon", "root"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kUsersNotInRule);
  EXPECT_EQ(run.OutLines(), (Lines{"daemon"}));
  run = Ctl({"rm", "-v", "-n", "r1", "-g", "root"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kGroupsNotInRule);
  EXPECT_EQ(run.OutLines(), (Lines{"root"}));
  run = Ctl({"rm", "-v", "-n", "r1", "-r", "/kx/other"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kResourcesNotInRule);
  EXPECT_EQ(run.OutLines(), (Lines{"/kx/other"}));
  EXPECT_EQ(kxtest::ReadFile(RulePath("r1")),
            RuleJson("r1", false, false, false, true, {"bin", "root"}, {"adm"},
                     {a_, b_}));
}

TEST_F(KxaecctlRmTest, RemovingTheLastResourceIsFifteen) {
  EXPECT_EQ(Ctl({"rm", "-n", "r1", "-r", a_, b_}).exit_code,
            KxAecCtl::kResourceListEmpty);
  EXPECT_TRUE(kxtest::Exists(RulePath("r1")));
}

TEST_F(KxaecctlRmTest, RemovingUsersFromAnAllUsersRuleIsSeventeen) {
  EXPECT_EQ(Ctl({"rm", "-n", "r2", "-u", "root"}).exit_code,
            KxAecCtl::kAllowedForAll);
}

TEST_F(KxaecctlRmTest, RmWithoutANameTakesMembersOffTheWhitelist) {
  ASSERT_EQ(Ctl({"rm", "-C", "-v", "-u", "root", "-g", "adm"}).exit_code, 0);
  EXPECT_EQ(kxtest::ReadFile(toolstest::kWhitelist),
            toolstest::WhitelistJson({"daemon"}, {}));
}

TEST_F(KxaecctlRmTest, WhitelistMembersNotInTheWhitelistAreSevenAndEight) {
  auto run = Ctl({"rm", "-v", "-u", "bin"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kUsersNotInRule);
  EXPECT_EQ(run.OutLines(), (Lines{"bin"}));
  EXPECT_EQ(Ctl({"rm", "-g", "daemon"}).exit_code, KxAecCtl::kGroupsNotInRule);
}

TEST_F(KxaecctlRmTest, TheWhitelistUnderCentralizedControlIsThirteen) {
  toolstest::SetWhitelistSource("yunko");
  Seal();
  EXPECT_EQ(Ctl({"rm", "-u", "root"}).exit_code, KxAecCtl::kCentralizedControl);
}

TEST_F(KxaecctlRmTest, RmWithoutANameTakesResourceExceptionsOff) {
  ASSERT_EQ(Ctl({"add", "-r", a_, b_}).exit_code, 0);
  ASSERT_EQ(Ctl({"rm", "-C", "-v", "-r", a_}).exit_code, 0);
  EXPECT_EQ(kxtest::ReadFile(toolstest::kExceptions),
            "{\n    \"resource_list\": [\n        \"" +
                toolstest::JsonEscaped(b_) + "\"\n    ]\n}\n");
  ASSERT_EQ(Ctl({"rm", "-r", b_}).exit_code, 0);
  // An empty list is written as the plug-in writes it.
  EXPECT_EQ(kxtest::ReadFile(toolstest::kExceptions),
            "{\n    \"resource_list\": \"\"\n}\n");
}

TEST_F(KxaecctlRmTest, AnExceptionThatIsNotThereIsNine) {
  const auto run = Ctl({"rm", "-v", "-r", "/kx/none"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kResourcesNotInRule);
  EXPECT_EQ(run.OutLines(), (Lines{"/kx/none"}));
}

TEST_F(KxaecctlRmTest, RmWithNothingToRemoveIsInvalid) {
  EXPECT_EQ(Ctl({"rm"}).exit_code, KxAecCtl::kInvalidArgument);
  EXPECT_EQ(Ctl({"rm", "-n", "r1", "r2", "-u", "root"}).exit_code,
            KxAecCtl::kInvalidArgument);
}
