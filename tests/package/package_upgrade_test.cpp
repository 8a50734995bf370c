// Upgrading, reinstalling, removing and purging an installation that an
// administrator has configured. The configuration and the data are the
// administrator's: only purge may take them away.
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <string>
#include <vector>

#include "built_package.h"
#include "installed_package_test.h"
#include "installed_system.h"
#include "package_sandbox.h"

namespace pkgtest {
namespace {

constexpr const char* kRule = "/opt/korvex/etc/aec/rules/build-tools.conf";
constexpr const char* kNotConfirmed =
    "AEC hard mode was not confirmed. You need to re-enable and confirm it";

class PackageUpgradeTest : public InstalledPackageTest {
 protected:
  void SetUp() override {
    InstalledPackageTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_EQ(SeedAdministratorState(), "");
    ASSERT_TRUE(Exists(kRule));
    ASSERT_NE(ReadFile(kWhitelist).find("root"), std::string::npos);
    const RunResult status =
        StatusConfirmation(sandbox_->Scratch("status.xml"));
    ASSERT_EQ(status.exit_code, 0) << status.err;
    ASSERT_NE(status.out.find(kNotConfirmed), std::string::npos) << status.out;
  }
};

TEST_F(PackageUpgradeTest, UpgradeKeepsRulesWhitelistSettingsAndConfirmation) {
  const std::vector<std::string> configuration = Snapshot(kConfigDir);
  const std::vector<std::string> rows = SettingsRows();
  const std::string confirmation = ReadFile(kConfirmState);
  ASSERT_NE(
      std::find(rows.begin(), rows.end(),
                "conf.network_plugin_config|KXDomainServer|dc1.example.org"),
      rows.end());

  const RunResult upgrade = sandbox_->Dpkg({"-i", Packages().upgrade_deb});
  ASSERT_EQ(upgrade.exit_code, 0) << upgrade.out << upgrade.err;
  EXPECT_EQ(sandbox_->Version("korvex-aec"), Packages().upgrade_version);
  EXPECT_EQ(sandbox_->Status("korvex-aec"), "install ok installed");

  EXPECT_EQ(Snapshot(kConfigDir), configuration);
  EXPECT_EQ(SettingsRows(), rows);
  EXPECT_EQ(ReadFile(kConfirmState), confirmation);
  // And the upgraded programs see it all as before.
  const RunResult check = CheckSeal();
  EXPECT_EQ(check.exit_code, 0) << check.out << check.err;
  const RunResult status = StatusConfirmation(sandbox_->Scratch("status.xml"));
  EXPECT_EQ(status.exit_code, 0) << status.err;
  EXPECT_NE(status.out.find(kNotConfirmed), std::string::npos) << status.out;
}

// The database in force is the administrator's seal: a hand edit since must
// still show as a difference after the upgrade, not be sealed over.
TEST_F(PackageUpgradeTest, UpgradeDoesNotResealAChangedConfiguration) {
  const std::string seal = ReadFile(kCrcDb);
  WriteFile(
      kWhitelist,
      "{\n    \"user_list\": \"mallory\",\n    \"group_list\": \"\"\n}\n");
  const RunResult upgrade = sandbox_->Dpkg({"-i", Packages().upgrade_deb});
  ASSERT_EQ(upgrade.exit_code, 0) << upgrade.out << upgrade.err;
  EXPECT_EQ(ReadFile(kCrcDb), seal);
  const RunResult check = CheckSeal();
  EXPECT_EQ(check.exit_code, 1) << check.out << check.err;
  EXPECT_NE(check.out.find(kWhitelist), std::string::npos) << check.out;
}

TEST_F(PackageUpgradeTest, ReinstallMakesAgainOnlyWhatIsMissing) {
  const std::string rule = ReadFile(kRule);
  ASSERT_TRUE(boost::filesystem::remove(kWhitelist));
  ASSERT_TRUE(boost::filesystem::remove(kCrcDb));
  const RunResult reinstall = sandbox_->Dpkg({"-i", Packages().deb});
  ASSERT_EQ(reinstall.exit_code, 0) << reinstall.out << reinstall.err;
  EXPECT_EQ(ReadFile(kWhitelist), kEmptyWhitelist);
  EXPECT_EQ(ReadFile(kRule), rule);
  // Sealed anew, over the rule that is there now.
  EXPECT_NE(ReadFile(kCrcDb).find(kRule), std::string::npos);
  const RunResult check = CheckSeal();
  EXPECT_EQ(check.exit_code, 0) << check.out << check.err;
}

TEST_F(PackageUpgradeTest, RemoveKeepsConfigurationAndData) {
  const std::vector<std::string> configuration = Snapshot(kConfigDir);
  const std::vector<std::string> rows = SettingsRows();
  const std::string confirmation = ReadFile(kConfirmState);

  const RunResult remove = sandbox_->Dpkg({"-r", "korvex-aec"});
  ASSERT_EQ(remove.exit_code, 0) << remove.out << remove.err;
  EXPECT_EQ(sandbox_->Status("korvex-aec"), "deinstall ok config-files");
  for (const char* file :
       {kKxhost, kKxaecctl, kKxaide, "/opt/korvex/lib/libaec.so",
        "/opt/korvex/lib/libkxhost.so"}) {
    EXPECT_FALSE(Exists(file)) << file;
  }
  EXPECT_EQ(Snapshot(kConfigDir), configuration);
  EXPECT_EQ(SettingsRows(), rows);
  EXPECT_EQ(ReadFile(kConfirmState), confirmation);

  // Installed again, it finds everything as it was.
  const RunResult install = sandbox_->Dpkg({"-i", Packages().deb});
  ASSERT_EQ(install.exit_code, 0) << install.out << install.err;
  EXPECT_EQ(Snapshot(kConfigDir), configuration);
  const RunResult status = StatusConfirmation(sandbox_->Scratch("status.xml"));
  EXPECT_NE(status.out.find(kNotConfirmed), std::string::npos) << status.out;
}

TEST_F(PackageUpgradeTest, PurgeRemovesConfigurationAndData) {
  const RunResult purge = sandbox_->Dpkg({"-P", "korvex-aec"});
  ASSERT_EQ(purge.exit_code, 0) << purge.out << purge.err;
  EXPECT_EQ(sandbox_->Status("korvex-aec"), "");
  // Everything below it was the installation's, so the root goes too.
  EXPECT_FALSE(Exists(kRoot));
}

// Purge takes what the installation made, not what another package keeps
// below /opt/korvex.
TEST_F(PackageUpgradeTest, PurgeLeavesWhatOthersKeepInTheInstallRoot) {
  boost::filesystem::create_directories("/opt/korvex/etc/other");
  WriteFile("/opt/korvex/etc/other/keep.conf", "mine\n");
  const RunResult purge = sandbox_->Dpkg({"-P", "korvex-aec"});
  ASSERT_EQ(purge.exit_code, 0) << purge.out << purge.err;
  EXPECT_EQ(ReadFile("/opt/korvex/etc/other/keep.conf"), "mine\n");
  EXPECT_FALSE(Exists("/opt/korvex/etc/aec"));
  EXPECT_FALSE(Exists("/opt/korvex/var"));
  EXPECT_FALSE(Exists("/opt/korvex/usr/db"));
}

}  // namespace
}  // namespace pkgtest
