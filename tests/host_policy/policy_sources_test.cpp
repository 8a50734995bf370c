// AecPolicySources: defaults, the file round trip, and a replacement that
// fails without losing the previous file.
#include "host/policy_sources.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "kxtest.h"

namespace {

const std::string kConfigDir = "/opt/korvex/etc/aec";
const std::string kConfigFile = kConfigDir + "/policy-sources.conf";

std::set<std::string> Entries(const std::string& dir) {
  std::set<std::string> names;
  for (const auto& entry : boost::filesystem::directory_iterator(dir)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

class PolicySourcesTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override {
    sources_ = AecPolicySources::Get();
    sources_->ReadConfig();
  }
  AecPolicySources* sources_ = nullptr;
};

TEST_F(PolicySourcesTest, GetIsOneInstanceNeverNull) {
  ASSERT_NE(AecPolicySources::Get(), nullptr);
  EXPECT_EQ(AecPolicySources::Get(), AecPolicySources::Get());
  EXPECT_EQ(AecPolicySources::ConfigPath(), kConfigFile);
}

TEST_F(PolicySourcesTest, DefaultsWithoutAFile) {
  EXPECT_EQ(sources_->GetRulesSource(), "local");
  EXPECT_EQ(sources_->GetExceptionSource(), "local");
  EXPECT_EQ(sources_->GetWhitelistSource(), "");
}

TEST_F(PolicySourcesTest, WrittenSourcesReadBack) {
  sources_->SetRulesSource("dorvi");
  sources_->SetExceptionSource("yunko");
  sources_->SetWhitelistSource("some \"other\" source");
  ASSERT_TRUE(sources_->WriteConfig());
  sources_->SetRulesSource("changed in memory");
  sources_->ReadConfig();
  EXPECT_EQ(sources_->GetRulesSource(), "dorvi");
  EXPECT_EQ(sources_->GetExceptionSource(), "yunko");
  EXPECT_EQ(sources_->GetWhitelistSource(), "some \"other\" source");
}

ino_t InodeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status.st_ino;
}

TEST_F(PolicySourcesTest, ARecordAlreadyOnDiskIsNotRewritten) {
  sources_->SetRulesSource("dorvi");
  ASSERT_TRUE(sources_->WriteConfig());
  const ino_t written = InodeOf(kConfigFile);
  ASSERT_TRUE(sources_->WriteConfig());
  EXPECT_EQ(InodeOf(kConfigFile), written);

  sources_->SetRulesSource("yunko");
  ASSERT_TRUE(sources_->WriteConfig());
  EXPECT_NE(InodeOf(kConfigFile), written);
  sources_->ReadConfig();
  EXPECT_EQ(sources_->GetRulesSource(), "yunko");
}

TEST_F(PolicySourcesTest, ARecordChangedFromOutsideIsRewritten) {
  ASSERT_TRUE(sources_->WriteConfig());
  kxtest::WriteFile(kConfigFile, "{ not json");
  ASSERT_TRUE(sources_->WriteConfig());
  sources_->ReadConfig();
  EXPECT_EQ(sources_->GetRulesSource(), "local");
  EXPECT_FALSE(log_.Contains("cannot read"));
}

TEST_F(PolicySourcesTest, UnreadableFileGivesTheDefaults) {
  sources_->SetRulesSource("dorvi");
  kxtest::WriteFile(kConfigFile, "{ not json");
  sources_->ReadConfig();
  EXPECT_EQ(sources_->GetRulesSource(), "local");
  EXPECT_EQ(sources_->GetWhitelistSource(), "");
  EXPECT_TRUE(log_.Contains("cannot read " + kConfigFile));
}

TEST_F(PolicySourcesTest, AMissingKeyKeepsItsDefault) {
  kxtest::WriteFile(kConfigFile,
                    R"({"whitelist": "dorvi", "rules": {"x": "1"}})");
  sources_->ReadConfig();
  EXPECT_EQ(sources_->GetWhitelistSource(), "dorvi");
  EXPECT_EQ(sources_->GetRulesSource(), "local");  // not a string
  EXPECT_EQ(sources_->GetExceptionSource(), "local");
}

TEST_F(PolicySourcesTest, ReplacementLeavesNothingInTheRulesDirectory) {
  kxtest::WriteFile(kConfigDir + "/rules/keep.conf", "{}");
  const auto rules_before = Entries(kConfigDir + "/rules");
  auto expected = Entries(kConfigDir);
  expected.insert("policy-sources.conf");
  sources_->SetRulesSource("dorvi");
  ASSERT_TRUE(sources_->WriteConfig());
  ASSERT_TRUE(sources_->WriteConfig());  // a replacement of an existing file
  EXPECT_EQ(Entries(kConfigDir + "/rules"), rules_before);
  EXPECT_EQ(Entries(kConfigDir), expected);  // no temporary left
}

// A tiny file system mounted over the configuration directory, so that the
// replacement runs out of space half-way.
class FullConfigDirectory {
 public:
  FullConfigDirectory() {
    mounted_ = ::mount("tmpfs", kConfigDir.c_str(), "tmpfs", 0,
                       "size=16k,mode=0755") == 0;
    if (!mounted_) error_ = std::strerror(errno);
  }
  ~FullConfigDirectory() {
    if (mounted_) ::umount2(kConfigDir.c_str(), MNT_DETACH);
  }
  bool mounted() const { return mounted_; }
  const std::string& error() const { return error_; }
  // Takes every free block.
  bool Fill() {
    const int fd = ::open((kConfigDir + "/filler").c_str(),
                          O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const std::vector<char> block(4096, 'x');
    while (::write(fd, block.data(), block.size()) > 0) {
    }
    const bool full = errno == ENOSPC;
    ::close(fd);
    return full;
  }

 private:
  bool mounted_ = false;
  std::string error_;
};

TEST_F(PolicySourcesTest, AFailedReplacementKeepsThePreviousFile) {
  FullConfigDirectory full;
  ASSERT_TRUE(full.mounted()) << full.error();
  sources_->SetRulesSource("dorvi");
  ASSERT_TRUE(sources_->WriteConfig());
  const std::string before = kxtest::ReadFile(kConfigFile);
  ASSERT_TRUE(full.Fill());

  sources_->SetRulesSource("yunko");
  EXPECT_FALSE(sources_->WriteConfig());
  EXPECT_EQ(kxtest::ReadFile(kConfigFile), before);
  EXPECT_TRUE(log_.Contains("cannot write " + kConfigFile));
  // No temporary left behind.
  EXPECT_EQ(Entries(kConfigDir),
            (std::set<std::string>{"filler", "policy-sources.conf"}));
  sources_->ReadConfig();
  EXPECT_EQ(sources_->GetRulesSource(), "dorvi");
}

}  // namespace
