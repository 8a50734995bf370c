// Every writer of the configuration takes the one configuration lock: a
// policy import through kxhost (whitelist and exceptions, which the plug-in
// writes and then has kxaecctl load and seal) racing kxaecctl changes must
// neither make a tool run see a false integrity violation (24) nor lose a
// change. The real tools run, so this also shows that the plug-in running
// kxaecctl while it holds the lock does not deadlock.
#include <boost/property_tree/json_parser.hpp>
#include <string>
#include <thread>
#include <vector>

#include "aec_config_lock.h"
#include "lib/xml_document.h"
#include "tools_test_util.h"

namespace {

constexpr int kRounds = 200;

class ConfigLockRaceTest : public toolstest::ToolsTest {
 protected:
  void SetUp() override {
    ToolsTest::SetUp();
    Seal();
  }

  std::string Import(int round) const {
    const std::string user = round % 2 == 0 ? "root" : "daemon";
    const std::string path = "/opt/app/bin/tool" + std::to_string(round);
    return "{\"policies\": ["
           "{\"group\": \"aec\", \"name\": \"whitelist\", \"source\": "
           "\"local\", \"value\": [{\"name\": \"" +
           user +
           "\", \"type\": \"user\"}]},"
           "{\"group\": \"aec\", \"name\": \"exceptions\", \"source\": "
           "\"local\", \"value\": [\"" +
           path + "\"]}]}";
  }
};

TEST_F(ConfigLockRaceTest,
       APolicyImportRacingToolChangesCausesNoFalseViolationAndLosesNothing) {
  const std::string resource = toolstest::Resource("a");
  const std::string import_file = root_.dir() + "/import.json";
  std::vector<int> import_exits;
  std::thread importer([&] {
    for (int round = 0; round < kRounds; ++round) {
      kxtest::WriteFile(import_file + std::to_string(round % 2), Import(round));
      import_exits.push_back(
          kxtest::RunKxhost({"--root", root_.dir(), "--plugin", KX_PLUGIN_PATH,
                             "import-policies",
                             import_file + std::to_string(round % 2)})
              .exit_code);
    }
  });
  std::vector<std::string> failures;
  for (int round = 0; round < kRounds; ++round) {
    const std::string name = "r" + std::to_string(round);
    const auto add = Ctl({"add", "-C", "-v", "-n", name, "-r", resource, "-d"});
    if (add.exit_code != 0) {
      failures.push_back("add " + name + ": " + std::to_string(add.exit_code) +
                         " " + add.err);
    }
    // The rule must still be there: a change the import overwrote would
    // make this 14.
    const auto rm = Ctl({"rm", "-C", "-v", "-n", name});
    if (rm.exit_code != 0) {
      failures.push_back("rm " + name + ": " + std::to_string(rm.exit_code) +
                         " " + rm.err);
    }
  }
  importer.join();

  EXPECT_TRUE(failures.empty())
      << failures.size() << " of " << 2 * kRounds
      << " tool runs failed, first: " << (failures.empty() ? "" : failures[0]);
  for (int exit_code : import_exits) EXPECT_EQ(exit_code, 0);
  // The last import is what the files and the loaded set hold, and it is
  // sealed: a check finds nothing changed behind the tools' back.
  EXPECT_EQ(kxtest::ReadFile(toolstest::kWhitelist),
            toolstest::WhitelistJson({"daemon"}, {}));
  EXPECT_NE(kxtest::ReadFile(toolstest::kExceptions)
                .find("tool" + std::to_string(kRounds - 1)),
            std::string::npos);
  EXPECT_TRUE(toolstest::RuleFiles().empty());
  const auto check = Ctl({"enable", "-C", "-v", "-n", "none"});
  EXPECT_EQ(check.exit_code, 14) << check.err;  // checked, then unknown rule
}

// The lock is handed down: a tool run while this process holds the lock
// goes ahead instead of waiting for it.
TEST_F(ConfigLockRaceTest, AToolRunWhileTheLockIsHeldSharesItInsteadOfWaiting) {
  const aec::ConfigLock lock;
  const auto run = Ctl({"reload", "-v"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
}

}  // namespace
