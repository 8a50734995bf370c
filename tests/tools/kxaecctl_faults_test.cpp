// The exit codes of faults around the tool: a configuration that cannot be
// written (12), a loaded set that cannot be replaced (6), and the unknown
// error for what the table has no code for (1).
#include <sys/mount.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstring>
#include <string>

#include "tools_test_util.h"

namespace {

using toolstest::RuleJson;
using toolstest::RulePath;

// Makes a directory read-only for as long as it lives (a bind mount of
// itself, remounted read-only; the test process runs as root, for whom
// permission bits are no obstacle).
class ReadOnly {
 public:
  explicit ReadOnly(const std::string& dir) : dir_(dir) {
    if (mount(dir_.c_str(), dir_.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
        mount(nullptr, dir_.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY,
              nullptr) != 0) {
      ADD_FAILURE() << "cannot make " << dir_
                    << " read-only: " << std::strerror(errno);
    }
  }
  ~ReadOnly() { umount2(dir_.c_str(), MNT_DETACH); }

 private:
  std::string dir_;
};

class KxaecctlFaultsTest : public toolstest::ToolsTest {
 protected:
  void SetUp() override {
    ToolsTest::SetUp();
    a_ = toolstest::Resource("a");
    Seal();
  }
  std::string a_;
};

}  // namespace

TEST_F(KxaecctlFaultsTest, AConfigurationThatCannotBeWrittenIsTwelve) {
  const std::string loaded = kxtest::ReadFile(toolstest::kLoadedSet);
  {
    ReadOnly config(toolstest::kConfigDir);
    const auto run = Ctl({"add", "-C", "-v", "-n", "r1", "-r", a_});
    EXPECT_EQ(run.exit_code, KxAecCtl::kConfigWrite) << run.err;
    EXPECT_EQ(run.out, "");
  }
  EXPECT_FALSE(kxtest::Exists(RulePath("r1")));
  EXPECT_EQ(kxtest::ReadFile(toolstest::kLoadedSet), loaded);
}

TEST_F(KxaecctlFaultsTest, ALoadedSetThatCannotBeReplacedIsSix) {
  ASSERT_EQ(unlink(toolstest::kLoadedSet.c_str()), 0);
  kxtest::WriteFile(toolstest::kLoadedSet + "/in-the-way", "");
  const auto run = Ctl({"add", "-C", "-v", "-n", "r1", "-r", a_});
  EXPECT_EQ(run.exit_code, KxAecCtl::kKernelInteraction) << run.err;
  // The tool's own change is made and sealed all the same.
  EXPECT_TRUE(kxtest::Exists(RulePath("r1")));
  EXPECT_EQ(Aide({"-k", "-c", toolstest::kCrcList, "-d", toolstest::kCrcDb})
                .exit_code,
            0);
  EXPECT_EQ(Ctl({"restart"}).exit_code, KxAecCtl::kKernelInteraction);
}

TEST_F(KxaecctlFaultsTest, WhatTheTableHasNoCodeForIsOne) {
  // The tool cannot take its lock where the loaded set lives.
  boost::filesystem::remove_all("/opt/korvex/var/lib/aec");
  kxtest::WriteFile("/opt/korvex/var/lib/aec", "a file in the way");
  const auto run = Ctl({"add", "-n", "r1", "-r", a_});
  EXPECT_EQ(run.exit_code, KxAecCtl::kUnknownError);
  EXPECT_NE(run.err.find("kxaecctl.lock"), std::string::npos) << run.err;
  EXPECT_FALSE(kxtest::Exists(RulePath("r1")));
}

TEST_F(KxaecctlFaultsTest, AMissingRulesDirectoryIsEleven) {
  boost::filesystem::remove_all(toolstest::kRulesDir);
  EXPECT_EQ(Ctl({"reload"}).exit_code, KxAecCtl::kConfigMissing);
  EXPECT_EQ(Ctl({"add", "-n", "r1", "-r", a_}).exit_code,
            KxAecCtl::kConfigMissing);
}
