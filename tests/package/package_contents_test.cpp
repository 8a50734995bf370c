// What the .deb holds and declares, read with dpkg-deb without installing.
#include <gtest/gtest.h>

#include <boost/algorithm/string.hpp>
#include <boost/filesystem.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "built_package.h"
#include "installed_system.h"
#include "package_sandbox.h"

namespace pkgtest {
namespace {

class PackageContentsTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(Packages().error, ""); }

  std::string Field(const std::string& name) {
    const RunResult run =
        RunProgram({"/usr/bin/dpkg-deb", "-f", Packages().deb, name});
    EXPECT_EQ(run.exit_code, 0) << run.err;
    return boost::trim_copy(run.out);
  }

  // Paths (tar's "./opt/..."), one per entry of the listing.
  std::vector<std::string> Listing(const std::string& option) {
    const RunResult run =
        RunProgram({"/usr/bin/dpkg-deb", option, Packages().deb});
    EXPECT_EQ(run.exit_code, 0) << run.err;
    std::vector<std::string> paths;
    std::istringstream lines(run.out);
    std::string line;
    while (std::getline(lines, line)) {
      const auto last_space = line.rfind(' ');
      if (last_space != std::string::npos)
        paths.push_back(line.substr(last_space + 1));
    }
    return paths;
  }
};

TEST_F(PackageContentsTest,
       ControlNamesThePackageItsVersionArchitectureAndMaintainer) {
  EXPECT_EQ(Field("Package"), "korvex-aec");
  EXPECT_EQ(Field("Version"), Packages().version);
  EXPECT_EQ(Field("Version"), KX_PACKAGE_VERSION);
  const RunResult arch = RunProgram({"/usr/bin/dpkg", "--print-architecture"});
  ASSERT_EQ(arch.exit_code, 0);
  EXPECT_EQ(Field("Architecture"), boost::trim_copy(arch.out));
  EXPECT_NE(Field("Maintainer").find('@'), std::string::npos);
  EXPECT_EQ(Field("Section"), "admin");
  EXPECT_NE(Field("Description").find("application execution control"),
            std::string::npos);
}

TEST_F(PackageContentsTest, TheRuntimeLibrariesAreDeclaredDependencies) {
  std::set<std::string> names;
  std::vector<std::string> items;
  const std::string depends = Field("Depends");
  boost::split(items, depends, boost::is_any_of(","));
  for (auto item : items) {
    boost::trim(item);
    names.insert(item.substr(0, item.find(' ')));
  }
  for (const char* library :
       {"libc6", "libstdc++6", "libboost-filesystem1.74.0",
        "libboost-log1.74.0", "libsqlite3-0", "libldap-2.5-0", "libssl3"}) {
    EXPECT_EQ(names.count(library), 1u)
        << library << " missing in: " << depends;
  }
}

// The configuration below etc/aec is never a package file: an upgrade
// would overwrite what the administrator has there. The host contract and
// its CMake package are, so that plug-ins build against the installed host.
// The one file outside /opt/korvex is the apt hook.
TEST_F(PackageContentsTest,
       ShipsProgramsLibrariesUnitsManualPagesTheContractAndTheCatalogueButNoConfiguration) {
  std::set<std::string> files;
  for (const auto& path : Listing("-c")) {
    if (path.back() != '/') files.insert(path);
  }
  std::set<std::string> expected = {
      "./etc/apt/apt.conf.d/80korvex-aec-baseline",
      "./opt/korvex/bin/kxaecctl",
      "./opt/korvex/bin/kxaide",
      "./opt/korvex/bin/kxctl",
      "./opt/korvex/bin/kxhost",
      "./opt/korvex/lib/libaec.so",
      "./opt/korvex/lib/libkxhost.so",
      "./opt/korvex/lib/cmake/KorvexHost/KorvexHostConfig.cmake",
      "./opt/korvex/lib/cmake/KorvexHost/KorvexHostConfigVersion.cmake",
      "./opt/korvex/lib/cmake/KorvexHost/KorvexHostTargets.cmake",
      "./opt/korvex/lib/systemd/system/kxaecd.service",
      "./opt/korvex/lib/systemd/system/kxconsole.service",
      "./opt/korvex/lib/systemd/system/kxserv.service",
      "./opt/korvex/libexec/kxaec-baseline-refresh",
      "./opt/korvex/sbin/kxaecd",
      "./opt/korvex/sbin/kxconsole",
      "./opt/korvex/sbin/kxserv",
      "./opt/korvex/share/locale/korvex-aec.pot",
      "./opt/korvex/share/man/man8/kxaecctl.8",
      "./opt/korvex/share/man/man8/kxaecd.8",
      "./opt/korvex/share/man/man8/kxaide.8",
      "./opt/korvex/share/man/man8/kxconsole.8",
      "./opt/korvex/share/man/man8/kxctl.8",
      "./opt/korvex/share/man/man8/kxhost.8",
      "./opt/korvex/share/man/man8/kxserv.8",
  };
  for (boost::filesystem::directory_iterator
           it(std::string(KX_SOURCE_DIR) + "/include/host"),
       end;
       it != end; ++it) {
    expected.insert("./opt/korvex/include/host/" +
                    it->path().filename().string());
  }
  // The web console's pages, as committed.
  const std::string assets = std::string(KX_SOURCE_DIR) + "/console/assets";
  if (boost::filesystem::is_directory(assets)) {
    for (boost::filesystem::directory_iterator it(assets), end; it != end;
         ++it) {
      const std::string name = it->path().filename().string();
      if (name[0] != '.') {
        expected.insert("./opt/korvex/share/kxconsole/" + name);
      }
    }
  }
  std::set<std::string> targets;
  for (const auto& file : files) {
    if (file.rfind("./opt/korvex/lib/cmake/KorvexHost/KorvexHostTargets-", 0) ==
        0) {
      targets.insert(file);
    }
  }
  // One file of per-configuration settings, named after the build type.
  EXPECT_EQ(targets.size(), 1u);
  for (const auto& file : targets) files.erase(file);
  EXPECT_EQ(files, expected);
}

// One conffile, the apt hook (an administrator may switch it off, and
// purge removes it), and no triggers (the libraries live in a private
// directory, ldconfig has nothing to do).
TEST_F(PackageContentsTest,
       ControlHoldsTheMaintainerScriptsAndTheAptHookAsTheOnlyConffile) {
  const std::string dir = MakeTempDir() + "/DEBIAN";
  const RunResult run =
      RunProgram({"/usr/bin/dpkg-deb", "-e", Packages().deb, dir});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  std::set<std::string> members;
  for (boost::filesystem::directory_iterator it(dir), end; it != end; ++it) {
    members.insert(it->path().filename().string());
  }
  EXPECT_EQ(members, (std::set<std::string>{"conffiles", "control", "md5sums",
                                            "postinst", "postrm", "prerm"}));
  EXPECT_EQ(ReadFile(dir + "/conffiles"),
            "/etc/apt/apt.conf.d/80korvex-aec-baseline\n");
  for (const char* script : {"postinst", "postrm", "prerm"}) {
    const std::string path = dir + "/" + script;
    EXPECT_EQ(boost::filesystem::status(path).permissions() & 0777, 0755)
        << script;
    EXPECT_EQ(ReadFile(path).rfind("#!/bin/sh\n", 0), 0u) << script;
    const RunResult syntax = RunProgram({"/bin/sh", "-n", path});
    EXPECT_EQ(syntax.exit_code, 0) << script << ": " << syntax.err;
  }
  boost::system::error_code ignored;
  boost::filesystem::remove_all(boost::filesystem::path(dir).parent_path(),
                                ignored);
}

// apt runs the hook's command after every dpkg run: the script it names is
// sound shell, executable, and writable by its owner only.
TEST_F(PackageContentsTest, TheAptHookAndItsScriptAreShippedReadyToRun) {
  const std::string tree = MakeTempDir();
  const RunResult run =
      RunProgram({"/usr/bin/dpkg-deb", "-x", Packages().deb, tree});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  const std::string script =
      tree + "/opt/korvex/libexec/kxaec-baseline-refresh";
  EXPECT_EQ(boost::filesystem::status(script).permissions() & 0777, 0755);
  EXPECT_EQ(ReadFile(script).rfind("#!/bin/sh\n", 0), 0u);
  const RunResult syntax = RunProgram({"/bin/sh", "-n", script});
  EXPECT_EQ(syntax.exit_code, 0) << syntax.err;
  const std::string hook =
      ReadFile(tree + "/etc/apt/apt.conf.d/80korvex-aec-baseline");
  EXPECT_NE(hook.find("DPkg::Post-Invoke {"), std::string::npos) << hook;
  EXPECT_NE(hook.find("/opt/korvex/libexec/kxaec-baseline-refresh"),
            std::string::npos)
      << hook;
  boost::system::error_code ignored;
  boost::filesystem::remove_all(tree, ignored);
}

}  // namespace
}  // namespace pkgtest
