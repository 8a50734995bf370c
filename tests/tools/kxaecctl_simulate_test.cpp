// kxaecctl simulate: a crafted journal replayed against the rules with the
// engine's decision in hard mode.
#include <filesystem>
#include <string>

#include "kxaecctl/simulate_command.h"
#include "learning_journal.h"
#include "tools_test_util.h"

namespace {

namespace fs = std::filesystem;
using toolstest::Row;

class KxaecctlSimulateTest : public toolstest::LearningTest {
 protected:
  void SetUp() override {
    LearningTest::SetUp();
    kxtest::WriteFile(res_ + "notes.txt", "text\n");
    // bin is whitelisted; root may start the tool (not its library).
    ASSERT_EQ(Ctl({"add", "-u", "bin"}).exit_code, 0);
    ASSERT_EQ(
        Ctl({"add", "-n", "r1", "-u", "root", "-r", tool_, "-d"}).exit_code, 0);
    journal_.Add({1050, 100, tool_, tool_, "root", "root", 1});
    journal_.Add({1051, 200, tool_, tool_, "daemon", "daemon", 0});
    journal_.Add({1051, 210, tool_, tool_, "daemon", "daemon", 0});
    journal_.Add({1053, 300, tool_, lib_, "root", "root", 0});
    journal_.Add({1054, 300, tool_, res_ + "notes.txt", "root", "root", 1});
    journal_.Add({1051, 400, tool_, tool_, "bin", "bin", 0});
    journal_.Add({1051, 400, res_ + "gone", res_ + "gone", "root", "root", 0});
  }
};

}  // namespace

TEST_F(KxaecctlSimulateTest, ReportsWhatHardModeWouldDenyByProgramAndUser) {
  const auto run = Ctl({"simulate", "--mode", "hard"});
  EXPECT_EQ(run.exit_code, aectool::kWouldDeny) << run.err;
  EXPECT_EQ(run.out,
            tool_ +
                "\n"
                "  daemon: 2 denied (2 starts, 0 library loads, 0 opens)\n"
                "  root: 1 denied (0 starts, 1 library loads, 0 opens)\n"
                "simulate: 3 of 7 events would be denied in hard mode; 1 "
                "could not be replayed (file or user gone)\n");
}

TEST_F(KxaecctlSimulateTest, ThePeriodNarrowsTheReplay) {
  const auto run =
      Ctl({"simulate", "--mode", "hard", "--since", "205", "--until", "400"});
  EXPECT_EQ(run.exit_code, aectool::kWouldDeny) << run.err;
  EXPECT_EQ(run.out,
            tool_ +
                "\n"
                "  daemon: 1 denied (1 starts, 0 library loads, 0 opens)\n"
                "  root: 1 denied (0 starts, 1 library loads, 0 opens)\n"
                "simulate: 2 of 3 events would be denied in hard mode\n");
  const auto first = Ctl({"simulate", "--mode", "hard", "--until", "150"});
  EXPECT_EQ(first.exit_code, 0) << first.err;
  EXPECT_EQ(first.out,
            "simulate: 0 of 1 events would be denied in hard mode\n");
}

TEST_F(KxaecctlSimulateTest, AnotherRulesDirectoryIsReplayedInstead) {
  const std::string dir = "/opt/korvex/var/tmp/other-rules/";
  fs::create_directories(dir);
  kxtest::WriteFile(dir + "all.conf",
                    toolstest::RuleJson("all", true, false, false, true, {}, {},
                                        {tool_, lib_}));
  const auto run = Ctl({"simulate", "--mode", "hard", "--rules", dir});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out,
            "simulate: 0 of 7 events would be denied in hard mode; 1 could "
            "not be replayed (file or user gone)\n");
  // The rules in force are untouched by it.
  EXPECT_FALSE(kxtest::Exists(toolstest::RulePath("all")));
}

TEST_F(KxaecctlSimulateTest, ModeIsRequiredAndOnlyHardDenies) {
  EXPECT_EQ(Ctl({"simulate"}).exit_code, KxAecCtl::kInvalidArgument);
  const auto soft = Ctl({"simulate", "--mode", "soft"});
  EXPECT_EQ(soft.exit_code, KxAecCtl::kInvalidArgument);
  EXPECT_NE(soft.err.find("only --mode hard"), std::string::npos);
}

TEST_F(KxaecctlSimulateTest, AMissingJournalIsEleven) {
  const auto run = Ctl({"simulate", "--mode", "hard", "--journal",
                        "/opt/korvex/var/log/nothing.db"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kConfigMissing);
  EXPECT_NE(run.err.find("does not exist"), std::string::npos) << run.err;
}
