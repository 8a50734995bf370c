// Installing korvex-aec on a clean machine: dpkg -i of the built package,
// its postinst run for real against the sandboxed /opt/korvex.
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <string>
#include <vector>

#include "built_package.h"
#include "installed_package_test.h"
#include "installed_system.h"
#include "lib/fresh_install.h"
#include "lib/sandbox.h"
#include "package_sandbox.h"

namespace pkgtest {
namespace {

using PackageInstallTest = InstalledPackageTest;

TEST_F(PackageInstallTest,
       InstallingOnACleanMachinePutsEveryFileUnderOptKorvex) {
  EXPECT_EQ(sandbox_->Status("korvex-aec"), "install ok installed");
  EXPECT_EQ(sandbox_->Version("korvex-aec"), Packages().version);
  for (const char* program : {kKxhost, kKxaecctl, kKxaide}) {
    EXPECT_EQ(access(program, X_OK), 0) << program;
  }
  for (const char* library :
       {"/opt/korvex/lib/libaec.so", "/opt/korvex/lib/libkxhost.so"}) {
    EXPECT_TRUE(boost::filesystem::is_regular_file(library)) << library;
  }
  EXPECT_TRUE(Exists("/opt/korvex/share/locale/korvex-aec.pot"));
}

TEST_F(PackageInstallTest, PostinstCreatesTheInitialConfigurationAndSealsIt) {
  for (const char* dir :
       {"etc/aec/rules", "usr/db", "var/log", "var/tmp/rm",
        "var/tmp/pam_messages", "var/cache/kxnetwork", "var/export"}) {
    EXPECT_TRUE(boost::filesystem::is_directory(std::string(kRoot) + "/" + dir))
        << dir;
  }
  EXPECT_TRUE(boost::filesystem::is_empty("/opt/korvex/etc/aec/rules"));
  EXPECT_EQ(ReadFile(kWhitelist), kEmptyWhitelist);
  EXPECT_NE(ReadFile(kCrcList).find("\n/opt/korvex/etc/aec/rules/\n"),
            std::string::npos);
  // Sealed: the database in force matches what the list names now.
  ASSERT_TRUE(Exists(kCrcDb));
  EXPECT_NE(ReadFile(kCrcDb).find(kWhitelist), std::string::npos);
  const RunResult check = CheckSeal();
  EXPECT_EQ(check.exit_code, 0) << check.out << check.err;
  // Nothing half-done is left behind.
  for (boost::filesystem::directory_iterator it(kConfigDir), end; it != end;
       ++it) {
    const std::string name = it->path().filename().string();
    EXPECT_TRUE(name == "rules" || name == "white-list.config" ||
                name == "crc-rule.conf" || name == "crc-rule.db")
        << name;
  }
}

// The sandboxed host seeds its roots with the seeding postinst runs
// (kxhost seed); what a fresh installation gets is exactly that.
TEST_F(PackageInstallTest, PostinstMakesWhatTheHostSeedsForAFreshInstall) {
  const std::string seeded = MakeTempDir();
  kxhost::SeedFreshInstall(seeded);
  EXPECT_EQ(ReadFile(kWhitelist),
            ReadFile(seeded + "/etc/aec/white-list.config"));
  EXPECT_EQ(ReadFile(kCrcList), ReadFile(seeded + "/etc/aec/crc-rule.conf"));
  // The host's seed may have var/run/sysctl, its stand-in for /proc/sys; the
  // package's root also has the directories of its files: include/, lib/,
  // sbin/ and share/.
  std::vector<std::string> expected;
  for (const auto& dir : Directories(seeded)) {
    if (dir.rfind("var/run", 0) != 0) expected.push_back(dir);
  }
  std::vector<std::string> installed;
  for (const auto& dir : Directories(kRoot)) {
    if (dir.rfind("include", 0) != 0 && dir.rfind("lib", 0) != 0 &&
        dir.rfind("sbin", 0) != 0 && dir.rfind("var/run", 0) != 0 &&
        dir.rfind("share", 0) != 0) {
      installed.push_back(dir);
    }
  }
  EXPECT_EQ(installed, expected);
  boost::system::error_code ignored;
  boost::filesystem::remove_all(seeded, ignored);
}

TEST_F(PackageInstallTest, InstalledKxhostRunsTheInstalledPlugin) {
  const RunResult info = RunProgram({kKxhost, "info"});
  EXPECT_EQ(info.exit_code, 0) << info.err;
  EXPECT_EQ(info.out,
            "name: aec\ndescription: Application execution control plugin\n");
  // plugin_init wrote its default rows into the installed settings database.
  EXPECT_FALSE(SettingsRows().empty());
}

TEST_F(PackageInstallTest, InstalledBinariesFindTheirLibrariesUnderOptKorvex) {
  for (const char* file :
       {kKxhost, kKxaecctl, kKxaide, "/opt/korvex/lib/libaec.so",
        "/opt/korvex/lib/libkxhost.so"}) {
    const RunResult dynamic = RunProgram({"/usr/bin/readelf", "-d", file});
    ASSERT_EQ(dynamic.exit_code, 0) << dynamic.err;
    EXPECT_NE(dynamic.out.find(
                  "(RUNPATH)            Library runpath: [/opt/korvex/lib]\n"),
              std::string::npos)
        << file << ":\n"
        << dynamic.out;
    if (std::string(file) == "/opt/korvex/lib/libkxhost.so") continue;
    const RunResult resolved = RunProgram({"/usr/bin/ldd", file});
    ASSERT_EQ(resolved.exit_code, 0) << resolved.err;
    EXPECT_NE(
        resolved.out.find("libkxhost.so => /opt/korvex/lib/libkxhost.so "),
        std::string::npos)
        << file << ":\n"
        << resolved.out;
  }
}

TEST_F(PackageInstallTest, InstalledToolsAnswerHelp) {
  const RunResult control = RunProgram({kKxaecctl, "--help"});
  EXPECT_EQ(control.exit_code, 0) << control.err;
  EXPECT_NE(control.out.find("kxaecctl"), std::string::npos) << control.out;
  const RunResult aide = RunProgram({kKxaide, "--help"});
  EXPECT_EQ(aide.exit_code, 0) << aide.err;
  EXPECT_NE(aide.out.find("Usage: kxaide"), std::string::npos) << aide.out;
}

// kxserv admits root and this group's members; postinst makes the group in
// the sandbox's copy of /etc, never in the machine's.
TEST_F(PackageInstallTest, PostinstCreatesTheServiceAdminGroup) {
  const RunResult group = RunProgram({"/usr/bin/getent", "group", "kxadmin"});
  EXPECT_EQ(group.exit_code, 0) << group.err;
  EXPECT_EQ(group.out.rfind("kxadmin:", 0), 0u) << group.out;
  const RunResult help = RunProgram({"/opt/korvex/sbin/kxserv", "--help"});
  EXPECT_EQ(help.exit_code, 0) << help.err;
  EXPECT_NE(help.out.find("kxserv"), std::string::npos);
  const RunResult client = RunProgram({"/opt/korvex/bin/kxctl", "--help"});
  EXPECT_EQ(client.exit_code, 0) << client.err;
}

// kxaecctl -C refuses to change a configuration that is not sealed: the
// seal postinst made is the one it needs.
TEST_F(PackageInstallTest, CheckedChangesWorkRightAfterInstalling) {
  const RunResult add = RunProgram({kKxaecctl, "add", "-n", "first", "-a", "-r",
                                    "/usr/bin/true", "-d", "-C"});
  EXPECT_EQ(add.exit_code, 0) << add.out << add.err;
  EXPECT_TRUE(Exists("/opt/korvex/etc/aec/rules/first.conf"));
  const RunResult check = CheckSeal();
  EXPECT_EQ(check.exit_code, 0) << check.out << check.err;
}

TEST_F(PackageInstallTest, PostinstRunAgainChangesNothing) {
  const std::vector<std::string> before = Snapshot(kRoot);
  const RunResult again =
      RunProgram({kPostinst, "configure", Packages().version});
  EXPECT_EQ(again.exit_code, 0) << again.out << again.err;
  EXPECT_EQ(Snapshot(kRoot), before);
}

}  // namespace
}  // namespace pkgtest
