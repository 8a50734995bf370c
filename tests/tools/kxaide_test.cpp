// kxaide, the integrity tool, as the built program and through its parts.
#include <string>
#include <vector>

#include "kxaide/checksum_db.h"
#include "tools_test_util.h"

namespace {

using toolstest::ToolRun;

// SHA-256 of "abc\n" and of "" (FIPS 180-2 style check values).
const std::string kAbcLine =
    "edeaaff3f1774ad2888673770c6d64097e391bc362d7d6fb34982ddf0efd18cb";
const std::string kEmpty =
    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

const std::string kData = "/opt/korvex/var/tmp/aide/";
const std::string kList = kData + "list";
const std::string kDb = kData + "db";

class KxaideTest : public toolstest::ToolsTest {
 protected:
  void SetUp() override {
    ToolsTest::SetUp();
    kxtest::WriteFile(kData + "dir/b", "abc\n");
    kxtest::WriteFile(kData + "dir/a", "");
    kxtest::WriteFile(kData + "single", "abc\n");
    kxtest::WriteFile(kList, "# what is sealed\n\n  " + kData + "dir/  \n" +
                                 kData + "single\n" + kData + "absent\n");
  }

  // Seals into kDb (the index mode writes crc-rule-out.db; moved here).
  void SealInto() {
    const ToolRun run = Aide({"-i", "-c", kList});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    kxtest::WriteFile(kDb, kxtest::ReadFile(toolstest::kCrcOut));
  }
};

}  // namespace

TEST_F(KxaideTest, IndexModeWritesSortedSha256sumLinesOfTheListedFiles) {
  const ToolRun run = Aide({"-i", "-c", kList});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(kxtest::ReadFile(toolstest::kCrcOut),
            kEmpty + "  " + kData + "dir/a\n" + kAbcLine + "  " + kData +
                "dir/b\n" + kAbcLine + "  " + kData + "single\n");
}

TEST_F(KxaideTest, TheDatabaseIsReadableBySha256sum) {
  SealInto();
  const ToolRun run = toolstest::RunTool("/usr/bin/sha256sum", {"-c", kDb});
  EXPECT_EQ(run.exit_code, 0) << run.out << run.err;
}

TEST_F(KxaideTest, ADirectoryStandsForItsRegularFilesOnly) {
  kxtest::WriteFile(kData + "dir/sub/deep", "x");
  const ToolRun run = Aide({"-i", "-c", kList});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(kxtest::ReadFile(toolstest::kCrcOut).find("deep"),
            std::string::npos);
}

TEST_F(KxaideTest, CheckModeFindsNothingOnAnUnchangedConfiguration) {
  SealInto();
  const ToolRun run = Aide({"-k", "-c", kList, "-d", kDb});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, "");
}

TEST_F(KxaideTest, CheckModeListsChangedAppearedAndVanishedFilesOnePerLine) {
  SealInto();
  kxtest::WriteFile(kData + "dir/b", "changed\n");
  kxtest::WriteFile(kData + "absent", "now here\n");
  ASSERT_EQ(unlink((kData + "dir/a").c_str()), 0);
  const ToolRun run = Aide({"-k", "-c", kList, "-d", kDb});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.OutLines(),
            (std::vector<std::string>{kData + "absent", kData + "dir/a",
                                      kData + "dir/b"}));
  EXPECT_NE(run.err.find("appeared: " + kData + "absent"), std::string::npos);
  EXPECT_NE(run.err.find("vanished: " + kData + "dir/a"), std::string::npos);
  EXPECT_NE(run.err.find("changed: " + kData + "dir/b"), std::string::npos);
}

TEST_F(KxaideTest, AMissingDatabaseIsExitFour) {
  const ToolRun run = Aide({"-k", "-c", kList, "-d", kDb});
  EXPECT_EQ(run.exit_code, 4);
}

TEST_F(KxaideTest, ADamagedDatabaseIsExitFour) {
  kxtest::WriteFile(kDb, "not a checksum line\n");
  EXPECT_EQ(Aide({"-k", "-c", kList, "-d", kDb}).exit_code, 4);
  kxtest::WriteFile(kDb, kEmpty + "  " + kData + "dir/a");  // no line break
  EXPECT_EQ(Aide({"-k", "-c", kList, "-d", kDb}).exit_code, 4);
}

TEST_F(KxaideTest, AMissingOrMalformedListIsExitThree) {
  EXPECT_EQ(Aide({"-i", "-c", kData + "no-list"}).exit_code, 3);
  kxtest::WriteFile(kList, "relative/path\n");
  EXPECT_EQ(Aide({"-i", "-c", kList}).exit_code, 3);
  EXPECT_FALSE(kxtest::Exists(toolstest::kCrcOut));
}

TEST_F(KxaideTest, ABadCommandLineIsExitTwo) {
  EXPECT_EQ(Aide({}).exit_code, 2);
  EXPECT_EQ(Aide({"-i", "-k", "-c", kList}).exit_code, 2);
  EXPECT_EQ(Aide({"-k", "-c", kList}).exit_code, 2);
  EXPECT_EQ(Aide({"-i", "-c"}).exit_code, 2);
  EXPECT_EQ(Aide({"-x"}).exit_code, 2);
}

TEST_F(KxaideTest, HelpDescribesBothModes) {
  const ToolRun run = Aide({"--help"});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_NE(run.out.find("-i -c LIST"), std::string::npos);
  EXPECT_NE(run.out.find("-k -c LIST -d DB"), std::string::npos);
}

TEST(ChecksumDbTest, APathWithALineBreakOrBackslashRoundTripsEscaped) {
  kxaide::ChecksumDb db = {
      {"/a\nb", kEmpty}, {"/c\\d", kAbcLine}, {"/e", kEmpty}};
  const std::string text = kxaide::FormatDb(db);
  EXPECT_EQ(text, "\\" + kEmpty + "  /a\\nb\n\\" + kAbcLine + "  /c\\\\d\n" +
                      kEmpty + "  /e\n");
  kxaide::ChecksumDb back;
  std::string why;
  ASSERT_TRUE(kxaide::ParseDb(text, &back, &why)) << why;
  EXPECT_EQ(back, db);
}

TEST(ChecksumDbTest, APathListedTwiceIsDamage) {
  kxaide::ChecksumDb db;
  std::string why;
  EXPECT_FALSE(
      kxaide::ParseDb(kEmpty + "  /a\n" + kAbcLine + "  /a\n", &db, &why));
  EXPECT_NE(why.find("listed twice"), std::string::npos);
}

TEST(ChecksumDbTest, AnEmptyDatabaseIsValid) {
  kxaide::ChecksumDb db = {{"/x", kEmpty}};
  std::string why;
  EXPECT_TRUE(kxaide::ParseDb("", &db, &why));
  EXPECT_TRUE(db.empty());
}
