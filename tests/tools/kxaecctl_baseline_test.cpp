// kxaecctl baseline: the system rule built from a fake dpkg database inside
// the sandbox, whose file lists point at files in the sandbox.
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "aec_rule.h"
#include "fake_dpkg_database.h"
#include "tools_test_util.h"

namespace {

namespace fs = std::filesystem;
using toolstest::RuleJson;
using toolstest::RulePath;

const std::string kAdminDir = "/opt/korvex/var/tmp/dpkg/";

class KxaecctlBaselineTest : public toolstest::ToolsTest {
 protected:
  void SetUp() override {
    ToolsTest::SetUp();
    Seal();
    res_ = toolstest::kResourceDir;
    // A real executable and a real shared object, so the ELF header is the
    // toolchain's, not a hand-made one.
    fs::copy_file("/bin/true", res_ + "prog");
    fs::copy_file(fs::canonical("/lib/x86_64-linux-gnu/libc.so.6"),
                  res_ + "libfoo.so.1");
    kxtest::WriteFile(res_ + "script", "#!/bin/sh\necho hi\n", 0755);
    kxtest::WriteFile(res_ + "data.txt", "plain data\n");
    kxtest::WriteFile(res_ + "fake-elf.o",
                      "\x7f"
                      "ELF not really\n");
    fs::create_symlink(res_ + "prog", res_ + "prog-link");
    kxtest::WriteDpkgDatabase(
        kAdminDir, {{"tools",
                     "install ok installed",
                     "",
                     "",
                     {"/.", res_, res_ + "prog", res_ + "prog-link",
                      res_ + "script", res_ + "gone"}},
                    {"libfoo1",
                     "install ok installed",
                     "Multi-Arch: same\n",
                     "libfoo1:amd64",
                     {res_, res_ + "libfoo.so.1"}},
                    {"docs",
                     "install ok installed",
                     "",
                     "",
                     {res_ + "data.txt", res_ + "fake-elf.o"}},
                    {"old", "deinstall ok config-files", "", "", {}, false}});
  }

  toolstest::ToolRun Baseline() {
    return Ctl({"baseline", "--admindir", kAdminDir});
  }

  std::string res_;
};

TEST_F(KxaecctlBaselineTest, TheRuleHoldsTheLoadableFilesOfInstalledPackages) {
  const auto run = Baseline();
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out,
            "baseline: 3 files from 2 packages (3 packages read, 1 listed "
            "paths no longer exist)\n");
  EXPECT_EQ(kxtest::ReadFile(RulePath("system-base")),
            RuleJson("system-base", true, false, true, true, {}, {},
                     {res_ + "libfoo.so.1", res_ + "prog", res_ + "script"}));
  const AecRule rule(RulePath("system-base"));
  EXPECT_TRUE(rule.System());
  // Loaded like any other change.
  const std::string loaded = kxtest::ReadFile(toolstest::kLoadedSet);
  EXPECT_NE(loaded.find(res_ + "libfoo.so.1"), std::string::npos);
  EXPECT_EQ(loaded.find(res_ + "data.txt"), std::string::npos);
  // And sealed: the integrity check passes after it.
  EXPECT_EQ(Ctl({"reload", "-C"}).exit_code, 0);
}

TEST_F(KxaecctlBaselineTest, ASecondRunReplacesTheRuleWhole) {
  ASSERT_EQ(Baseline().exit_code, 0);
  kxtest::WriteFile(kAdminDir + "info/tools.list", res_ + "prog\n");
  const auto run = Baseline();
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, "baseline: 2 files from 2 packages (3 packages read)\n");
  EXPECT_EQ(kxtest::ReadFile(RulePath("system-base")),
            RuleJson("system-base", true, false, true, true, {}, {},
                     {res_ + "libfoo.so.1", res_ + "prog"}));
}

TEST_F(KxaecctlBaselineTest, TheBaselineIsASystemRuleThatRmRefuses) {
  ASSERT_EQ(Baseline().exit_code, 0);
  const auto run = Ctl({"rm", "-n", "system-base"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kSystemRule);
  EXPECT_TRUE(kxtest::Exists(RulePath("system-base")));
  EXPECT_EQ(Ctl({"rm", "-A"}).exit_code, 0);
  EXPECT_TRUE(kxtest::Exists(RulePath("system-base")));
}

TEST_F(KxaecctlBaselineTest, AMissingListFileWritesNothing) {
  ASSERT_EQ(Baseline().exit_code, 0);
  const std::string before = kxtest::ReadFile(RulePath("system-base"));
  const std::string loaded_before = kxtest::ReadFile(toolstest::kLoadedSet);
  kxtest::WriteFile(res_ + "new-prog", "#!/bin/sh\n", 0755);
  kxtest::WriteFile(kAdminDir + "info/tools.list", res_ + "new-prog\n");
  fs::remove(kAdminDir + "info/docs.list");
  const auto run = Baseline();
  EXPECT_EQ(run.exit_code, KxAecCtl::kResourceMissing);
  EXPECT_NE(run.err.find("no file list for package docs"), std::string::npos)
      << run.err;
  EXPECT_EQ(kxtest::ReadFile(RulePath("system-base")), before);
  EXPECT_EQ(kxtest::ReadFile(toolstest::kLoadedSet), loaded_before);
}

TEST_F(KxaecctlBaselineTest, ADanglingLinkIsNamedAndNothingIsWritten) {
  fs::create_symlink(res_ + "nowhere", res_ + "dangling");
  kxtest::WriteFile(kAdminDir + "info/docs.list", res_ + "dangling\n");
  const auto run = Baseline();
  EXPECT_EQ(run.exit_code, KxAecCtl::kResourceMissing);
  EXPECT_NE(run.err.find(res_ + "dangling (package docs) is a dangling link"),
            std::string::npos)
      << run.err;
  EXPECT_FALSE(kxtest::Exists(RulePath("system-base")));
}

TEST_F(KxaecctlBaselineTest, SkipDanglingNamesTheLinkAndGoesOn) {
  fs::create_symlink(res_ + "nowhere", res_ + "dangling");
  kxtest::WriteFile(kAdminDir + "info/docs.list", res_ + "dangling\n");
  const auto run =
      Ctl({"baseline", "--admindir", kAdminDir, "--skip-dangling"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.err, "kxaecctl: baseline: skipped the dangling link " + res_ +
                         "dangling\n");
  EXPECT_EQ(kxtest::ReadFile(RulePath("system-base")),
            RuleJson("system-base", true, false, true, true, {}, {},
                     {res_ + "libfoo.so.1", res_ + "prog", res_ + "script"}));
}

TEST_F(KxaecctlBaselineTest, AMissingStatusFileIsElevenAndWritesNothing) {
  fs::remove(kAdminDir + "status");
  const auto run = Baseline();
  EXPECT_EQ(run.exit_code, KxAecCtl::kConfigMissing);
  EXPECT_NE(run.err.find("package status file"), std::string::npos) << run.err;
  EXPECT_FALSE(kxtest::Exists(RulePath("system-base")));
}

// Not the baseline: a plain run refuses to replace it, and a refresh
// counts it as no baseline at all.
TEST_F(KxaecctlBaselineTest,
       AnAdministratorsRuleOfThatNameIsNeitherReplacedNorRefreshed) {
  ASSERT_EQ(
      Ctl({"add", "-n", "system-base", "-u", "root", "-r", res_ + "prog", "-d"})
          .exit_code,
      0);
  const std::string before = kxtest::ReadFile(RulePath("system-base"));
  const auto run = Baseline();
  EXPECT_EQ(run.exit_code, KxAecCtl::kRuleExists);
  EXPECT_EQ(kxtest::ReadFile(RulePath("system-base")), before);
  const auto refresh = Ctl({"baseline", "--admindir", kAdminDir, "--refresh"});
  EXPECT_EQ(refresh.exit_code, 0) << refresh.err;
  EXPECT_EQ(refresh.out, "");
  EXPECT_EQ(kxtest::ReadFile(RulePath("system-base")), before);
}

// The package hook's mode: a host whose administrator never made a
// baseline gets none, and the hook prints nothing there.
TEST_F(KxaecctlBaselineTest, RefreshWithoutABaselineChangesAndPrintsNothing) {
  const std::set<std::string> before = toolstest::RuleFiles();
  const std::string seal = kxtest::ReadFile(toolstest::kCrcDb);
  const auto run = Ctl({"baseline", "--admindir", kAdminDir, "--refresh"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "");
  EXPECT_FALSE(kxtest::Exists(RulePath("system-base")));
  EXPECT_EQ(toolstest::RuleFiles(), before);
  EXPECT_EQ(kxtest::ReadFile(toolstest::kCrcDb), seal);
}

TEST_F(KxaecctlBaselineTest, RefreshReplacesAnExistingBaseline) {
  ASSERT_EQ(Baseline().exit_code, 0);
  kxtest::WriteFile(kAdminDir + "info/tools.list", res_ + "prog\n");
  const auto run =
      Ctl({"baseline", "--admindir", kAdminDir, "--refresh", "--check"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, "baseline: 2 files from 2 packages (3 packages read)\n");
  EXPECT_EQ(kxtest::ReadFile(RulePath("system-base")),
            RuleJson("system-base", true, false, true, true, {}, {},
                     {res_ + "libfoo.so.1", res_ + "prog"}));
  EXPECT_EQ(Ctl({"reload", "-C"}).exit_code, 0);
}

// Every commit seals what it finds, so an unattended refresh with --check
// must not turn a hand edit into the sealed state.
TEST_F(KxaecctlBaselineTest, CheckRefusesAConfigurationChangedSinceItsSeal) {
  ASSERT_EQ(Baseline().exit_code, 0);
  const std::string rule = kxtest::ReadFile(RulePath("system-base"));
  const std::string seal = kxtest::ReadFile(toolstest::kCrcDb);
  kxtest::WriteFile(toolstest::kWhitelist,
                    toolstest::WhitelistJson({"root"}, {}));
  kxtest::WriteFile(kAdminDir + "info/tools.list", res_ + "prog\n");
  const auto run =
      Ctl({"baseline", "--admindir", kAdminDir, "--refresh", "--check"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kIntegrityDbUpdate);
  EXPECT_NE(run.err.find(toolstest::kWhitelist), std::string::npos) << run.err;
  EXPECT_EQ(kxtest::ReadFile(RulePath("system-base")), rule);
  EXPECT_EQ(kxtest::ReadFile(toolstest::kCrcDb), seal);
}

TEST_F(KxaecctlBaselineTest, UnknownArgumentsAreTwo) {
  const auto run = Ctl({"baseline", "--since", "1"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kInvalidArgument);
  EXPECT_NE(run.err.find("unexpected argument '--since'"), std::string::npos);
  EXPECT_EQ(Ctl({"baseline", "--admindir"}).exit_code,
            KxAecCtl::kInvalidArgument);
  const auto help = Ctl({"baseline", "--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("Usage: kxaecctl baseline"), std::string::npos);
}

}  // namespace

TEST_F(KxaecctlBaselineTest, FilesNoOneMayRunAndNotNamedAsLibrariesAreLeftOut) {
  const std::string other = "/opt/korvex/var/tmp/dpkg-code/";
  // The same bytes under names and modes that decide.
  fs::copy_file(fs::canonical("/lib/x86_64-linux-gnu/libc.so.6"),
                res_ + "debug-info.debug");
  fs::permissions(res_ + "debug-info.debug", fs::perms::owner_read);
  fs::copy_file(fs::canonical("/lib/x86_64-linux-gnu/libc.so.6"),
                res_ + "plugin.so");
  fs::permissions(res_ + "plugin.so", fs::perms::owner_read);
  kxtest::WriteFile(res_ + "module.py", "#!/usr/bin/python3\n", 0644);
  kxtest::WriteFile(res_ + "tool", "#!/bin/sh\n", 0744);
  fs::create_symlink(res_ + "plugin.so", res_ + "plugin-link");
  kxtest::WriteDpkgDatabase(
      other, {{"mixed",
               "install ok installed",
               "",
               "",
               {res_ + "debug-info.debug", res_ + "plugin.so",
                res_ + "module.py", res_ + "tool", res_ + "plugin-link"}}});
  const auto run = Ctl({"baseline", "--admindir", other});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(kxtest::ReadFile(RulePath("system-base")),
            RuleJson("system-base", true, false, true, true, {}, {},
                     {res_ + "plugin.so", res_ + "tool"}));
}
