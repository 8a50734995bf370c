// The "remove", "export" and "reload" commands, driven through the plug-in's
// dispatcher with a fake rule-control tool.
#include <boost/filesystem.hpp>
#include <boost/property_tree/ptree.hpp>
#include <string>
#include <vector>

#include "host/errors.h"
#include "kxtest.h"
#include "rules_test_util.h"

namespace pt = boost::property_tree;
using Args = std::vector<std::string>;
using rulestest::Exec;

namespace {

class RuleRemovalCommandsTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override { Fake(0); }
  static void Fake(int exit_code, const std::vector<std::string>& lines = {},
                   bool no_newline = false) {
    kxtest::FakeBehaviour behaviour;
    behaviour.exit_code = exit_code;
    behaviour.lines = lines;
    behaviour.last_line_without_newline = no_newline;
    kxtest::InstallFakeTool("kxaecctl", behaviour);
  }
  static std::vector<Args> Calls() { return kxtest::FakeToolCalls("kxaecctl"); }
  static std::vector<std::string> ChildNames(const pt::ptree& tree) {
    std::vector<std::string> names;
    for (const auto& child : tree) names.push_back(child.first);
    return names;
  }
};

}  // namespace

TEST_F(RuleRemovalCommandsTest, RemoveAllRulesWithNamesYieldsOnlyAllRules) {
  const pt::ptree reply = Exec(
      "<request command=\"remove\" all_rules=\"1\"><rule><name>a</name>"
      "<name>b</name></rule></request>");
  EXPECT_EQ(ChildNames(reply.get_child("remove")), Args{"all_rules"});
  EXPECT_EQ(reply.get<std::string>("remove.all_rules.result"), "1");
  EXPECT_EQ(Calls(), (std::vector<Args>{{"rm", "-C", "-v", "-A"}}));
}

TEST_F(RuleRemovalCommandsTest, RemoveAllRulesFailingStillDropsTheNames) {
  Fake(6);
  const pt::ptree reply = Exec(
      "<request command=\"remove\" all_rules=\"1\"><rule><name>a</name>"
      "</rule></request>");
  EXPECT_EQ(ChildNames(reply.get_child("remove")), Args{"all_rules"});
  EXPECT_EQ(reply.get<std::string>("remove.all_rules.error_desc"),
            "Kernel interaction error");
  EXPECT_EQ(Calls().size(), 1u);
}

TEST_F(RuleRemovalCommandsTest,
       RemoveWithAllRulesTrueRemovesOnlyTheNamedRules) {
  const pt::ptree reply = Exec(
      "<request command=\"remove\" all_rules=\"true\"><rule><name>a</name>"
      "<name>b</name></rule></request>");
  EXPECT_EQ(ChildNames(reply.get_child("remove")), (Args{"rule", "rule"}));
  EXPECT_EQ(Calls(), (std::vector<Args>{{"rm", "-C", "-v", "-n", "a"},
                                        {"rm", "-C", "-v", "-n", "b"}}));
  std::vector<std::string> names;
  for (const auto& child : reply.get_child("remove")) {
    EXPECT_EQ(child.second.get<std::string>("result"), "1");
    names.push_back(child.second.get<std::string>("name"));
  }
  EXPECT_EQ(names, (Args{"a", "b"}));
}

TEST_F(RuleRemovalCommandsTest, RemoveGoesOnAfterAFailingName) {
  Fake(14, {"ghost"});
  const pt::ptree reply = Exec(
      "<request command=\"remove\"><rule><name>ghost</name><name>other</name>"
      "</rule></request>");
  EXPECT_EQ(Calls().size(), 2u);
  const auto& first = reply.get_child("remove").front().second;
  EXPECT_EQ(first.get<std::string>("result"), "0");
  EXPECT_EQ(first.get<std::string>("error_desc"),
            "Rule does not exists: ghost");
  EXPECT_EQ(first.get<std::string>("name"), "ghost");
}

TEST_F(RuleRemovalCommandsTest, RemoveWithAnEmptyWhitelistAddsNoWhitelistNode) {
  const pt::ptree reply =
      Exec("<request command=\"remove\"><whitelist/></request>");
  EXPECT_TRUE(reply.get_child("remove").empty());
  EXPECT_TRUE(Calls().empty());
}

TEST_F(RuleRemovalCommandsTest,
       RemoveWithAnEmptyRequestYieldsAnEmptyRemoveNode) {
  int outcome = 0;
  const pt::ptree reply = Exec("<request command=\"remove\"/>", &outcome);
  EXPECT_EQ(outcome, 1);
  ASSERT_EQ(reply.count("remove"), 1u);
  EXPECT_TRUE(reply.get_child("remove").empty());
  EXPECT_TRUE(Calls().empty());
}

TEST_F(RuleRemovalCommandsTest, RemoveTakesWhitelistMembersAndExceptionsOff) {
  const pt::ptree reply = Exec(
      "<request command=\"remove\"><whitelist><g>staff</g></whitelist>"
      "<resource-exception><r>/opt/a</r><r>/opt/b</r></resource-exception>"
      "</request>");
  EXPECT_EQ(ChildNames(reply.get_child("remove")),
            (Args{"whitelist", "resource-exception"}));
  EXPECT_EQ(Calls(),
            (std::vector<Args>{{"rm", "-C", "-v", "-g", "staff"},
                               {"rm", "-C", "-v", "-r", "/opt/a", "/opt/b"}}));
}

TEST_F(RuleRemovalCommandsTest, ExportRunsTheToolWithTheRuleAndFile) {
  const pt::ptree reply = Exec(
      "<request command=\"export\" name=\"r1\" file=\"/tmp/r1 copy.json\"/>");
  EXPECT_EQ(reply.get<std::string>("export.result"), "1");
  EXPECT_EQ(Calls(), (std::vector<Args>{{"export", "-C", "-v", "-n", "r1", "-f",
                                         "/tmp/r1 copy.json"}}));
}

TEST_F(RuleRemovalCommandsTest,
       ExportWithAnEmptyFileReportsTheMissingFilePath) {
  const pt::ptree reply =
      Exec("<request command=\"export\" name=\"r1\" file=\"\"/>");
  EXPECT_EQ(reply.get<std::string>("export.result"), "0");
  EXPECT_EQ(reply.get<std::string>("export.error_desc"),
            std::string(error::kMissingArg) + "file path");
  EXPECT_TRUE(Calls().empty());
}

TEST_F(RuleRemovalCommandsTest, ExportReportsAMissingNameBeforeAMissingFile) {
  const pt::ptree reply = Exec("<request command=\"export\"/>");
  EXPECT_EQ(reply.get<std::string>("export.error_desc"),
            std::string(error::kMissingArg) + "rule name");
}

TEST_F(RuleRemovalCommandsTest, ExportLeavesAnUnknownRuleToTheTool) {
  Fake(14, {"ghost"});
  const pt::ptree reply =
      Exec("<request command=\"export\" name=\"ghost\" file=\"/tmp/x\"/>");
  EXPECT_EQ(reply.get<std::string>("export.error_desc"),
            "Rule does not exists: ghost");
}

TEST_F(RuleRemovalCommandsTest, ReloadRunsTheToolAndRepliesSuccess) {
  const pt::ptree reply = Exec("<request command=\"reload\"/>");
  EXPECT_EQ(reply.get<std::string>("reload.result"), "1");
  EXPECT_EQ(Calls(), (std::vector<Args>{{"reload", "-C", "-v"}}));
}

TEST_F(RuleRemovalCommandsTest, ReloadWithAMissingToolRepliesTheUnknownError) {
  boost::filesystem::remove("/opt/korvex/bin/kxaecctl");
  const pt::ptree reply = Exec("<request command=\"reload\"/>");
  EXPECT_EQ(reply.get<std::string>("reload.result"), "0");
  EXPECT_EQ(reply.get<std::string>("reload.error_desc"), error::kUnknown);
}

TEST_F(RuleRemovalCommandsTest, ReloadReportsIntegrityViolations) {
  Fake(24, {"/opt/korvex/etc/aec/white-list.config"});
  const pt::ptree reply = Exec("<request command=\"reload\"/>");
  EXPECT_EQ(reply.get<std::string>("reload.error_desc"),
            "An update of AEC IC DB is required. Detected integrity violation "
            "in config files: /opt/korvex/etc/aec/white-list.config");
}

TEST_F(RuleRemovalCommandsTest,
       AnUnterminatedToolLineReleasesTheRequestUnanswered) {
  Fake(0, {"partial"}, true);
  int outcome = 0;
  const pt::ptree reply = Exec("<request command=\"reload\"/>", &outcome);
  EXPECT_EQ(outcome, 2);
  EXPECT_EQ(reply.count("reload"), 0u);
  EXPECT_TRUE(log_.Contains("received unknown command 'reload', ignoring it"));
  EXPECT_FALSE(rulestest::HasChildren());
}
