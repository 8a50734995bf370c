// Reloading the rules and recomputing the checksum database.
#include "aec_helper.h"

#include <string>
#include <vector>

#include "host/errors.h"
#include "kxtest.h"

using Args = std::vector<std::string>;

namespace {

const std::string kCrcDb = "/opt/korvex/etc/aec/crc-rule.db";
const std::string kCrcOutDb = "/opt/korvex/etc/aec/crc-rule-out.db";

class AecHelperTest : public kxtest::SandboxTest {
 protected:
  void FakeReloadTool(int exit_code, bool no_newline = false) {
    kxtest::FakeBehaviour behaviour;
    behaviour.exit_code = exit_code;
    if (no_newline) {
      behaviour.lines = {"partial"};
      behaviour.last_line_without_newline = true;
    }
    kxtest::InstallFakeTool("kxaecctl", behaviour);
  }
  void FakeIntegrityTool(int exit_code, bool writes_db) {
    kxtest::FakeBehaviour behaviour;
    behaviour.exit_code = exit_code;
    behaviour.lines = {"noise on standard output"};
    if (writes_db) behaviour.create_files = {kCrcOutDb};
    kxtest::InstallFakeTool("kxaide", behaviour);
  }
};

}  // namespace

TEST_F(AecHelperTest, ReloadRunsTheToolWithReloadAndTheStandardOptions) {
  FakeReloadTool(0);
  EXPECT_TRUE(aec::reload_rules());
  EXPECT_EQ(kxtest::FakeToolCalls("kxaecctl"),
            (std::vector<Args>{{"reload", "-C", "-v"}}));
}

TEST_F(AecHelperTest, ReloadIsTrueEvenWhenTheToolExitsWithStatus24) {
  FakeReloadTool(24);
  EXPECT_TRUE(aec::reload_rules());
  EXPECT_EQ(kxtest::FakeToolCalls("kxaecctl").size(), 1u);
  EXPECT_FALSE(log_.Contains("failed to reload AEC rules"));
}

TEST_F(AecHelperTest, ReloadIsFalseAndLoggedWhenTheToolCannotStart) {
  EXPECT_FALSE(aec::reload_rules());
  EXPECT_TRUE(log_.Contains("aec_helper"));
  EXPECT_TRUE(log_.Contains("[268435463] aec: failed to reload AEC rules: " +
                            std::string(error::kUnknown)));
}

TEST_F(AecHelperTest, ReloadPassesALengthErrorToTheCaller) {
  FakeReloadTool(0, true);
  EXPECT_THROW(aec::reload_rules(), std::length_error);
}

TEST_F(AecHelperTest, RecalcRunsTheIntegrityToolAndMovesTheNewDatabaseIn) {
  kxtest::WriteFile(kCrcDb, "old");
  FakeIntegrityTool(0, true);
  EXPECT_TRUE(aec::recalc_common_crc());
  EXPECT_EQ(
      kxtest::FakeToolCalls("kxaide"),
      (std::vector<Args>{{"-i", "-c", "/opt/korvex/etc/aec/crc-rule.conf"}}));
  EXPECT_EQ(kxtest::ReadFile(kCrcDb), "");  // the fake writes it empty
  EXPECT_FALSE(kxtest::Exists(kCrcOutDb));
}

TEST_F(AecHelperTest, RecalcFailingToolLeavesTheDatabaseAndLogs) {
  kxtest::WriteFile(kCrcDb, "old");
  FakeIntegrityTool(1, true);
  EXPECT_FALSE(aec::recalc_common_crc());
  EXPECT_EQ(kxtest::ReadFile(kCrcDb), "old");
  EXPECT_TRUE(log_.Contains(
      "[268435463] aec: failed to recalculate checksum of the rules"));
}

TEST_F(AecHelperTest,
       RecalcWithoutAnOutputDatabaseFailsToRenameAndKeepsTheOld) {
  kxtest::WriteFile(kCrcDb, "old");
  FakeIntegrityTool(0, false);
  EXPECT_FALSE(aec::recalc_common_crc());
  EXPECT_EQ(kxtest::ReadFile(kCrcDb), "old");
  EXPECT_TRUE(log_.Contains("[268435463] aec: failed to rename output db"));
}

TEST_F(AecHelperTest, RecalcWithAMissingIntegrityToolFails) {
  kxtest::WriteFile(kCrcDb, "old");
  EXPECT_FALSE(aec::recalc_common_crc());
  EXPECT_EQ(kxtest::ReadFile(kCrcDb), "old");
  EXPECT_TRUE(log_.Contains("failed to recalculate checksum of the rules"));
}
