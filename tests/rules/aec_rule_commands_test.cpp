// The "add" and "edit" commands, driven through the plug-in's dispatcher
// with a fake rule-control tool.
#include "aec_rule_commands.h"

#include <boost/filesystem.hpp>
#include <boost/property_tree/ptree.hpp>
#include <string>
#include <vector>

#include "host/errors.h"
#include "kxaecctl.h"
#include "kxtest.h"
#include "lib/xml_document.h"
#include "rules_test_util.h"

namespace pt = boost::property_tree;
using Args = std::vector<std::string>;
using rulestest::Exec;
using rulestest::RuleSpec;
using rulestest::WriteRuleFile;

namespace {

class RuleCommandsTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override { Fake(0); }
  static void Fake(int exit_code, const std::vector<std::string>& lines = {}) {
    kxtest::FakeBehaviour behaviour;
    behaviour.exit_code = exit_code;
    behaviour.lines = lines;
    kxtest::InstallFakeTool("kxaecctl", behaviour);
  }
  static std::vector<Args> Calls() { return kxtest::FakeToolCalls("kxaecctl"); }
  static std::vector<std::string> ChildNames(const pt::ptree& tree) {
    std::vector<std::string> names;
    for (const auto& child : tree) names.push_back(child.first);
    return names;
  }
};

// The arguments BuildToolArgs adds for the document `xml`.
Args BuiltArgs(const std::string& xml, bool allow_all_users) {
  KxAecCtl tool("t", false);
  aec::BuildToolArgs(kxhost::ParseXml(xml), tool, allow_all_users);
  return Args(tool.Arguments().begin() + 2, tool.Arguments().end());
}

}  // namespace

TEST_F(RuleCommandsTest, BuildToolArgsPassesListsFileAndSwitchesInOrder) {
  EXPECT_EQ(BuiltArgs("<rule resource-file=\"/list\" recursive=\"1\" "
                      "no-depend=\"1\" disable=\"1\" extended=\"1\">"
                      "<u>alice</u><u>bob</u><g>staff</g><r>/a</r><r>/b</r>"
                      "</rule>",
                      false),
            (Args{"-u", "alice", "bob", "-g", "staff", "-r", "/a", "/b", "-f",
                  "/list", "-R", "-d", "-D", "-X"}));
}

TEST_F(RuleCommandsTest, BuildToolArgsTreatsEveryTextButOneAsUnset) {
  EXPECT_EQ(BuiltArgs("<rule resource-file=\"\" recursive=\"true\" "
                      "no-depend=\"yes\" disable=\"0\" extended=\" 1\" "
                      "all-users=\"on\"><u>alice</u></rule>",
                      true),
            (Args{"-u", "alice"}));
}

TEST_F(RuleCommandsTest,
       BuildToolArgsWithAllUsersAllowedReplacesUsersAndGroups) {
  EXPECT_EQ(BuiltArgs("<rule all-users=\"1\" extended=\"1\"><u>alice</u>"
                      "<g>staff</g><r>/a</r></rule>",
                      true),
            (Args{"-a", "-r", "/a"}));
}

TEST_F(RuleCommandsTest, AddRunsTheToolWithTheRuleAndRepliesSuccess) {
  const pt::ptree reply = Exec(
      "<request command=\"add\"><rule name=\"r1\" recursive=\"1\">"
      "<u>alice</u><r>/usr/bin/make</r></rule></request>");
  EXPECT_EQ(Calls(),
            (std::vector<Args>{{"add", "-C", "-v", "-n", "r1", "-u", "alice",
                                "-r", "/usr/bin/make", "-R"}}));
  EXPECT_EQ(reply.get<std::string>("add.rule.result"), "1");
  EXPECT_EQ(reply.get_child("add.rule").size(), 1u);
}

TEST_F(RuleCommandsTest, AddWithAllUsersIgnoresItAndPassesUsersAndGroups) {
  Exec(
      "<request command=\"add\"><rule name=\"r1\" all-users=\"1\">"
      "<u>alice</u><g>staff</g></rule></request>");
  EXPECT_EQ(Calls(), (std::vector<Args>{{"add", "-C", "-v", "-n", "r1", "-u",
                                         "alice", "-g", "staff"}}));
}

TEST_F(RuleCommandsTest, AddOfAnExistingRuleFailsButStillRunsTheOtherParts) {
  WriteRuleFile(RuleSpec{"r1"});
  const pt::ptree reply = Exec(
      "<request command=\"add\"><rule name=\"r1\"><u>alice</u></rule>"
      "<whitelist><u>bob</u><g>wheel</g></whitelist>"
      "<resource-exception><r>/opt/x</r></resource-exception></request>");
  EXPECT_EQ(reply.get<std::string>("add.rule.result"), "0");
  EXPECT_EQ(reply.get<std::string>("add.rule.error_desc"),
            "The rule is already exist: r1");
  EXPECT_EQ(reply.get<std::string>("add.whitelist.result"), "1");
  EXPECT_EQ(reply.get<std::string>("add.resource-exception.result"), "1");
  EXPECT_EQ(Calls(),
            (std::vector<Args>{{"add", "-C", "-v", "-u", "bob", "-g", "wheel"},
                               {"add", "-C", "-v", "-r", "/opt/x"}}));
}

TEST_F(RuleCommandsTest, AddWithoutARuleNameReportsTheMissingArgument) {
  for (const char* rule : {"<rule><u>a</u></rule>", "<rule name=\"\"/>"}) {
    const pt::ptree reply =
        Exec(std::string("<request command=\"add\">") + rule + "</request>");
    EXPECT_EQ(reply.get<std::string>("add.rule.result"), "0");
    EXPECT_EQ(reply.get<std::string>("add.rule.error_desc"),
              std::string(error::kMissingArg) + "rule name");
  }
  EXPECT_TRUE(Calls().empty());
}

TEST_F(RuleCommandsTest, AddWithOnlyAnEmptyWhitelistYieldsAnEmptyAddNode) {
  int outcome = 0;
  const pt::ptree reply =
      Exec("<request command=\"add\"><whitelist/></request>", &outcome);
  EXPECT_EQ(outcome, 1);
  ASSERT_EQ(reply.count("add"), 1u);
  EXPECT_TRUE(reply.get_child("add").empty());
  EXPECT_TRUE(Calls().empty());
}

TEST_F(RuleCommandsTest, AddWithAnEmptyResourceExceptionListDoesNothing) {
  const pt::ptree reply =
      Exec("<request command=\"add\"><resource-exception/></request>");
  EXPECT_TRUE(reply.get_child("add").empty());
  EXPECT_TRUE(Calls().empty());
}

TEST_F(RuleCommandsTest, AddReportsTheToolsErrorDescription) {
  Fake(4, {"bob", "carol"});
  const pt::ptree reply = Exec(
      "<request command=\"add\"><rule name=\"r1\"><u>bob</u><u>carol</u>"
      "</rule></request>");
  EXPECT_EQ(reply.get<std::string>("add.rule.result"), "0");
  EXPECT_EQ(reply.get<std::string>("add.rule.error_desc"),
            "Users not found: bob, carol");
}

TEST_F(RuleCommandsTest, AddWithAMissingToolReportsTheUnknownError) {
  boost::filesystem::remove("/opt/korvex/bin/kxaecctl");
  const pt::ptree reply = Exec(
      "<request command=\"add\"><rule name=\"r1\"/><whitelist><u>a</u>"
      "</whitelist></request>");
  EXPECT_EQ(reply.get<std::string>("add.rule.error_desc"), error::kUnknown);
  EXPECT_EQ(reply.get<std::string>("add.whitelist.error_desc"),
            error::kUnknown);
}

TEST_F(RuleCommandsTest,
       AddPassesHostileValuesAsSingleArgumentsAndRunsNothing) {
  const pt::ptree reply = Exec(
      "<request command=\"add\"><rule name=\"$(touch /opt/korvex/pwned)\" "
      "resource-file=\"`touch /opt/korvex/pwned2`\">"
      "<u>x\"; touch /opt/korvex/pwned3; \"</u><g>a;b</g></rule></request>");
  EXPECT_EQ(reply.get<std::string>("add.rule.result"), "1");
  EXPECT_EQ(
      Calls(),
      (std::vector<Args>{{"add", "-C", "-v", "-n", "$(touch /opt/korvex/pwned)",
                          "-u", "x\"; touch /opt/korvex/pwned3; \"", "-g",
                          "a;b", "-f", "`touch /opt/korvex/pwned2`"}}));
  EXPECT_FALSE(kxtest::Exists("/opt/korvex/pwned"));
  EXPECT_FALSE(kxtest::Exists("/opt/korvex/pwned2"));
  EXPECT_FALSE(kxtest::Exists("/opt/korvex/pwned3"));
}

TEST_F(RuleCommandsTest, EditOfAMissingRuleRunsNoSubOperation) {
  const pt::ptree reply = Exec(
      "<request command=\"edit\"><rule name=\"ghost\" state=\"1\">"
      "<add><u>a</u></add></rule></request>");
  EXPECT_EQ(ChildNames(reply.get_child("edit")), Args{"rule"});
  EXPECT_EQ(reply.get<std::string>("edit.rule.result"), "0");
  EXPECT_EQ(reply.get<std::string>("edit.rule.error_desc"),
            "Rule does not exists: ghost");
  EXPECT_TRUE(Calls().empty());
}

TEST_F(RuleCommandsTest,
       EditWithoutARuleNameOrRuleNodeReportsTheMissingArgument) {
  for (const char* body : {"<rule state=\"1\"/>", ""}) {
    const pt::ptree reply =
        Exec(std::string("<request command=\"edit\">") + body + "</request>");
    EXPECT_EQ(reply.get<std::string>("edit.rule.error_desc"),
              std::string(error::kMissingArg) + "rule name");
  }
  EXPECT_TRUE(Calls().empty());
}

TEST_F(RuleCommandsTest, EditOfANameThatCannotBeAFileNameIsAMissingRule) {
  // "../x" would reach /opt/korvex/etc/aec/x.conf, which exists.
  kxtest::WriteFile("/opt/korvex/etc/aec/x.conf", "{}");
  const pt::ptree reply = Exec(
      "<request command=\"edit\"><rule name=\"../x\" state=\"1\"/></request>");
  EXPECT_EQ(reply.get<std::string>("edit.rule.error_desc"),
            "Rule does not exists: ../x");
  EXPECT_TRUE(Calls().empty());
}

TEST_F(RuleCommandsTest, EditWithStateTrueChangesNothing) {
  WriteRuleFile(RuleSpec{"r1"});
  const pt::ptree reply = Exec(
      "<request command=\"edit\"><rule name=\"r1\" state=\"true\"/></request>");
  EXPECT_TRUE(reply.get_child("edit").empty());
  EXPECT_TRUE(Calls().empty());
}

TEST_F(RuleCommandsTest, EditStateOneEnablesAndZeroDisables) {
  WriteRuleFile(RuleSpec{"r1"});
  Exec("<request command=\"edit\"><rule name=\"r1\" state=\"1\"/></request>");
  const pt::ptree reply = Exec(
      "<request command=\"edit\"><rule name=\"r1\" state=\"0\"/></request>");
  EXPECT_EQ(reply.get<std::string>("edit.state.result"), "1");
  EXPECT_EQ(Calls(), (std::vector<Args>{{"enable", "-C", "-v", "-n", "r1"},
                                        {"disable", "-C", "-v", "-n", "r1"}}));
}

TEST_F(RuleCommandsTest, EditAddsUnderTheOldNameBeforeItRenames) {
  WriteRuleFile(RuleSpec{"old"});
  const pt::ptree reply = Exec(
      "<request command=\"edit\"><rule name=\"old\" rename=\"new\">"
      "<add extended=\"1\" all-users=\"1\"><u>alice</u></add></rule>"
      "</request>");
  EXPECT_EQ(ChildNames(reply.get_child("edit")), (Args{"add", "rename"}));
  EXPECT_EQ(Calls(), (std::vector<Args>{
                         {"add", "-C", "-v", "-n", "old", "-u", "alice", "-X"},
                         {"rename", "-C", "-v", "-n", "old", "-N", "new"}}));
}

TEST_F(RuleCommandsTest, EditRunsEverySubOperationInItsFixedOrder) {
  WriteRuleFile(RuleSpec{"r"});
  const pt::ptree reply = Exec(
      "<request command=\"edit\"><rule name=\"r\" rename=\"s\" state=\"0\">"
      "<update all-users=\"1\" extended=\"1\"><u>x</u><g>y</g><r>/z</r>"
      "</update>"
      "<remove><g>staff</g><u>bob</u><r>/bin/ls</r></remove>"
      "<add><g>wheel</g></add></rule></request>");
  EXPECT_EQ(ChildNames(reply.get_child("edit")),
            (Args{"add", "remove", "update", "state", "rename"}));
  EXPECT_EQ(Calls(), (std::vector<Args>{
                         {"add", "-C", "-v", "-n", "r", "-g", "wheel"},
                         {"rm", "-C", "-v", "-n", "r", "-r", "/bin/ls", "-u",
                          "bob", "-g", "staff"},
                         {"update", "-C", "-v", "-n", "r", "-a", "-r", "/z"},
                         {"disable", "-C", "-v", "-n", "r"},
                         {"rename", "-C", "-v", "-n", "r", "-N", "s"}}));
}

TEST_F(RuleCommandsTest,
       EditUpdateWithoutAllUsersPassesUsersAndIgnoresExtended) {
  WriteRuleFile(RuleSpec{"r"});
  Exec(
      "<request command=\"edit\"><rule name=\"r\"><update extended=\"1\">"
      "<u>x</u></update></rule></request>");
  EXPECT_EQ(Calls(),
            (std::vector<Args>{{"update", "-C", "-v", "-n", "r", "-u", "x"}}));
}

TEST_F(RuleCommandsTest, AFailingSubOperationDoesNotStopTheLaterOnes) {
  WriteRuleFile(RuleSpec{"r"});
  Fake(9, {"/missing"});
  const pt::ptree reply = Exec(
      "<request command=\"edit\"><rule name=\"r\" rename=\"s\">"
      "<remove><r>/missing</r></remove></rule></request>");
  EXPECT_EQ(reply.get<std::string>("edit.remove.result"), "0");
  EXPECT_EQ(reply.get<std::string>("edit.remove.error_desc"),
            "Resources not found in the rule: /missing");
  EXPECT_EQ(reply.get<std::string>("edit.rename.result"), "0");
  EXPECT_EQ(Calls().size(), 2u);
}

TEST_F(RuleCommandsTest, EditWithAnEmptyRenameRunsNoRename) {
  WriteRuleFile(RuleSpec{"r"});
  const pt::ptree reply = Exec(
      "<request command=\"edit\"><rule name=\"r\" rename=\"\"/></request>");
  EXPECT_TRUE(reply.get_child("edit").empty());
  EXPECT_TRUE(Calls().empty());
}

TEST_F(RuleCommandsTest, EditWithAnEmptyRemoveNeverDeletesTheRule) {
  WriteRuleFile(RuleSpec{"r"});
  const pt::ptree reply = Exec(
      "<request command=\"edit\"><rule name=\"r\"><remove/></rule></request>");
  EXPECT_EQ(reply.get<std::string>("edit.remove.result"), "0");
  EXPECT_EQ(reply.get<std::string>("edit.remove.error_desc"),
            "Invalid argument");
  // "rm -C -v -n r" would remove the whole rule; the tool is not run at all.
  EXPECT_TRUE(Calls().empty());
}
