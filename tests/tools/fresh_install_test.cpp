// What a fresh installation brings for the tools: the integrity tool's list.
#include <string>
#include <vector>

#include "lib/sandbox.h"
#include "tools_test_util.h"

namespace {

class FreshInstallTest : public toolstest::ToolsTest {};

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
