// What a fresh installation brings for the tools: the integrity tool's list
// and, in a new kxhost root, a seal that the first checked change passes.
#include <stdlib.h>

#include <boost/filesystem.hpp>
#include <string>
#include <vector>

#include "lib/fresh_install.h"
#include "lib/sandbox.h"
#include "tools_test_util.h"

namespace {

class FreshInstallTest : public toolstest::ToolsTest {};

namespace fs = boost::filesystem;

// A directory that no kxhost has used yet, with only the built tools in its
// bin/ (what the package brings before its postinst runs).
class NewKxhostRoot {
 public:
  NewKxhostRoot() {
    char name[] = "/tmp/kxfresh-XXXXXX";
    if (mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp failed");
    dir_ = name;
    fs::create_directories(dir_ + "/bin");
    for (const char* tool : {KX_KXAECCTL_PATH, KX_KXAIDE_PATH}) {
      const fs::path to = dir_ + "/bin/" + fs::path(tool).filename().string();
      fs::copy_file(tool, to);
      fs::permissions(to, fs::perms(0755));
    }
  }
  ~NewKxhostRoot() {
    boost::system::error_code ignored;
    fs::remove_all(dir_, ignored);
  }
  NewKxhostRoot(const NewKxhostRoot&) = delete;
  NewKxhostRoot& operator=(const NewKxhostRoot&) = delete;
  const std::string& dir() const { return dir_; }

  kxtest::RunResult Exec(const std::string& request) const {
    return kxtest::RunKxhost(
        {"--root", dir_, "--plugin", KX_PLUGIN_PATH, "exec", "-"}, request);
  }

 private:
  std::string dir_;
};

const std::string kFirstAdd =
    "<request command=\"add\"><rule name=\"first\"><u>root</u>"
    "<r>/usr/bin/env</r></rule></request>";

}  // namespace

TEST_F(FreshInstallTest, TheIntegrityListNamesTheProtectedConfiguration) {
  std::vector<std::string> entries;
  for (const auto& line : toolstest::Lines(toolstest::kCrcList)) {
    if (!line.empty() && line[0] != '#') entries.push_back(line);
  }
  EXPECT_EQ(entries, (std::vector<std::string>{
                         toolstest::kRulesDir, toolstest::kWhitelist,
                         toolstest::kExceptions, toolstest::kSources}));
  // kxaide reads it: the empty rule set and the whitelist are sealed.
  const auto run = Aide({"-i", "-c", toolstest::kCrcList});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(toolstest::Lines(toolstest::kCrcOut).size(), 1u);
}

TEST_F(FreshInstallTest, SeedingKeepsAnExistingIntegrityList) {
  kxtest::WriteFile(root_.dir() + "/etc/aec/crc-rule.conf", "/x\n");
  kxhost::SeedFreshInstall(root_.dir());
  EXPECT_EQ(kxtest::ReadFile(toolstest::kCrcList), "/x\n");
}

// A new root is sealed like a fresh installation, so the first checked
// change passes the integrity check without a reload first.
TEST(FreshKxhostRootTest, TheFirstAddInANewKxhostRootSucceeds) {
  const NewKxhostRoot root;
  const kxtest::RunResult run = root.Exec(kFirstAdd);
  ASSERT_EQ(run.exit_code, 0) << run.err << run.out;
  EXPECT_NE(run.out.find("<result>1</result>"), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find("integrity"), std::string::npos) << run.out;
  EXPECT_TRUE(fs::is_regular_file(root.dir() + "/etc/aec/rules/first.conf"));
  // The rule-control tool sealed again after the change: the seal in force
  // matches the rule set with the new rule.
  EXPECT_NE(kxtest::ReadFile(root.dir() + "/etc/aec/crc-rule.db")
                .find("/opt/korvex/etc/aec/rules/first.conf"),
            std::string::npos);
}

// An existing seal is the administrator's: a later run never replaces it,
// even when it no longer matches.
TEST(FreshKxhostRootTest, AnExistingSealIsKept) {
  const NewKxhostRoot root;
  fs::create_directories(root.dir() + "/etc/aec");
  kxtest::WriteFile(root.dir() + "/etc/aec/crc-rule.db", "");
  const kxtest::RunResult run = root.Exec(kFirstAdd);
  ASSERT_EQ(run.exit_code, 0) << run.err << run.out;
  // The seal names none of the seeded files, so the checked change is
  // refused, and the seal stays as it was.
  EXPECT_EQ(run.out.find("<result>1</result>"), std::string::npos) << run.out;
  EXPECT_FALSE(fs::exists(root.dir() + "/etc/aec/rules/first.conf"));
  EXPECT_EQ(kxtest::ReadFile(root.dir() + "/etc/aec/crc-rule.db"), "");
}
