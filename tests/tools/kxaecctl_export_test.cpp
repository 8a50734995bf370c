// kxaecctl export.
#include <sys/stat.h>

#include <boost/filesystem/operations.hpp>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools_test_util.h"

namespace {

using toolstest::RuleJson;
using toolstest::RulePath;
using Lines = std::vector<std::string>;

const std::string kOut = "/opt/korvex/var/export/";

class KxaecctlExportTest : public toolstest::ToolsTest {
 protected:
  void SetUp() override {
    ToolsTest::SetUp();
    kxtest::WriteFile(kOut + ".keep", "");
    // A hand-written rule (flags as digits): export copies the file as it
    // is, not a rewritten form.
    content_ =
        "{\"name\": \"r1\", \"all_allowed\": \"1\", \"extended\": \"0\", "
        "\"system\": \"0\", \"enable\": \"1\", \"user_list\": \"\", "
        "\"group_list\": \"\", \"resource_list\": [\"" +
        toolstest::Resource("a") + "\"]}\n";
    kxtest::WriteFile(RulePath("r1"), content_);
    Seal();
  }
  std::string content_;
};

}  // namespace

TEST_F(KxaecctlExportTest, ExportWritesTheRuleFilesContentToTheFile) {
  const auto run =
      Ctl({"export", "-C", "-v", "-n", "r1", "-f", kOut + "r1.json"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(kxtest::ReadFile(kOut + "r1.json"), content_);
  struct stat info;
  ASSERT_EQ(stat((kOut + "r1.json").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0644u);
}

TEST_F(KxaecctlExportTest, ExportReplacesAnExistingFileWhole) {
  kxtest::WriteFile(kOut + "r1.json", std::string(10000, 'x'));
  ASSERT_EQ(Ctl({"export", "-n", "r1", "-f", kOut + "r1.json"}).exit_code, 0);
  EXPECT_EQ(kxtest::ReadFile(kOut + "r1.json"), content_);
}

TEST_F(KxaecctlExportTest, ExportOfAMissingRuleIsFourteen) {
  const auto run = Ctl({"export", "-v", "-n", "nope", "-f", kOut + "x"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kRuleMissing);
  EXPECT_EQ(run.OutLines(), (Lines{"nope"}));
  EXPECT_FALSE(kxtest::Exists(kOut + "x"));
}

TEST_F(KxaecctlExportTest, ExportIntoAMissingDirectoryIsTwelve) {
  EXPECT_EQ(Ctl({"export", "-n", "r1", "-f", kOut + "no/dir/x"}).exit_code,
            KxAecCtl::kConfigWrite);
  // A directory in the way cannot be replaced by a file.
  kxtest::WriteFile(kOut + "taken/inside", "");
  EXPECT_EQ(Ctl({"export", "-n", "r1", "-f", kOut + "taken"}).exit_code,
            KxAecCtl::kConfigWrite);
}

TEST_F(KxaecctlExportTest, ExportIntoTheConfigurationIsRefused) {
  EXPECT_EQ(
      Ctl({"export", "-n", "r1", "-f", toolstest::kRulesDir + "copy.conf"})
          .exit_code,
      KxAecCtl::kInvalidArgument);
  EXPECT_EQ(
      Ctl({"export", "-n", "r1", "-f", "/opt/korvex/var/../etc/aec/copy.conf"})
          .exit_code,
      KxAecCtl::kInvalidArgument);
  EXPECT_EQ(toolstest::RuleFiles(), std::set<std::string>{"r1.conf"});
}

TEST_F(KxaecctlExportTest, ExportNeedsOneRuleAndAnAbsoluteFile) {
  EXPECT_EQ(Ctl({"export", "-n", "r1", "-f", "relative.json"}).exit_code,
            KxAecCtl::kInvalidArgument);
  EXPECT_EQ(Ctl({"export", "-n", "r1"}).exit_code, KxAecCtl::kInvalidArgument);
  EXPECT_EQ(Ctl({"export", "-n", "r1", "r2", "-f", kOut + "x"}).exit_code,
            KxAecCtl::kInvalidArgument);
}

TEST_F(KxaecctlExportTest, ABrokenRuleFileIsTenAndNotExported) {
  kxtest::WriteFile(RulePath("bad"), "{\"name\": \"bad\"}\n");
  const auto run = Ctl({"export", "-v", "-n", "bad", "-f", kOut + "bad"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kConfigInvalid);
  EXPECT_EQ(run.OutLines(), (Lines{RulePath("bad")}));
  EXPECT_FALSE(kxtest::Exists(kOut + "bad"));
}

TEST_F(KxaecctlExportTest, ExportElsewhereInTheInstallationIsRefused) {
  for (const std::string& target :
       {std::string("/opt/korvex/var/tmp/r1.json"), toolstest::kKxaide,
        toolstest::kLoadedSet, std::string("/opt/korvex/r1.json")}) {
    const std::string before =
        kxtest::Exists(target) ? kxtest::ReadFile(target) : "<absent>";
    EXPECT_EQ(Ctl({"export", "-n", "r1", "-f", target}).exit_code,
              KxAecCtl::kInvalidArgument)
        << target;
    EXPECT_EQ(kxtest::Exists(target) ? kxtest::ReadFile(target) : "<absent>",
              before)
        << target;
  }
}

TEST_F(KxaecctlExportTest, ExportOutsideTheInstallationWorks) {
  char dir[] = "/tmp/kx-export-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string target = std::string(dir) + "/r1.json";
  const auto run = Ctl({"export", "-n", "r1", "-f", target});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(kxtest::ReadFile(target), content_);
  boost::filesystem::remove_all(dir);
}
