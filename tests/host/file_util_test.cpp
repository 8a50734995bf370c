// Replacing files whole: either the old or the new content, never a mix.
#include "host/file_util.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <string>
#include <system_error>

#include "kxtest.h"

namespace {

namespace fs = boost::filesystem;

class ReplaceFile : public kxtest::SandboxTest {
 protected:
  static int EntriesIn(const std::string& dir) {
    int count = 0;
    for (fs::directory_iterator it(dir), end; it != end; ++it) ++count;
    return count;
  }
  static unsigned ModeOf(const std::string& path) {
    struct stat info;
    EXPECT_EQ(stat(path.c_str(), &info), 0);
    return info.st_mode & 07777;
  }
};

TEST_F(ReplaceFile, ReplacesContentAndSetsTheMode) {
  const std::string path = "/opt/korvex/etc/aec/rules/r1.conf";
  kxtest::WriteFile(path, "old");
  kxfs::ReplaceFile(path, "new content", "/opt/korvex/etc/aec", 0640);
  EXPECT_EQ(kxtest::ReadFile(path), "new content");
  EXPECT_EQ(ModeOf(path), 0640u);
  // No temporary file is left, neither in the target's nor the temporary
  // directory.
  EXPECT_EQ(EntriesIn("/opt/korvex/etc/aec/rules"), 1);
  // etc/aec holds what the fresh root had: rules/, the whitelist and the
  // integrity tool's list crc-rule.conf.
  EXPECT_EQ(EntriesIn("/opt/korvex/etc/aec"), 3);
}

TEST_F(ReplaceFile, CreatesAMissingFileWithTheDefaultMode) {
  const std::string path = "/opt/korvex/etc/aec/resource-exception.conf";
  kxfs::ReplaceFile(path, "{}\n", "/opt/korvex/etc/aec");
  EXPECT_EQ(kxtest::ReadFile(path), "{}\n");
  EXPECT_EQ(ModeOf(path), 0644u);
}

TEST_F(ReplaceFile, EmptyTempDirMeansTheFilesOwnDirectory) {
  const std::string path = "/opt/korvex/var/x.txt";
  kxfs::ReplaceFile(path, "x", "");
  EXPECT_EQ(kxtest::ReadFile(path), "x");
}

TEST_F(ReplaceFile, LargeContentIsWrittenWhole) {
  const std::string path = "/opt/korvex/var/big";
  std::string big(3 * 1024 * 1024, 'a');
  for (std::size_t i = 0; i < big.size(); i += 4093) big[i] = '\n';
  kxfs::ReplaceFile(path, big, "/opt/korvex/var");
  EXPECT_EQ(kxtest::ReadFile(path), big);
}

TEST_F(ReplaceFile, FullFileSystemKeepsTheOldContent) {
  // A tiny tmpfs, mounted only in this test process's namespace.
  const std::string dir = "/opt/korvex/var/tiny";
  fs::create_directories(dir);
  ASSERT_EQ(mount("kxtiny", dir.c_str(), "tmpfs", 0, "size=16k"), 0);
  const std::string path = dir + "/white-list.config";
  kxtest::WriteFile(path, "previous");
  const std::string huge(256 * 1024, 'x');
  try {
    kxfs::ReplaceFile(path, huge, dir);
    ADD_FAILURE() << "a full file system was not reported";
  } catch (const std::system_error& e) {
    EXPECT_EQ(e.code().value(), ENOSPC) << e.what();
  }
  EXPECT_EQ(kxtest::ReadFile(path), "previous");
  EXPECT_EQ(EntriesIn(dir), 1);
  EXPECT_EQ(umount(dir.c_str()), 0);
}

TEST_F(ReplaceFile, MissingTempDirFailsAndKeepsTheOldContent) {
  const std::string path = "/opt/korvex/var/keep";
  kxtest::WriteFile(path, "previous");
  EXPECT_THROW(kxfs::ReplaceFile(path, "new", "/opt/korvex/no/such/dir"),
               std::system_error);
  EXPECT_EQ(kxtest::ReadFile(path), "previous");
}

TEST_F(ReplaceFile, RenameAcrossFileSystemsFailsCleanly) {
  // The temporary directory on another file system: the rename cannot
  // happen, and the temporary must not stay behind.
  const std::string other = "/opt/korvex/var/other";
  fs::create_directories(other);
  ASSERT_EQ(mount("kxother", other.c_str(), "tmpfs", 0, "size=64k"), 0);
  const std::string path = "/opt/korvex/var/keep";
  kxtest::WriteFile(path, "previous");
  try {
    kxfs::ReplaceFile(path, "new", other);
    ADD_FAILURE() << "a cross-device rename was not reported";
  } catch (const std::system_error& e) {
    EXPECT_EQ(e.code().value(), EXDEV) << e.what();
  }
  EXPECT_EQ(kxtest::ReadFile(path), "previous");
  EXPECT_EQ(EntriesIn(other), 0);
  EXPECT_EQ(umount(other.c_str()), 0);
}

TEST_F(ReplaceFile, ReadOnlyTargetFailsAndKeepsTheOldContent) {
  // A read-only bind of the directory: even root cannot write there.
  const std::string dir = "/opt/korvex/var/ro";
  const std::string path = dir + "/file";
  kxtest::WriteFile(path, "previous");
  ASSERT_EQ(mount(dir.c_str(), dir.c_str(), nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(mount(nullptr, dir.c_str(), nullptr,
                  MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr),
            0);
  EXPECT_THROW(kxfs::ReplaceFile(path, "new", dir), std::system_error);
  EXPECT_EQ(kxtest::ReadFile(path), "previous");
  EXPECT_EQ(umount(dir.c_str()), 0);
  EXPECT_EQ(EntriesIn(dir), 1);
}

}  // namespace
