// kxaecctl update, enable, disable, rename.
#include <boost/filesystem/operations.hpp>
#include <set>
#include <string>
#include <vector>

#include "tools_test_util.h"

namespace {

using toolstest::RuleJson;
using toolstest::RulePath;
using Lines = std::vector<std::string>;
using Names = std::set<std::string>;

class KxaecctlEditTest : public toolstest::TwoResourcesTest {
 protected:
  void SetUp() override {
    TwoResourcesTest::SetUp();
    kxtest::WriteFile(RulePath("r1"), RuleJson("r1", false, false, false, true,
                                               {"bin", "root"}, {"adm"}, {a_}));
    kxtest::WriteFile(RulePath("sys"),
                      RuleJson("sys", false, false, true, true, {}, {}, {a_}));
    Seal();
  }
};

}  // namespace

TEST_F(KxaecctlEditTest, UpdateReplacesUsersAndGroupsTogether) {
  ASSERT_EQ(Ctl({"update", "-C", "-v", "-n", "r1", "-u", "daemon"}).exit_code,
            0);
  EXPECT_EQ(kxtest::ReadFile(RulePath("r1")),
            RuleJson("r1", false, false, false, true, {"daemon"}, {}, {a_}));
}

TEST_F(KxaecctlEditTest, UpdateReplacesTheResourcesAndKeepsTheMembers) {
  ASSERT_EQ(Ctl({"update", "-n", "r1", "-r", b_, "-d"}).exit_code, 0);
  EXPECT_EQ(kxtest::ReadFile(RulePath("r1")),
            RuleJson("r1", false, false, false, true, {"bin", "root"}, {"adm"},
                     {b_}));
}

TEST_F(KxaecctlEditTest, UpdateWithAllUsersDropsTheMembers) {
  ASSERT_EQ(Ctl({"update", "-n", "r1", "-a", "-D"}).exit_code, 0);
  EXPECT_EQ(kxtest::ReadFile(RulePath("r1")),
            RuleJson("r1", true, false, false, false, {}, {}, {a_}));
  // And named members make it a rule for them again.
  ASSERT_EQ(Ctl({"update", "-n", "r1", "-g", "adm"}).exit_code, 0);
  EXPECT_EQ(kxtest::ReadFile(RulePath("r1")),
            RuleJson("r1", false, false, false, false, {}, {"adm"}, {a_}));
}

TEST_F(KxaecctlEditTest, UpdateOfAMissingRuleIsFourteen) {
  const auto run = Ctl({"update", "-v", "-n", "nope", "-u", "root"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kRuleMissing);
  EXPECT_EQ(run.OutLines(), (Lines{"nope"}));
}

TEST_F(KxaecctlEditTest, UpdateOfASystemRuleIsSixteen) {
  EXPECT_EQ(Ctl({"update", "-n", "sys", "-u", "root"}).exit_code,
            KxAecCtl::kSystemRule);
}

TEST_F(KxaecctlEditTest, UpdateToAnEmptyResourceListIsFifteen) {
  const std::string empty_dir = toolstest::kResourceDir + "empty";
  ASSERT_TRUE(boost::filesystem::create_directories(empty_dir));
  EXPECT_EQ(Ctl({"update", "-n", "r1", "-r", empty_dir}).exit_code,
            KxAecCtl::kResourceListEmpty);
}

TEST_F(KxaecctlEditTest, UpdateWithUnknownUsersIsFour) {
  EXPECT_EQ(Ctl({"update", "-n", "r1", "-u", "kx-nobody"}).exit_code,
            KxAecCtl::kUsersNotFound);
}

TEST_F(KxaecctlEditTest, DisableAndEnableSwitchTheRule) {
  ASSERT_EQ(Ctl({"disable", "-C", "-v", "-n", "r1"}).exit_code, 0);
  EXPECT_EQ(kxtest::ReadFile(RulePath("r1")),
            RuleJson("r1", false, false, false, false, {"bin", "root"}, {"adm"},
                     {a_}));
  ASSERT_EQ(Ctl({"enable", "-C", "-v", "-n", "r1"}).exit_code, 0);
  EXPECT_EQ(kxtest::ReadFile(RulePath("r1")),
            RuleJson("r1", false, false, false, true, {"bin", "root"}, {"adm"},
                     {a_}));
}

TEST_F(KxaecctlEditTest, SwitchingAMissingOrSystemRuleIsFourteenOrSixteen) {
  auto run = Ctl({"disable", "-v", "-n", "nope"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kRuleMissing);
  EXPECT_EQ(run.OutLines(), (Lines{"nope"}));
  EXPECT_EQ(Ctl({"enable", "-n", "sys"}).exit_code, KxAecCtl::kSystemRule);
  EXPECT_EQ(Ctl({"enable"}).exit_code, KxAecCtl::kInvalidArgument);
}

TEST_F(KxaecctlEditTest, RenameMovesTheRuleToItsNewName) {
  ASSERT_EQ(Ctl({"rename", "-C", "-v", "-n", "r1", "-N", "r9"}).exit_code, 0);
  EXPECT_EQ(toolstest::RuleFiles(), (Names{"r9.conf", "sys.conf"}));
  EXPECT_EQ(kxtest::ReadFile(RulePath("r9")),
            RuleJson("r9", false, false, false, true, {"bin", "root"}, {"adm"},
                     {a_}));
}

TEST_F(KxaecctlEditTest, RenameOntoAnExistingRuleIsEighteen) {
  ASSERT_EQ(Ctl({"add", "-n", "r2", "-r", a_}).exit_code, 0);
  const auto run = Ctl({"rename", "-v", "-n", "r1", "-N", "r2"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kRuleExists);
  EXPECT_EQ(run.OutLines(), (Lines{"r2"}));
  EXPECT_TRUE(kxtest::Exists(RulePath("r1")));
}

TEST_F(KxaecctlEditTest, RenameOfAMissingOrSystemRuleIsFourteenOrSixteen) {
  EXPECT_EQ(Ctl({"rename", "-n", "nope", "-N", "x"}).exit_code,
            KxAecCtl::kRuleMissing);
  EXPECT_EQ(Ctl({"rename", "-n", "sys", "-N", "x"}).exit_code,
            KxAecCtl::kSystemRule);
}

TEST_F(KxaecctlEditTest, RenameToANameThatCannotBeAFileIsInvalid) {
  EXPECT_EQ(Ctl({"rename", "-n", "r1", "-N", "a/b"}).exit_code,
            KxAecCtl::kInvalidArgument);
  EXPECT_EQ(Ctl({"rename", "-n", "r1"}).exit_code, KxAecCtl::kInvalidArgument);
}
