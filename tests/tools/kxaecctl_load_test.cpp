// kxaecctl reload and restart: the loaded set, all or nothing.
#include <string>
#include <vector>

#include "tools_test_util.h"

namespace {

using toolstest::RuleJson;
using toolstest::RulePath;
using Lines = std::vector<std::string>;

const std::string kHeader =
    "# Application execution control: the loaded rule set.\n"
    "# Written by kxaecctl; docs/tools.md describes it. Do not edit.\n"
    "format\t1\n";

class KxaecctlLoadTest : public toolstest::TwoResourcesTest {
 protected:
  void SetUp() override {
    TwoResourcesTest::SetUp();
    kxtest::WriteFile(RulePath("r1"), RuleJson("r1", false, true, false, true,
                                               {"root"}, {"adm"}, {b_, a_}));
    kxtest::WriteFile(RulePath("r0"),
                      RuleJson("r0", true, false, true, false, {}, {}, {a_}));
    kxtest::WriteFile(toolstest::kWhitelist,
                      toolstest::WhitelistJson({"daemon", "bin"}, {"root"}));
    kxtest::WriteFile(
        toolstest::kExceptions,
        "{\"resource_list\": [\"/kx/not/here\", \"" + a_ + "\"]}\n");
  }
  std::string Expected() const {
    return kHeader + "rule\tr0\t0\t1\t0\t1\n" + "rule-resource\tr0\t" + a_ +
           "\n" + "rule\tr1\t1\t0\t1\t0\n" + "rule-user\tr1\t0\troot\n" +
           "rule-group\tr1\t4\tadm\n" + "rule-resource\tr1\t" + a_ + "\n" +
           "rule-resource\tr1\t" + b_ + "\n" + "whitelist-user\t1\tdaemon\n" +
           "whitelist-user\t2\tbin\n" + "whitelist-group\t0\troot\n" +
           "exception\t/kx/not/here\n" + "exception\t" + a_ + "\n";
  }
};

}  // namespace

TEST_F(KxaecctlLoadTest, ReloadCompilesTheWholeConfigurationIntoTheLoadedSet) {
  const auto run = Ctl({"reload", "-C", "-v"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(kxtest::ReadFile(toolstest::kLoadedSet), Expected());
}

TEST_F(KxaecctlLoadTest, ReloadSealsWhatItLoaded) {
  ASSERT_FALSE(kxtest::Exists(toolstest::kCrcDb));
  ASSERT_EQ(Ctl({"reload", "-C", "-v"}).exit_code, 0);
  EXPECT_TRUE(kxtest::Exists(toolstest::kCrcDb));
  EXPECT_FALSE(kxtest::Exists(toolstest::kCrcOut));
  EXPECT_EQ(Aide({"-k", "-c", toolstest::kCrcList, "-d", toolstest::kCrcDb})
                .exit_code,
            0);
}

TEST_F(KxaecctlLoadTest, ReloadAcceptsFilesChangedSinceTheLastSeal) {
  Seal();
  // What the rules policy does: write a rule file, then "reload -C -v".
  kxtest::WriteFile(RulePath("r2"),
                    RuleJson("r2", false, false, false, true, {}, {}, {b_}));
  const auto run = Ctl({"reload", "-C", "-v"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_NE(run.err.find(RulePath("r2")), std::string::npos) << run.err;
  EXPECT_NE(kxtest::ReadFile(toolstest::kLoadedSet).find("rule\tr2\t"),
            std::string::npos);
  EXPECT_EQ(Ctl({"add", "-C", "-n", "r3", "-r", a_}).exit_code, 0);
}

TEST_F(KxaecctlLoadTest, ABrokenRuleFileKeepsThePreviousLoadedSetAndIsTen) {
  Seal();
  kxtest::WriteFile(RulePath("r1"), "{\"name\": \"r1\", \"oops\"");
  const auto run = Ctl({"reload", "-C", "-v"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kConfigInvalid);
  EXPECT_EQ(run.OutLines(), (Lines{RulePath("r1")}));
  EXPECT_EQ(kxtest::ReadFile(toolstest::kLoadedSet), Expected());
}

// A crash would have read as success to the plug-in (a child killed by a
// signal counts as exit 0): a rule file nested 100,000 deep is an invalid
// file like any other.
TEST_F(KxaecctlLoadTest, ADeeplyNestedRuleFileIsTenAndNotACrash) {
  Seal();
  kxtest::WriteFile(RulePath("r1"),
                    "{\"name\": \"r1\", \"x\": " + std::string(100000, '[') +
                        std::string(100000, ']') + "}");
  const auto run = Ctl({"reload", "-v"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kConfigInvalid) << run.err;
  EXPECT_EQ(run.OutLines(), (Lines{RulePath("r1")}));
  EXPECT_NE(run.err.find("nested deeper than 64 levels"), std::string::npos)
      << run.err;
  EXPECT_EQ(kxtest::ReadFile(toolstest::kLoadedSet), Expected());
}

TEST_F(KxaecctlLoadTest, EveryInvalidFileIsReportedOnItsOwnLine) {
  kxtest::WriteFile(RulePath("mismatch"),
                    RuleJson("other", false, false, false, true, {}, {}, {a_}));
  kxtest::WriteFile(toolstest::kRulesDir + "notes.txt", "not a rule");
  kxtest::WriteFile(toolstest::kExceptions, "{\"paths\": []}");
  const auto run = Ctl({"reload", "-v"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kConfigInvalid);
  EXPECT_EQ(run.OutLines(),
            (Lines{RulePath("mismatch"), toolstest::kRulesDir + "notes.txt",
                   toolstest::kExceptions}));
  EXPECT_FALSE(kxtest::Exists(toolstest::kLoadedSet));
  EXPECT_FALSE(kxtest::Exists(toolstest::kCrcDb));
}

TEST_F(KxaecctlLoadTest, UnknownUsersAndGroupsOfTheRuleSetAreFourAndFive) {
  kxtest::WriteFile(RulePath("r2"), RuleJson("r2", false, false, false, true,
                                             {"kx-gone"}, {}, {a_}));
  auto run = Ctl({"reload", "-v"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kUsersNotFound);
  EXPECT_EQ(run.OutLines(), (Lines{"kx-gone"}));
  kxtest::WriteFile(RulePath("r2"), RuleJson("r2", false, false, false, true,
                                             {}, {"kx-gone-group"}, {a_}));
  run = Ctl({"reload", "-v"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kGroupsNotFound);
  EXPECT_EQ(run.OutLines(), (Lines{"kx-gone-group"}));
}

TEST_F(KxaecctlLoadTest, AVanishedResourceOfARuleIsTwentyFive) {
  kxtest::WriteFile(RulePath("r2"), RuleJson("r2", false, false, false, true,
                                             {}, {}, {"/kx/vanished"}));
  const auto run = Ctl({"reload", "-v"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kResourceMissing);
  EXPECT_EQ(run.OutLines(), (Lines{"/kx/vanished"}));
}

TEST_F(KxaecctlLoadTest, AMissingWhitelistIsEleven) {
  ASSERT_EQ(unlink(toolstest::kWhitelist.c_str()), 0);
  EXPECT_EQ(Ctl({"reload", "-v"}).exit_code, KxAecCtl::kConfigMissing);
  EXPECT_EQ(Ctl({"reload", "-w"}).exit_code, KxAecCtl::kConfigMissing);
}

TEST_F(KxaecctlLoadTest, ReloadWLoadsTheWhitelistAndKeepsTheLoadedRules) {
  ASSERT_EQ(Ctl({"reload"}).exit_code, 0);
  // Rules changed on disk are not loaded by a whitelist reload.
  kxtest::WriteFile(RulePath("r1"), "broken");
  kxtest::WriteFile(toolstest::kWhitelist,
                    toolstest::WhitelistJson({"root"}, {}));
  const auto run = Ctl({"reload", "-w"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  std::string expected = Expected();
  const auto begin = expected.find("whitelist-user");
  const auto end = expected.find("exception");
  expected.replace(begin, end - begin, "whitelist-user\t0\troot\n");
  EXPECT_EQ(kxtest::ReadFile(toolstest::kLoadedSet), expected);
}

TEST_F(KxaecctlLoadTest, ReloadWWithoutAPreviousSetLoadsTheWhitelistAlone) {
  ASSERT_EQ(Ctl({"reload", "-w"}).exit_code, 0);
  EXPECT_EQ(kxtest::ReadFile(toolstest::kLoadedSet),
            kHeader +
                "whitelist-user\t1\tdaemon\nwhitelist-user\t2\tbin\n"
                "whitelist-group\t0\troot\n");
}

TEST_F(KxaecctlLoadTest, ReloadWWithUnknownMembersKeepsThePreviousSet) {
  ASSERT_EQ(Ctl({"reload"}).exit_code, 0);
  kxtest::WriteFile(toolstest::kWhitelist,
                    toolstest::WhitelistJson({"kx-nobody"}, {}));
  const auto run = Ctl({"reload", "-w", "-v"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kUsersNotFound);
  EXPECT_EQ(run.OutLines(), (Lines{"kx-nobody"}));
  EXPECT_EQ(kxtest::ReadFile(toolstest::kLoadedSet), Expected());
}

TEST_F(KxaecctlLoadTest, RestartLoadsTheConfigurationWithoutSealingIt) {
  const auto run = Ctl({"restart"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(kxtest::ReadFile(toolstest::kLoadedSet), Expected());
  EXPECT_FALSE(kxtest::Exists(toolstest::kCrcDb));
}

TEST_F(KxaecctlLoadTest, RestartOfAnInvalidConfigurationKeepsThePreviousSet) {
  ASSERT_EQ(Ctl({"restart"}).exit_code, 0);
  kxtest::WriteFile(RulePath("r1"), "{}");
  EXPECT_EQ(Ctl({"restart"}).exit_code, KxAecCtl::kConfigInvalid);
  EXPECT_EQ(kxtest::ReadFile(toolstest::kLoadedSet), Expected());
}

TEST_F(KxaecctlLoadTest, AFreshInstallationLoadsAnEmptySet) {
  ASSERT_EQ(unlink(RulePath("r0").c_str()), 0);
  ASSERT_EQ(unlink(RulePath("r1").c_str()), 0);
  ASSERT_EQ(unlink(toolstest::kExceptions.c_str()), 0);
  kxtest::WriteFile(toolstest::kWhitelist,
                    "{\n    \"user_list\": \"\",\n"
                    "    \"group_list\": \"\"\n}\n");
  ASSERT_EQ(Ctl({"restart"}).exit_code, 0);
  EXPECT_EQ(kxtest::ReadFile(toolstest::kLoadedSet), kHeader);
}
