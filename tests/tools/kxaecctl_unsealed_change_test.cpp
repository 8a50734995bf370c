// A change whose seal fails is the tool's own: the run that made it reports
// it made, and the next run seals it instead of calling it a violation.
// The seal is made to fail by libkxfault.so (tests/faults), preloaded into
// kxaecctl, failing the rename that puts the new checksum database in
// force with ENOSPC.
#include <cstdlib>
#include <string>
#include <vector>

#include "tools_test_util.h"

namespace {

using toolstest::RulePath;

const std::string kRecord = "/opt/korvex/var/lib/aec/kxaecctl.unsealed";

class KxaecctlUnsealedChangeTest : public toolstest::SealedTwoResourcesTest {
 protected:
  // kxaecctl with the seal's rename failing on a full disk.
  toolstest::ToolRun CtlWithoutSeal(const std::vector<std::string>& args) {
    std::string asan = "verify_asan_link_order=0";
    if (const char* old = std::getenv("ASAN_OPTIONS")) {
      asan = std::string(old) + ":" + asan;
    }
    std::vector<std::string> words = {
        "LD_PRELOAD=" KX_FAULT_SHIM, "KXFAULT_PREFIXES=" + toolstest::kCrcDb,
        "KXFAULT_NTH=1", "KXFAULT_ERRNO=28", "ASAN_OPTIONS=" + asan,
        toolstest::kKxaecctl};
    words.insert(words.end(), args.begin(), args.end());
    return toolstest::RunTool("/usr/bin/env", words);
  }

  int Check() {
    return Aide({"-k", "-c", toolstest::kCrcList, "-d", toolstest::kCrcDb})
        .exit_code;
  }
};

}  // namespace

TEST_F(KxaecctlUnsealedChangeTest, AChangeWhoseSealFailedIsReportedMade) {
  const auto run = CtlWithoutSeal({"add", "-C", "-v", "-n", "r1", "-r", a_});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_NE(run.err.find("not sealed"), std::string::npos) << run.err;
  EXPECT_EQ(run.out, "");
  EXPECT_TRUE(kxtest::Exists(RulePath("r1")));
  EXPECT_NE(kxtest::ReadFile(toolstest::kLoadedSet).find("rule\tr1\t1"),
            std::string::npos);
  // The seal really failed: the database in force is the previous one.
  EXPECT_EQ(Check(), 1);
  EXPECT_TRUE(kxtest::Exists(kRecord));
}

TEST_F(KxaecctlUnsealedChangeTest, TheNextChangeSealsItInsteadOfRefusingIt) {
  ASSERT_EQ(CtlWithoutSeal({"add", "-C", "-v", "-n", "r1", "-r", a_}).exit_code,
            0);
  const auto next = Ctl({"add", "-C", "-v", "-n", "r2", "-r", b_});
  EXPECT_EQ(next.exit_code, 0) << next.err << next.out;
  EXPECT_TRUE(kxtest::Exists(RulePath("r2")));
  EXPECT_EQ(Check(), 0);
  EXPECT_FALSE(kxtest::Exists(kRecord));
}

TEST_F(KxaecctlUnsealedChangeTest, ARemovalWhoseSealFailedIsSealedNextTime) {
  ASSERT_EQ(Ctl({"add", "-C", "-v", "-n", "r1", "-r", a_}).exit_code, 0);
  ASSERT_EQ(CtlWithoutSeal({"rm", "-C", "-v", "-n", "r1"}).exit_code, 0);
  EXPECT_FALSE(kxtest::Exists(RulePath("r1")));
  const auto next = Ctl({"enable", "-C", "-v", "-n", "r1"});
  // Not 24: the vanished file was the tool's own removal.
  EXPECT_EQ(next.exit_code, KxAecCtl::kRuleMissing) << next.err;
  EXPECT_EQ(Check(), 0);
}

TEST_F(KxaecctlUnsealedChangeTest, AChangeBehindTheToolsBackIsStillAViolation) {
  ASSERT_EQ(CtlWithoutSeal({"add", "-C", "-v", "-n", "r1", "-r", a_}).exit_code,
            0);
  // Someone edits a file the failed change did not write...
  kxtest::WriteFile(toolstest::kWhitelist,
                    toolstest::WhitelistJson({"root"}, {}));
  auto next = Ctl({"add", "-C", "-v", "-n", "r2", "-r", b_});
  EXPECT_EQ(next.exit_code, KxAecCtl::kIntegrityDbUpdate) << next.err;
  EXPECT_FALSE(kxtest::Exists(RulePath("r2")));
  EXPECT_NE(next.out.find(toolstest::kWhitelist), std::string::npos)
      << next.out;

  // ... or the very file the failed change wrote.
  ASSERT_EQ(Ctl({"reload"}).exit_code, 0);
  ASSERT_EQ(CtlWithoutSeal({"add", "-C", "-v", "-n", "r3", "-r", a_}).exit_code,
            0);
  kxtest::WriteFile(
      RulePath("r3"),
      toolstest::RuleJson("r3", true, false, false, true, {}, {}, {a_, b_}));
  next = Ctl({"add", "-C", "-v", "-n", "r2", "-r", b_});
  EXPECT_EQ(next.exit_code, KxAecCtl::kIntegrityDbUpdate) << next.err;
  EXPECT_EQ(next.OutLines(), std::vector<std::string>{RulePath("r3")});
}
