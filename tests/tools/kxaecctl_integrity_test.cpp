// -C: the integrity check before a change, and the seal after it.
#include <unistd.h>

#include <string>
#include <vector>

#include "tools_test_util.h"

namespace {

using toolstest::RuleJson;
using toolstest::RulePath;
using Lines = std::vector<std::string>;

class KxaecctlIntegrityTest : public toolstest::ToolsTest {
 protected:
  void SetUp() override {
    ToolsTest::SetUp();
    a_ = toolstest::Resource("a");
    kxtest::WriteFile(RulePath("r1"), RuleJson("r1", false, false, false, true,
                                               {"root"}, {}, {a_}));
    Seal();
  }
  bool DatabaseMatchesDisk() {
    return Aide({"-k", "-c", toolstest::kCrcList, "-d", toolstest::kCrcDb})
               .exit_code == 0;
  }
  std::string a_;
};

}  // namespace

TEST_F(KxaecctlIntegrityTest, AHandEditedRuleFileIsTwentyFourWithTheFile) {
  kxtest::WriteFile(RulePath("r1"), RuleJson("r1", false, false, false, true,
                                             {"root", "bin"}, {}, {a_}));
  const auto run = Ctl({"add", "-C", "-v", "-n", "r2", "-r", a_});
  EXPECT_EQ(run.exit_code, KxAecCtl::kIntegrityDbUpdate);
  EXPECT_EQ(run.OutLines(), (Lines{RulePath("r1")}));
  EXPECT_FALSE(kxtest::Exists(RulePath("r2")));
}

TEST_F(KxaecctlIntegrityTest, EveryChangedFileIsOnItsOwnLine) {
  kxtest::WriteFile(
      RulePath("dropped-in"),
      RuleJson("dropped-in", true, false, false, true, {}, {}, {a_}));
  kxtest::WriteFile(toolstest::kWhitelist,
                    toolstest::WhitelistJson({"root"}, {}));
  const auto run = Ctl({"enable", "-C", "-v", "-n", "r1"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kIntegrityDbUpdate);
  EXPECT_EQ(run.OutLines(),
            (Lines{RulePath("dropped-in"), toolstest::kWhitelist}));
}

TEST_F(KxaecctlIntegrityTest, WithoutMinusCAChangedConfigurationIsNotChecked) {
  kxtest::WriteFile(toolstest::kWhitelist,
                    toolstest::WhitelistJson({"root"}, {}));
  EXPECT_EQ(Ctl({"add", "-n", "r2", "-r", a_}).exit_code, 0);
}

TEST_F(KxaecctlIntegrityTest, AMissingDatabaseIsTwentyOne) {
  ASSERT_EQ(unlink(toolstest::kCrcDb.c_str()), 0);
  const auto run = Ctl({"add", "-C", "-v", "-n", "r2", "-r", a_});
  EXPECT_EQ(run.exit_code, KxAecCtl::kIntegrityViolation);
  EXPECT_EQ(run.out, "");
  EXPECT_FALSE(kxtest::Exists(RulePath("r2")));
}

TEST_F(KxaecctlIntegrityTest, ADamagedDatabaseIsTwentyOne) {
  kxtest::WriteFile(toolstest::kCrcDb, "garbage\n");
  EXPECT_EQ(Ctl({"rm", "-C", "-n", "r1"}).exit_code,
            KxAecCtl::kIntegrityViolation);
  EXPECT_TRUE(kxtest::Exists(RulePath("r1")));
}

TEST_F(KxaecctlIntegrityTest, AChangeReSealsTheDatabase) {
  ASSERT_EQ(Ctl({"add", "-C", "-v", "-n", "r2", "-r", a_}).exit_code, 0);
  EXPECT_TRUE(DatabaseMatchesDisk());
  EXPECT_FALSE(kxtest::Exists(toolstest::kCrcOut));
  EXPECT_NE(kxtest::ReadFile(toolstest::kCrcDb).find(RulePath("r2")),
            std::string::npos);
  // So the next checked change goes through.
  EXPECT_EQ(Ctl({"disable", "-C", "-v", "-n", "r2"}).exit_code, 0);
  EXPECT_TRUE(DatabaseMatchesDisk());
}

TEST_F(KxaecctlIntegrityTest, ReloadAcceptsAHandEditAndSealsIt) {
  kxtest::WriteFile(RulePath("r1"), RuleJson("r1", false, false, false, true,
                                             {"bin"}, {}, {a_}));
  ASSERT_EQ(Ctl({"reload", "-C", "-v"}).exit_code, 0);
  EXPECT_TRUE(DatabaseMatchesDisk());
}

TEST_F(KxaecctlIntegrityTest, RestartWithMinusCRefusesAChangedConfiguration) {
  ASSERT_EQ(Ctl({"restart"}).exit_code, 0);
  const std::string loaded = kxtest::ReadFile(toolstest::kLoadedSet);
  kxtest::WriteFile(RulePath("r1"), RuleJson("r1", false, false, false, true,
                                             {"bin"}, {}, {a_}));
  EXPECT_EQ(Ctl({"restart", "-C"}).exit_code, KxAecCtl::kIntegrityDbUpdate);
  EXPECT_EQ(kxtest::ReadFile(toolstest::kLoadedSet), loaded);
  // Without -C restart loads what is on disk, and leaves the seal alone.
  EXPECT_EQ(Ctl({"restart"}).exit_code, 0);
  EXPECT_NE(kxtest::ReadFile(toolstest::kLoadedSet), loaded);
  EXPECT_FALSE(DatabaseMatchesDisk());
}

TEST_F(KxaecctlIntegrityTest, AMissingIntegrityToolIsTwenty) {
  ASSERT_EQ(unlink(toolstest::kKxaide.c_str()), 0);
  EXPECT_EQ(Ctl({"add", "-C", "-n", "r2", "-r", a_}).exit_code,
            KxAecCtl::kIntegrityCalculation);
  EXPECT_FALSE(kxtest::Exists(RulePath("r2")));
}

TEST_F(KxaecctlIntegrityTest, AChangeThatCannotBeSealedIsMadeAndStays) {
  ASSERT_EQ(unlink(toolstest::kCrcList.c_str()), 0);
  const std::string sealed = kxtest::ReadFile(toolstest::kCrcDb);
  const auto run = Ctl({"add", "-n", "r2", "-r", a_});
  // The change is made and loaded, so the run reports it made; the old seal
  // stays in force until a later run seals (kxaecctl_unsealed_change_test).
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_NE(run.err.find("not sealed yet"), std::string::npos) << run.err;
  EXPECT_TRUE(kxtest::Exists(RulePath("r2")));
  EXPECT_NE(kxtest::ReadFile(toolstest::kLoadedSet).find("rule\tr2\t"),
            std::string::npos);
  EXPECT_EQ(kxtest::ReadFile(toolstest::kCrcDb), sealed);
}

TEST_F(KxaecctlIntegrityTest, AFailingCheckChangesNothing) {
  kxtest::WriteFile(RulePath("r1"), RuleJson("r1", false, false, false, true,
                                             {"bin"}, {}, {a_}));
  const std::string loaded = kxtest::ReadFile(toolstest::kLoadedSet);
  const std::string sealed = kxtest::ReadFile(toolstest::kCrcDb);
  EXPECT_EQ(Ctl({"rm", "-C", "-A"}).exit_code, KxAecCtl::kIntegrityDbUpdate);
  EXPECT_TRUE(kxtest::Exists(RulePath("r1")));
  EXPECT_EQ(kxtest::ReadFile(toolstest::kLoadedSet), loaded);
  EXPECT_EQ(kxtest::ReadFile(toolstest::kCrcDb), sealed);
}
