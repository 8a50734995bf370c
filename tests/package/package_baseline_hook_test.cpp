// The apt hook the package installs: apt finds it where it reads its
// configuration, and the exact command it configures, run as apt runs it
// (/bin/sh -c), refreshes the system baseline after a package change.
// Packages are "changed" in a dpkg database the test makes and lays over
// the sandbox's /var/lib/dpkg; real apt is not needed.
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/algorithm/string.hpp>
#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <chrono>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "built_package.h"
#include "fake_dpkg_database.h"
#include "installed_package_test.h"
#include "installed_system.h"
#include "package_sandbox.h"

namespace pkgtest {
namespace {

namespace fs = boost::filesystem;
using kxtest::FakePackage;

constexpr const char* kBaselineRule =
    "/opt/korvex/etc/aec/rules/system-base.conf";
constexpr const char* kLoadedSet = "/opt/korvex/var/lib/aec/loaded-rules";

// The files the baseline rule allows.
std::set<std::string> BaselineFiles() {
  boost::property_tree::ptree rule;
  boost::property_tree::read_json(kBaselineRule, rule);
  EXPECT_EQ(rule.get<std::string>("system"), "true");
  std::set<std::string> files;
  for (const auto& item : rule.get_child("resource_list")) {
    files.insert(item.second.data());
  }
  return files;
}

// Every command apt runs after dpkg, as apt's own configuration parser
// gives them from the configuration it reads (the sandbox's /etc/apt).
std::vector<std::string> PostInvokeCommands() {
  const RunResult dump =
      RunProgram({"/usr/bin/apt-config", "dump", "--no-empty", "--format",
                  "%v%n", "DPkg::Post-Invoke"});
  EXPECT_EQ(dump.exit_code, 0) << dump.err;
  std::vector<std::string> commands;
  std::istringstream lines(dump.out);
  std::string line;
  while (std::getline(lines, line)) {
    if (!line.empty()) commands.push_back(line);
  }
  return commands;
}

// The one Post-Invoke command that is the package's.
std::string HookCommand() {
  std::vector<std::string> ours;
  for (const auto& command : PostInvokeCommands()) {
    if (command.find(kBaselineRefresh) != std::string::npos) {
      ours.push_back(command);
    }
  }
  EXPECT_EQ(ours.size(), 1u);
  return ours.empty() ? "false" : ours.front();
}

class PackageBaselineHookTest : public InstalledPackageTest {
 protected:
  void SetUp() override {
    InstalledPackageTest::SetUp();
    if (HasFatalFailure()) return;
    const std::string dir = sandbox_->Scratch("files");
    files_ = dir + "/";
    admin_dir_ = sandbox_->Scratch("fake-dpkg");
    fs::create_directories(files_);
    kxtest::CopyFile("/bin/true", files_ + "prog");
    kxtest::WriteFile(files_ + "script", "#!/bin/sh\necho hi\n", 0755);
    kxtest::WriteFile(files_ + "readme", "plain text\n");
    packages_ = {
        {"tools", "install ok installed", "", "", {dir, files_ + "prog"}},
        {"scripts",
         "install ok installed",
         "",
         "",
         {files_ + "script", files_ + "readme"}},
    };
    kxtest::WriteDpkgDatabase(admin_dir_, packages_);
  }

  // The fake database in place of dpkg's, as the hook's kxaecctl reads it.
  void UseFakeDatabase() { sandbox_->OverlayDpkgDatabase(admin_dir_); }

  // "Installs" a package with one new program.
  std::string InstallNewPackage() {
    const std::string program = files_ + "new-prog";
    kxtest::CopyFile("/bin/true", program);
    packages_.push_back({"newpkg", "install ok installed", "", "", {program}});
    kxtest::WriteDpkgDatabase(admin_dir_, packages_);
    return program;
  }

  // The administrator's opt-in: one baseline made by hand.
  void MakeBaseline() {
    const RunResult run = RunProgram({kKxaecctl, "baseline"});
    ASSERT_EQ(run.exit_code, 0) << run.out << run.err;
    ASSERT_EQ(run.out, "baseline: 2 files from 2 packages (2 packages read)\n");
  }

  RunResult RunHook() { return RunProgram({"/bin/sh", "-c", HookCommand()}); }

  std::string files_;
  std::string admin_dir_;
  std::vector<FakePackage> packages_;
};

TEST_F(PackageBaselineHookTest, AptReadsTheHookFromTheInstalledConffile) {
  ASSERT_TRUE(fs::is_regular_file(kAptHook));
  EXPECT_EQ(fs::status(kAptHook).permissions() & 0777, 0644);
  const RunResult conffiles = RunProgram(
      {"/usr/bin/dpkg-query", "-W", "-f=${Conffiles}", "korvex-aec"});
  ASSERT_EQ(conffiles.exit_code, 0) << conffiles.err;
  EXPECT_NE(conffiles.out.find(std::string(" ") + kAptHook + " "),
            std::string::npos)
      << conffiles.out;
  const std::string command = HookCommand();
  EXPECT_NE(ReadFile(kAptHook).find("\"" + command + "\""), std::string::npos)
      << command;
  EXPECT_EQ(access(kBaselineRefresh, X_OK), 0);
}

TEST_F(PackageBaselineHookTest,
       TheHookRefreshesTheBaselineAfterAPackageChange) {
  UseFakeDatabase();
  ASSERT_NO_FATAL_FAILURE(MakeBaseline());
  const std::string program = InstallNewPackage();
  ASSERT_EQ(BaselineFiles().count(program), 0u);

  const RunResult hook = RunHook();
  EXPECT_EQ(hook.exit_code, 0) << hook.err;
  EXPECT_EQ(hook.out, "baseline: 3 files from 3 packages (3 packages read)\n");
  EXPECT_EQ(hook.err, "");
  EXPECT_EQ(BaselineFiles(), (std::set<std::string>{program, files_ + "prog",
                                                    files_ + "script"}));
  EXPECT_NE(ReadFile(kLoadedSet).find(program), std::string::npos);
  // Committed like any change: sealed, so checked changes still work.
  const RunResult check = CheckSeal();
  EXPECT_EQ(check.exit_code, 0) << check.out << check.err;
}

// Opt-in: a host whose administrator never made a baseline gets no system
// rule from a package change, and apt's output stays quiet.
TEST_F(PackageBaselineHookTest, TheHookDoesNothingWhereNoBaselineWasMade) {
  UseFakeDatabase();
  InstallNewPackage();
  const std::vector<std::string> configuration = Snapshot(kConfigDir);
  const RunResult hook = RunHook();
  EXPECT_EQ(hook.exit_code, 0) << hook.err;
  EXPECT_EQ(hook.out, "");
  EXPECT_EQ(hook.err, "");
  EXPECT_FALSE(Exists(kBaselineRule));
  EXPECT_EQ(Snapshot(kConfigDir), configuration);
}

TEST_F(PackageBaselineHookTest,
       AFailedRefreshKeepsTheBaselineSaysWhatFailedAndExitsZero) {
  UseFakeDatabase();
  ASSERT_NO_FATAL_FAILURE(MakeBaseline());
  const std::string rule = ReadFile(kBaselineRule);
  const std::string loaded = ReadFile(kLoadedSet);
  InstallNewPackage();
  ASSERT_TRUE(fs::remove(admin_dir_ + "/info/scripts.list"));

  const RunResult hook = RunHook();
  EXPECT_EQ(hook.exit_code, 0);
  EXPECT_EQ(hook.out, "");
  EXPECT_NE(hook.err.find("no file list for package scripts"),
            std::string::npos)
      << hook.err;
  EXPECT_NE(hook.err.find("the system baseline was not refreshed (kxaecctl "
                          "exited with 25)"),
            std::string::npos)
      << hook.err;
  EXPECT_EQ(ReadFile(kBaselineRule), rule);
  EXPECT_EQ(ReadFile(kLoadedSet), loaded);
}

// A link that leads nowhere cannot be run: it must not hold up every later
// upgrade's refresh.
TEST_F(PackageBaselineHookTest, TheHookSkipsDanglingLinksAndNamesThem) {
  UseFakeDatabase();
  ASSERT_NO_FATAL_FAILURE(MakeBaseline());
  const std::string program = InstallNewPackage();
  fs::create_symlink(files_ + "nowhere", files_ + "dangling");
  packages_.back().list.push_back(files_ + "dangling");
  kxtest::WriteDpkgDatabase(admin_dir_, packages_);

  const RunResult hook = RunHook();
  EXPECT_EQ(hook.exit_code, 0) << hook.err;
  EXPECT_EQ(hook.err, "kxaecctl: baseline: skipped the dangling link " +
                          files_ + "dangling\n");
  EXPECT_EQ(BaselineFiles().count(program), 1u);
  EXPECT_EQ(BaselineFiles().count(files_ + "dangling"), 0u);
}

// The commit seals what it finds: an unattended refresh must not seal a
// hand edit nobody vouched for.
TEST_F(PackageBaselineHookTest, TheHookDoesNotSealOverAHandEdit) {
  UseFakeDatabase();
  ASSERT_NO_FATAL_FAILURE(MakeBaseline());
  const std::string rule = ReadFile(kBaselineRule);
  const std::string seal = ReadFile(kCrcDb);
  WriteFile(
      kWhitelist,
      "{\n    \"user_list\": \"mallory\",\n    \"group_list\": \"\"\n}\n");
  InstallNewPackage();

  const RunResult hook = RunHook();
  EXPECT_EQ(hook.exit_code, 0);
  EXPECT_NE(hook.err.find(kWhitelist), std::string::npos) << hook.err;
  EXPECT_NE(hook.err.find("exited with 24"), std::string::npos) << hook.err;
  EXPECT_EQ(ReadFile(kBaselineRule), rule);
  EXPECT_EQ(ReadFile(kCrcDb), seal);
  EXPECT_EQ(CheckSeal().exit_code, 1);
}

// The machine's own package database as the hook meets it on a real host.
TEST_F(PackageBaselineHookTest, TheHookRefreshesFromTheMachinesDatabase) {
  const RunResult made = RunProgram({kKxaecctl, "baseline", "--skip-dangling"});
  ASSERT_EQ(made.exit_code, 0) << made.out << made.err;
  const auto start = std::chrono::steady_clock::now();
  const RunResult hook = RunHook();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start)
          .count();
  EXPECT_EQ(hook.exit_code, 0) << hook.err;
  EXPECT_EQ(hook.err.find("not refreshed"), std::string::npos) << hook.err;
  EXPECT_EQ(hook.out.rfind("baseline: ", 0), 0u) << hook.out;
  std::cout << "hook on this machine's database: " << boost::trim_copy(hook.out)
            << " in " << seconds << " s\n";
  const std::set<std::string> files = BaselineFiles();
  EXPECT_EQ(files.count(fs::canonical("/usr/bin/dpkg").string()), 1u);
  // The package's own programs are in the database too.
  EXPECT_EQ(files.count(kKxaecctl), 1u);
}

// After "dpkg -r" the conffile stays (apt keeps reading it) but the
// command it names is gone: the hook does nothing. Purge removes it.
TEST_F(PackageBaselineHookTest,
       AfterRemovalTheHookDoesNothingAndPurgeRemovesIt) {
  const RunResult remove = sandbox_->Dpkg({"-r", "korvex-aec"});
  ASSERT_EQ(remove.exit_code, 0) << remove.out << remove.err;
  EXPECT_FALSE(Exists(kBaselineRefresh));
  ASSERT_TRUE(Exists(kAptHook));
  const RunResult hook = RunHook();
  EXPECT_EQ(hook.exit_code, 0) << hook.err;
  EXPECT_EQ(hook.out, "");
  EXPECT_EQ(hook.err, "");

  const RunResult purge = sandbox_->Dpkg({"-P", "korvex-aec"});
  ASSERT_EQ(purge.exit_code, 0) << purge.out << purge.err;
  EXPECT_FALSE(Exists(kAptHook));
  for (const auto& command : PostInvokeCommands()) {
    EXPECT_EQ(command.find(kBaselineRefresh), std::string::npos) << command;
  }
}

// A conffile: the administrator's edit (here: the hook switched off)
// survives an upgrade.
TEST_F(PackageBaselineHookTest, UpgradeKeepsAnAdministratorsEditOfTheHook) {
  const std::string edited = "// switched off by the administrator\n";
  WriteFile(kAptHook, edited);
  const RunResult upgrade = sandbox_->Dpkg({"-i", Packages().upgrade_deb});
  ASSERT_EQ(upgrade.exit_code, 0) << upgrade.out << upgrade.err;
  EXPECT_EQ(sandbox_->Version("korvex-aec"), Packages().upgrade_version);
  EXPECT_EQ(ReadFile(kAptHook), edited);
  EXPECT_TRUE(Exists(kBaselineRefresh));
}

}  // namespace
}  // namespace pkgtest
