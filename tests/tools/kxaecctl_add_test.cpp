// kxaecctl add: rules, whitelist members, resource exceptions.
#include <unistd.h>

#include <string>
#include <vector>

#include "aec_rule.h"
#include "tools_test_util.h"

namespace {

using toolstest::RuleJson;
using toolstest::RulePath;
using Lines = std::vector<std::string>;

class KxaecctlAddTest : public toolstest::SealedTwoResourcesTest {};

}  // namespace

TEST_F(KxaecctlAddTest, AddCreatesTheRuleFileInThePluginsFormat) {
  const auto run = Ctl({"add", "-C", "-v", "-n", "r1", "-u", "root", "bin",
                        "-g", "adm", "-r", b_, a_, "-d"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(kxtest::ReadFile(RulePath("r1")),
            RuleJson("r1", false, false, false, true, {"bin", "root"}, {"adm"},
                     {a_, b_}));
  // And the plug-in reads it back.
  EXPECT_EQ(AecRule(RulePath("r1")).Name(), "r1");
}

TEST_F(KxaecctlAddTest, AddWithAllUsersExtendedAndDisabledSetsTheFlags) {
  ASSERT_EQ(Ctl({"add", "-n", "r1", "-a", "-X", "-D", "-r", a_}).exit_code, 0);
  EXPECT_EQ(kxtest::ReadFile(RulePath("r1")),
            RuleJson("r1", true, true, false, false, {}, {}, {a_}));
}

TEST_F(KxaecctlAddTest, AddToAnExistingRuleAddsItsMembers) {
  ASSERT_EQ(Ctl({"add", "-n", "r1", "-u", "root", "-r", a_}).exit_code, 0);
  const auto run = Ctl({"add", "-C", "-v", "-n", "r1", "-u", "bin", "-g", "adm",
                        "-r", b_, "-D"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(kxtest::ReadFile(RulePath("r1")),
            RuleJson("r1", false, false, false, false, {"bin", "root"}, {"adm"},
                     {a_, b_}));
}

TEST_F(KxaecctlAddTest, ANewRuleWithoutResourcesIsFifteen) {
  const auto run = Ctl({"add", "-v", "-n", "r1", "-u", "root"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kResourceListEmpty);
  EXPECT_EQ(run.out, "");
  EXPECT_FALSE(kxtest::Exists(RulePath("r1")));
}

TEST_F(KxaecctlAddTest, UnknownUsersAreFourWithEachOnItsOwnLine) {
  const auto run = Ctl({"add", "-v", "-n", "r1", "-u", "kx-nobody-1", "root",
                        "kx-nobody-2", "-r", a_});
  EXPECT_EQ(run.exit_code, KxAecCtl::kUsersNotFound);
  EXPECT_EQ(run.OutLines(), (Lines{"kx-nobody-1", "kx-nobody-2"}));
  EXPECT_FALSE(kxtest::Exists(RulePath("r1")));
}

TEST_F(KxaecctlAddTest, UnknownGroupsAreFive) {
  const auto run =
      Ctl({"add", "-v", "-n", "r1", "-g", "adm", "kx-nogroup", "-r", a_});
  EXPECT_EQ(run.exit_code, KxAecCtl::kGroupsNotFound);
  EXPECT_EQ(run.OutLines(), (Lines{"kx-nogroup"}));
}

TEST_F(KxaecctlAddTest, WithoutMinusVTheObjectsGoToStandardErrorOnly) {
  const auto run = Ctl({"add", "-n", "r1", "-u", "kx-nobody", "-r", a_});
  EXPECT_EQ(run.exit_code, KxAecCtl::kUsersNotFound);
  EXPECT_EQ(run.out, "");
  EXPECT_NE(run.err.find("kx-nobody"), std::string::npos);
}

TEST_F(KxaecctlAddTest, AResourceThatDoesNotExistIsTwentyFive) {
  const auto run =
      Ctl({"add", "-v", "-n", "r1", "-r", a_, "/kx/absent", "/kx/gone"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kResourceMissing);
  EXPECT_EQ(run.OutLines(), (Lines{"/kx/absent", "/kx/gone"}));
}

TEST_F(KxaecctlAddTest, ARelativeResourceIsAnInvalidArgument) {
  EXPECT_EQ(Ctl({"add", "-n", "r1", "-r", "bin/ls"}).exit_code,
            KxAecCtl::kInvalidArgument);
}

TEST_F(KxaecctlAddTest, ARuleNameThatCannotBeAFileNameIsAnInvalidArgument) {
  EXPECT_EQ(Ctl({"add", "-n", "../x", "-r", a_}).exit_code,
            KxAecCtl::kInvalidArgument);
  EXPECT_EQ(Ctl({"add", "-n", ".", "-r", a_}).exit_code,
            KxAecCtl::kInvalidArgument);
  EXPECT_EQ(toolstest::RuleFiles(), std::set<std::string>{});
}

TEST_F(KxaecctlAddTest, AllUsersAndNamedUsersExcludeEachOther) {
  EXPECT_EQ(Ctl({"add", "-n", "r1", "-a", "-u", "root", "-r", a_}).exit_code,
            KxAecCtl::kInvalidArgument);
}

TEST_F(KxaecctlAddTest, AddingToASystemRuleIsSixteen) {
  kxtest::WriteFile(RulePath("sys"),
                    RuleJson("sys", false, false, true, true, {}, {}, {a_}));
  Seal();
  const auto run = Ctl({"add", "-v", "-n", "sys", "-u", "root"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kSystemRule);
  EXPECT_EQ(run.OutLines(), (Lines{"sys"}));
}

TEST_F(KxaecctlAddTest, AddingUsersToAnAllUsersRuleIsSeventeen) {
  ASSERT_EQ(Ctl({"add", "-n", "r1", "-a", "-r", a_}).exit_code, 0);
  EXPECT_EQ(Ctl({"add", "-n", "r1", "-u", "root"}).exit_code,
            KxAecCtl::kAllowedForAll);
}

TEST_F(KxaecctlAddTest, ADirectoryStandsForItsFilesAndRecursivelyWithR) {
  const std::string dir = toolstest::kResourceDir + "tree";
  kxtest::WriteFile(dir + "/top", "t");
  kxtest::WriteFile(dir + "/sub/deep", "d");
  ASSERT_EQ(Ctl({"add", "-n", "flat", "-r", dir}).exit_code, 0);
  ASSERT_EQ(Ctl({"add", "-n", "deep", "-R", "-r", dir}).exit_code, 0);
  EXPECT_EQ(
      kxtest::ReadFile(RulePath("flat")),
      RuleJson("flat", false, false, false, true, {}, {}, {dir + "/top"}));
  EXPECT_EQ(kxtest::ReadFile(RulePath("deep")),
            RuleJson("deep", false, false, false, true, {}, {},
                     {dir + "/sub/deep", dir + "/top"}));
}

TEST_F(KxaecctlAddTest, AResourceListFileNamesOnePathPerLine) {
  const std::string list = toolstest::kResourceDir + "list.txt";
  kxtest::WriteFile(list, "# programs\n" + a_ + "\n\n  " + b_ + "  \n");
  ASSERT_EQ(Ctl({"add", "-n", "r1", "-f", list}).exit_code, 0);
  EXPECT_EQ(kxtest::ReadFile(RulePath("r1")),
            RuleJson("r1", false, false, false, true, {}, {}, {a_, b_}));
}

TEST_F(KxaecctlAddTest, AMissingResourceListFileIsTwentyFive) {
  const auto run =
      Ctl({"add", "-v", "-n", "r1", "-f", toolstest::kResourceDir + "none"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kResourceMissing);
  EXPECT_EQ(run.OutLines(), (Lines{toolstest::kResourceDir + "none"}));
}

TEST_F(KxaecctlAddTest, WithoutMinusDWhatAProgramLoadsIsAddedToo) {
  ASSERT_EQ(Ctl({"add", "-n", "with", "-r", "/bin/true"}).exit_code, 0);
  ASSERT_EQ(Ctl({"add", "-n", "without", "-d", "-r", "/bin/true"}).exit_code,
            0);
  const std::string with = kxtest::ReadFile(RulePath("with"));
  EXPECT_NE(with.find("libc.so.6"), std::string::npos) << with;
  EXPECT_NE(with.find("ld-linux"), std::string::npos) << with;
  EXPECT_EQ(
      kxtest::ReadFile(RulePath("without")),
      RuleJson("without", false, false, false, true, {}, {}, {"/bin/true"}));
}

TEST_F(KxaecctlAddTest, AddWithoutANameAddsWhitelistMembers) {
  ASSERT_EQ(Ctl({"add", "-C", "-v", "-u", "daemon", "-g", "adm"}).exit_code, 0);
  ASSERT_EQ(Ctl({"add", "-u", "root", "daemon"}).exit_code, 0);
  EXPECT_EQ(kxtest::ReadFile(toolstest::kWhitelist),
            toolstest::WhitelistJson({"daemon", "root"}, {"adm"}));
}

TEST_F(KxaecctlAddTest, UnknownWhitelistMembersAreFourAndFive) {
  EXPECT_EQ(Ctl({"add", "-u", "kx-nobody"}).exit_code,
            KxAecCtl::kUsersNotFound);
  EXPECT_EQ(Ctl({"add", "-g", "kx-nogroup"}).exit_code,
            KxAecCtl::kGroupsNotFound);
}

TEST_F(KxaecctlAddTest, TheWhitelistUnderCentralizedControlIsThirteen) {
  toolstest::SetWhitelistSource("dorvi");
  Seal();
  const std::string before = kxtest::ReadFile(toolstest::kWhitelist);
  EXPECT_EQ(Ctl({"add", "-C", "-v", "-u", "root"}).exit_code,
            KxAecCtl::kCentralizedControl);
  EXPECT_EQ(kxtest::ReadFile(toolstest::kWhitelist), before);
  // A local source is no central control.
  toolstest::SetWhitelistSource("local");
  EXPECT_EQ(Ctl({"add", "-u", "root"}).exit_code, 0);
}

TEST_F(KxaecctlAddTest, AddWithoutANameAddsResourceExceptionsSorted) {
  ASSERT_EQ(Ctl({"add", "-C", "-v", "-r", b_}).exit_code, 0);
  ASSERT_EQ(Ctl({"add", "-r", a_, b_}).exit_code, 0);
  EXPECT_EQ(kxtest::ReadFile(toolstest::kExceptions),
            "{\n    \"resource_list\": [\n        \"" +
                toolstest::JsonEscaped(a_) + "\",\n        \"" +
                toolstest::JsonEscaped(b_) + "\"\n    ]\n}\n");
}

TEST_F(KxaecctlAddTest, AnExceptionIsNeverWidenedToWhatAProgramLoads) {
  ASSERT_EQ(Ctl({"add", "-r", "/bin/true"}).exit_code, 0);
  EXPECT_EQ(kxtest::ReadFile(toolstest::kExceptions).find("libc"),
            std::string::npos);
}

TEST_F(KxaecctlAddTest, RuleFlagsWithoutARuleAreInvalid) {
  EXPECT_EQ(Ctl({"add", "-a", "-u", "root"}).exit_code,
            KxAecCtl::kInvalidArgument);
  EXPECT_EQ(Ctl({"add"}).exit_code, KxAecCtl::kInvalidArgument);
  EXPECT_EQ(Ctl({"add", "-n", "a", "b", "-r", a_}).exit_code,
            KxAecCtl::kInvalidArgument);
}
