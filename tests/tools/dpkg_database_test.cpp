// The dpkg database reader on hand-made headers and on this machine's own
// database (read only).
#include "kxaecctl/dpkg_database.h"

#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <string>

#include "kxtest.h"

namespace {

namespace fs = std::filesystem;

class IsLoadableTest : public kxtest::SandboxTest {
 protected:
  // An ELF identification of the given byte order followed by e_type.
  std::string Header(bool little, unsigned type) {
    std::string head =
        "\x7f"
        "ELF";
    head += '\x02';                    // 64-bit
    head += little ? '\x01' : '\x02';  // byte order
    head += '\x01';                    // version
    head.resize(16, '\0');
    if (little) {
      head += static_cast<char>(type & 0xff);
      head += static_cast<char>(type >> 8);
    } else {
      head += static_cast<char>(type >> 8);
      head += static_cast<char>(type & 0xff);
    }
    return head + std::string(48, '\0');
  }
  std::string Write(const std::string& name, const std::string& content) {
    const std::string path = "/opt/korvex/var/tmp/" + name;
    kxtest::WriteFile(path, content);
    return path;
  }
};

TEST_F(IsLoadableTest, ExecutablesSharedObjectsAndScriptsAreLoadable) {
  EXPECT_TRUE(aectool::IsLoadable(Write("exec", Header(true, 2))));
  EXPECT_TRUE(aectool::IsLoadable(Write("dyn", Header(true, 3))));
  EXPECT_TRUE(aectool::IsLoadable(Write("dyn-be", Header(false, 3))));
  EXPECT_TRUE(aectool::IsLoadable(Write("script", "#!/bin/sh\n")));
}

TEST_F(IsLoadableTest, ObjectsCoreFilesDataAndShortFilesAreNot) {
  EXPECT_FALSE(aectool::IsLoadable(Write("rel", Header(true, 1))));
  EXPECT_FALSE(aectool::IsLoadable(Write("core", Header(true, 4))));
  EXPECT_FALSE(aectool::IsLoadable(Write("data", "plain text\n")));
  EXPECT_FALSE(aectool::IsLoadable(Write("short",
                                         "\x7f"
                                         "ELF")));
  EXPECT_FALSE(aectool::IsLoadable(Write("empty", "")));
  EXPECT_FALSE(aectool::IsLoadable("/opt/korvex/var/tmp/none"));
}

TEST(MachineDpkgDatabase, HoldsTheSystemsOwnProgramsAndLibraries) {
  const auto start = std::chrono::steady_clock::now();
  const aectool::PackageFiles files =  // Stock packages ship links that resolve
                                       // only with another package.
      aectool::ReadPackageFiles("/var/lib/dpkg", true);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start)
          .count();
  std::cout << "this machine: " << files.files.size() << " files from "
            << files.contributing_packages << " of " << files.packages
            << " packages in " << seconds << " s\n";
  EXPECT_EQ(files.files.count(fs::canonical("/usr/bin/dpkg").string()), 1u);
  EXPECT_EQ(files.files.count(
                fs::canonical("/lib/x86_64-linux-gnu/libc.so.6").string()),
            1u);
  EXPECT_EQ(files.files.count("/usr/share/doc/dpkg/copyright"), 0u);
  EXPECT_EQ(files.files.count("/etc/dpkg/dpkg.cfg"), 0u);
}

}  // namespace

TEST(MayBeCode, AFileSomeoneMayExecuteMayBeCodeWhateverItsName) {
  EXPECT_TRUE(aectool::MayBeCode(S_IFREG | 0755, "/usr/bin/true"));
  EXPECT_TRUE(aectool::MayBeCode(S_IFREG | 0701, "/opt/x/run.dat"));
  EXPECT_TRUE(aectool::MayBeCode(S_IFREG | 0610, "/opt/x/run.dat"));
}

TEST(MayBeCode, ASharedObjectNameMayBeCodeWithoutExecuteBits) {
  EXPECT_TRUE(aectool::MayBeCode(S_IFREG | 0644, "/usr/lib/libc.so.6"));
  EXPECT_TRUE(aectool::MayBeCode(S_IFREG | 0644, "/usr/lib/x/plugin.so"));
  EXPECT_TRUE(aectool::MayBeCode(S_IFREG | 0644, "ld-linux-x86-64.so.2"));
}

TEST(MayBeCode, DataDebugInformationAndNearMissNamesAreNot) {
  EXPECT_FALSE(aectool::MayBeCode(S_IFREG | 0644, "/usr/share/doc/README"));
  EXPECT_FALSE(aectool::MayBeCode(S_IFREG | 0644,
                                  "/usr/lib/debug/.build-id/00/ab.debug"));
  EXPECT_FALSE(aectool::MayBeCode(S_IFREG | 0644, "/run/x.sock"));
  EXPECT_FALSE(aectool::MayBeCode(S_IFREG | 0644, "/usr/lib/.so"));
  EXPECT_FALSE(aectool::MayBeCode(S_IFREG | 0644, "/usr/lib.so.d/data"));
  EXPECT_FALSE(aectool::MayBeCode(S_IFREG | 0644, "/usr/lib/tool.sources"));
}
