// The whole system with no fake tool: kxhost loads libaec.so in a
// sandbox whose bin/ holds the real kxaecctl and kxaide, no fakes.
#include <unistd.h>

#include <boost/property_tree/ptree.hpp>
#include <fstream>
#include <string>
#include <vector>

#include "lib/xml_document.h"
#include "tools_test_util.h"

namespace {

namespace pt = boost::property_tree;
using toolstest::RuleJson;
using toolstest::RulePath;

const std::string kEventsFile = "/opt/korvex/var/log/kxhost-events.log";
const std::string kWarning =
    "/opt/korvex/var/tmp/pam_messages/aec_confirm_warning";

class ToolsEndToEndTest : public toolstest::SealedTwoResourcesTest {
 protected:
  // Runs one request under kxhost; the reply's tree.
  pt::ptree Exec(const std::string& request) {
    const auto run = kxtest::RunKxhost(
        {"--root", root_.dir(), "--plugin", KX_PLUGIN_PATH, "exec", "-"},
        request);
    EXPECT_EQ(run.exit_code, 0) << run.err << run.out;
    if (run.exit_code != 0) return pt::ptree();
    return kxhost::TreeOf(*kxhost::ParseXml(run.out));
  }

  kxtest::RunResult Steps(const std::vector<std::string>& steps,
                          const std::string& input = "") {
    std::vector<std::string> args = {"--root", root_.dir(), "--plugin",
                                     KX_PLUGIN_PATH};
    args.insert(args.end(), steps.begin(), steps.end());
    return kxtest::RunKxhost(args, input);
  }

  std::string Input(const std::string& name, const std::string& text) {
    const std::string path = root_.dir() + "/" + name;
    kxtest::WriteFile(path, text);
    return path;
  }

  static bool Sealed() {
    return toolstest::RunTool(
               toolstest::kKxaide,
               {"-k", "-c", toolstest::kCrcList, "-d", toolstest::kCrcDb})
               .exit_code == 0;
  }

};

std::vector<std::string> Values(const pt::ptree& node, const std::string& key) {
  std::vector<std::string> values;
  for (const auto& child : node) {
    if (child.first == key) values.push_back(child.second.data());
  }
  return values;
}

}  // namespace

TEST_F(ToolsEndToEndTest, AnAddedRuleIsShownByGet) {
  auto reply = Exec(
      "<request command=\"add\"><rule name=\"build\" "
      "no-depend=\"1\"><u>root</u><g>adm</g><r>" +
      a_ + "</r></rule></request>");
  EXPECT_EQ(reply.get<std::string>("add.rule.result", ""), "1");

  reply = Exec(
      "<request command=\"get\" rule_resource=\"1\"><rule>build</rule>"
      "</request>");
  const pt::ptree& rule = reply.get_child("get.rules.rule");
  EXPECT_EQ(reply.get<std::string>("get.rules.result", ""), "1");
  EXPECT_EQ(rule.get<std::string>("name", ""), "build");
  EXPECT_EQ(rule.get<std::string>("enable", ""), "1");
  EXPECT_EQ(Values(rule, "u"), (std::vector<std::string>{"root"}));
  EXPECT_EQ(Values(rule, "g"), (std::vector<std::string>{"adm"}));
  EXPECT_EQ(Values(rule, "r"), (std::vector<std::string>{a_}));
  EXPECT_NE(kxtest::ReadFile(toolstest::kLoadedSet).find("rule\tbuild\t1"),
            std::string::npos);
  EXPECT_TRUE(Sealed());
}

TEST_F(ToolsEndToEndTest, TheToolsRefusalsReachTheReplyWithTheirObjects) {
  auto reply = Exec(
      "<request command=\"add\"><rule name=\"r1\"><u>kx-nobody"
      "</u><u>kx-nobody-2</u><r>" +
      a_ + "</r></rule></request>");
  EXPECT_EQ(reply.get<std::string>("add.rule.result", ""), "0");
  EXPECT_EQ(reply.get<std::string>("add.rule.error_desc", ""),
            "Users not found: kx-nobody, kx-nobody-2");
  reply = Exec(
      "<request command=\"add\"><rule name=\"r1\"><r>/kx/absent</r>"
      "</rule></request>");
  EXPECT_EQ(reply.get<std::string>("add.rule.error_desc", ""),
            "Resource does not exist: /kx/absent");
  reply = Exec(
      "<request command=\"remove\"><rule><name>nope</name></rule>"
      "</request>");
  EXPECT_EQ(reply.get<std::string>("remove.rule.error_desc", ""),
            "Rule does not exists: nope");
}

TEST_F(ToolsEndToEndTest, EditChangesTheRuleFileAsAsked) {
  ASSERT_EQ(Exec("<request command=\"add\"><rule name=\"r1\" no-depend=\"1\">"
                 "<u>root</u><r>" +
                 a_ + "</r></rule></request>")
                .get<std::string>("add.rule.result", ""),
            "1");

  auto reply = Exec(
      "<request command=\"edit\"><rule name=\"r1\"><add "
      "no-depend=\"1\"><u>bin</u><g>adm</g><r>" +
      b_ + "</r></add></rule></request>");
  EXPECT_EQ(reply.get<std::string>("edit.add.result", ""), "1");
  EXPECT_EQ(kxtest::ReadFile(RulePath("r1")),
            RuleJson("r1", false, false, false, true, {"bin", "root"}, {"adm"},
                     {a_, b_}));

  reply = Exec(
      "<request command=\"edit\"><rule name=\"r1\"><remove><u>root</u>"
      "<r>" +
      a_ + "</r></remove></rule></request>");
  EXPECT_EQ(reply.get<std::string>("edit.remove.result", ""), "1");
  EXPECT_EQ(kxtest::ReadFile(RulePath("r1")),
            RuleJson("r1", false, false, false, true, {"bin"}, {"adm"}, {b_}));

  reply = Exec(
      "<request command=\"edit\"><rule name=\"r1\"><update "
      "all-users=\"1\" no-depend=\"1\"><r>" +
      a_ + "</r></update></rule></request>");
  EXPECT_EQ(reply.get<std::string>("edit.update.result", ""), "1");
  EXPECT_EQ(kxtest::ReadFile(RulePath("r1")),
            RuleJson("r1", true, false, false, true, {}, {}, {a_}));

  reply = Exec(
      "<request command=\"edit\"><rule name=\"r1\" state=\"0\" "
      "rename=\"r2\"/></request>");
  EXPECT_EQ(reply.get<std::string>("edit.state.result", ""), "1");
  EXPECT_EQ(reply.get<std::string>("edit.rename.result", ""), "1");
  EXPECT_EQ(toolstest::RuleFiles(), std::set<std::string>{"r2.conf"});
  EXPECT_EQ(kxtest::ReadFile(RulePath("r2")),
            RuleJson("r2", true, false, false, false, {}, {}, {a_}));
  EXPECT_TRUE(Sealed());
}

TEST_F(ToolsEndToEndTest, RemovingAllRulesKeepsTheSystemRules) {
  kxtest::WriteFile(RulePath("sys"),
                    RuleJson("sys", false, false, true, true, {}, {}, {a_}));
  Seal();
  for (const std::string name : {"r1", "r2"}) {
    Exec("<request command=\"add\"><rule name=\"" + name + "\"><r>" + a_ +
         "</r></rule></request>");
  }
  ASSERT_EQ(toolstest::RuleFiles(),
            (std::set<std::string>{"r1.conf", "r2.conf", "sys.conf"}));
  const auto reply = Exec("<request command=\"remove\" all_rules=\"1\"/>");
  EXPECT_EQ(reply.get<std::string>("remove.all_rules.result", ""), "1");
  EXPECT_EQ(toolstest::RuleFiles(), std::set<std::string>{"sys.conf"});
  const std::string loaded = kxtest::ReadFile(toolstest::kLoadedSet);
  EXPECT_EQ(loaded.find("rule\tr1\t"), std::string::npos);
  EXPECT_NE(loaded.find("rule\tsys\t1\t0\t0\t1"), std::string::npos);
}

TEST_F(ToolsEndToEndTest, ExportWritesTheRuleToTheClientsFile) {
  Exec("<request command=\"add\"><rule name=\"r1\"><r>" + a_ +
       "</r></rule></request>");
  // The export area: elsewhere in the installation nothing is replaced.
  kxtest::WriteFile("/opt/korvex/var/export/.keep", "");
  const std::string target = "/opt/korvex/var/export/r1-export.json";
  const auto reply =
      Exec("<request command=\"export\" name=\"r1\" file=\"" + target + "\"/>");
  EXPECT_EQ(reply.get<std::string>("export.result", ""), "1");
  EXPECT_EQ(kxtest::ReadFile(target), kxtest::ReadFile(RulePath("r1")));
}

TEST_F(ToolsEndToEndTest, AReloadOfAHandBrokenRuleKeepsThePreviousLoadedSet) {
  Exec("<request command=\"add\"><rule name=\"r1\"><r>" + a_ +
       "</r></rule></request>");
  const std::string loaded = kxtest::ReadFile(toolstest::kLoadedSet);
  kxtest::WriteFile(RulePath("r1"), "{\"name\": \"r1\"");
  const auto reply = Exec("<request command=\"reload\"/>");
  EXPECT_EQ(reply.get<std::string>("reload.result", ""), "0");
  EXPECT_EQ(reply.get<std::string>("reload.error_desc", ""),
            "E_INVALID_CONFIG: " + RulePath("r1"));
  EXPECT_EQ(kxtest::ReadFile(toolstest::kLoadedSet), loaded);
}

TEST_F(ToolsEndToEndTest, AHandEditedRuleFileIsAnIntegrityViolation) {
  Exec("<request command=\"add\"><rule name=\"r1\"><u>root</u><r>" + a_ +
       "</r></rule></request>");
  const std::string edited = kxtest::ReadFile(RulePath("r1"));
  kxtest::WriteFile(RulePath("r1"),
                    edited.substr(0, edited.find("\"root\"")) + "\"bin\"" +
                        edited.substr(edited.find("\"root\"") + 6));
  const auto reply = Exec(
      "<request command=\"edit\"><rule name=\"r1\" "
      "state=\"0\"/></request>");
  EXPECT_EQ(reply.get<std::string>("edit.state.result", ""), "0");
  EXPECT_EQ(reply.get<std::string>("edit.state.error_desc", ""),
            "An update of AEC IC DB is required. Detected integrity violation "
            "in config files: " +
                RulePath("r1"));
  // Nothing was changed: the hand edit is still there, switched on.
  EXPECT_NE(kxtest::ReadFile(RulePath("r1")).find("\"enable\": \"true\""),
            std::string::npos);
}

TEST_F(ToolsEndToEndTest, TheRulesPolicyWritesRulesThatTheToolLoadsAndSeals) {
  const std::string json =
      "{\"policies\": [{\"group\": \"aec\", \"name\": \"rules\", \"source\": "
      "\"dorvi\", \"value\": [{\"name\": \"central\", \"all_allowed\": "
      "\"false\", \"extended\": \"false\", \"system\": \"false\", \"enable\": "
      "\"true\", \"user_list\": [\"daemon\"], \"group_list\": [], "
      "\"resource_list\": [\"" +
      b_ + "\"]}]}]}";
  const auto run = Steps({"import-policies", Input("rules.json", json)});
  ASSERT_EQ(run.exit_code, 0) << run.err << run.out;
  EXPECT_TRUE(kxtest::Exists(RulePath("central")));
  const std::string loaded = kxtest::ReadFile(toolstest::kLoadedSet);
  EXPECT_NE(loaded.find("rule\tcentral\t1\t0\t0\t0\n"
                        "rule-user\tcentral\t1\tdaemon\n"),
            std::string::npos)
      << loaded;
  // The policy's files (rule and sources record) are sealed, so the next
  // checked change goes through.
  EXPECT_TRUE(Sealed());
  EXPECT_EQ(Exec("<request command=\"edit\"><rule name=\"central\" "
                 "state=\"0\"/></request>")
                .get<std::string>("edit.state.result", ""),
            "1");
}

TEST_F(ToolsEndToEndTest, WhitelistMembersAndExceptionsThroughAdd) {
  const auto reply = Exec(
      "<request command=\"add\"><whitelist><u>daemon</u><g>adm</g></whitelist>"
      "<resource-exception><r>" +
      a_ + "</r></resource-exception></request>");
  EXPECT_EQ(reply.get<std::string>("add.whitelist.result", ""), "1");
  EXPECT_EQ(reply.get<std::string>("add.resource-exception.result", ""), "1");
  EXPECT_EQ(kxtest::ReadFile(toolstest::kWhitelist),
            toolstest::WhitelistJson({"daemon"}, {"adm"}));
  const auto got = Exec(
      "<request command=\"get\" whitelist=\"1\" "
      "resource-exception=\"1\"/>");
  EXPECT_EQ(Values(got.get_child("get.whitelist"), "u"),
            (std::vector<std::string>{"daemon"}));
  EXPECT_EQ(Values(got.get_child("get.resource-exception"), "r"),
            (std::vector<std::string>{a_}));
}

TEST_F(ToolsEndToEndTest, HardModeIsConfirmedThroughKxaecctl) {
  const std::string policies = Input(
      "hard.xml",
      "<policies>\n"
      "  <policy group=\"aec\" name=\"state\" source=\"local\"><type>1</type>"
      "</policy>\n"
      "  <policy group=\"aec\" name=\"mode\" source=\"local\"><type>1</type>"
      "</policy>\n"
      "</policies>\n");
  ASSERT_EQ(unlink(toolstest::kLoadedSet.c_str()), 0);
  const auto run = Steps({"set-policies", policies});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  // The real tool's restart loaded the rules: the station was not blocked.
  std::ifstream events(kEventsFile);
  int lines = 0;
  for (std::string line; std::getline(events, line); ++lines) {
    EXPECT_NE(line.rfind("block_station", 0), 0u) << line;
  }
  EXPECT_GT(lines, 0);  // the host did record its events (update_clients)
  EXPECT_TRUE(kxtest::Exists(toolstest::kLoadedSet));
  ASSERT_EQ(Exec("<request command=\"status_confirmation\"/>")
                .get<std::string>("status_confirmation.state", ""),
            "1");
  ASSERT_TRUE(kxtest::Exists(kWarning));
  EXPECT_NE(kxtest::ReadFile(kWarning).find("kxaecctl confirm"),
            std::string::npos);

  const auto confirm = Ctl({"confirm"});
  EXPECT_EQ(confirm.exit_code, 0) << confirm.err;
  const auto status = Exec("<request command=\"status_confirmation\"/>");
  EXPECT_EQ(status.get<std::string>("status_confirmation.state", ""), "2");
  EXPECT_EQ(status.get<std::string>("status_confirmation.description", ""),
            "AEC hard mode is confirmed");
  EXPECT_FALSE(kxtest::Exists(kWarning));
}

TEST_F(ToolsEndToEndTest, EndingCentralControlReSealsThroughTheRealKxaide) {
  toolstest::SetWhitelistSource("dorvi");
  Seal();
  const auto run = Steps({"exec", "-"},
                         "<request command=\"reset_policies\"/>");
  ASSERT_EQ(run.exit_code, 0) << run.err << run.out;
  // The plug-in rewrote the sources record and had kxaide seal it again.
  EXPECT_EQ(kxtest::ReadFile(toolstest::kSources).find("dorvi"),
            std::string::npos);
  EXPECT_TRUE(Sealed());
  EXPECT_FALSE(kxtest::Exists(toolstest::kCrcOut));
}
