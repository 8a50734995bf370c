// The plug-in's entry points and the "get" command end to end: the built
// libaec.so loaded by kxhost in its own sandbox over this test's root.
#include <string>
#include <vector>

#include "plugin_test_util.h"

namespace {

using plugintest::kExceptionFile;
using plugintest::kWhitelistFile;
using plugintest::WriteRule;

class KxhostPluginTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override { kxtest::InstallFakeTool("kxaecctl", {}); }

  kxtest::RunResult Run(const std::vector<std::string>& steps,
                        const std::string& input = "") {
    std::vector<std::string> args = {"--root", root_.dir(), "--plugin",
                                     KX_PLUGIN_PATH};
    args.insert(args.end(), steps.begin(), steps.end());
    return kxtest::RunKxhost(args, input);
  }

  kxtest::RunResult Exec(const std::string& request, bool verbose = false) {
    std::vector<std::string> steps;
    if (verbose) steps.push_back("-v");
    steps.push_back("exec");
    steps.push_back("-");
    return Run(steps, request);
  }

  // A file for a step that reads one, inside this test's root.
  std::string StepFile(const std::string& name, const std::string& content) {
    kxtest::WriteFile("/opt/korvex/" + name, content);
    return root_.dir() + "/" + name;
  }

  // The last printed <policies> document of `out`, as a tree.
  static boost::property_tree::ptree PrintedPolicies(const std::string& out) {
    const auto at = out.rfind("<policies");
    if (at == std::string::npos) return {};
    return kxhost::TreeOf(*kxhost::ParseXml(out.substr(at)));
  }

  static std::string Field(const boost::property_tree::ptree& policies,
                           const std::string& name, const std::string& path) {
    for (const auto& policy : policies) {
      if (policy.first == "policy" &&
          policy.second.get<std::string>("<xmlattr>.name", "") == name) {
        return policy.second.get<std::string>(path, "<absent>");
      }
    }
    return "<no policy " + name + ">";
  }
};

TEST_F(KxhostPluginTest, GetAnswersAllThreeSections) {
  WriteRule("build-tools", {"alice"}, {"/usr/bin/make"});
  kxtest::WriteFile(kWhitelistFile,
                    R"({"user_list": ["alice"], "group_list": ["wheel"]})");
  kxtest::WriteFile(kExceptionFile, R"({"resource_list": ["/opt/x"]})");
  const auto result = Exec(
      "<request command=\"get\" whitelist=\"1\" resource-exception=\"1\" "
      "rule_resource=\"1\"><rule/></request>");
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.out,
            "<reply>\n"
            "  <get>\n"
            "    <rules>\n"
            "      <rule>\n"
            "        <name>build-tools</name>\n"
            "        <all>0</all>\n"
            "        <enable>1</enable>\n"
            "        <extended>0</extended>\n"
            "        <system>0</system>\n"
            "        <u>alice</u>\n"
            "        <r>/usr/bin/make</r>\n"
            "      </rule>\n"
            "      <source>local</source>\n"
            "      <result>1</result>\n"
            "    </rules>\n"
            "    <whitelist>\n"
            "      <u>alice</u>\n"
            "      <g>wheel</g>\n"
            "      <source>local</source>\n"
            "      <result>1</result>\n"
            "    </whitelist>\n"
            "    <resource-exception>\n"
            "      <r>/opt/x</r>\n"
            "      <source>local</source>\n"
            "      <result>1</result>\n"
            "    </resource-exception>\n"
            "  </get>\n"
            "</reply>\n");
}

TEST_F(KxhostPluginTest, GetOfOneUnknownRuleStillAnswersTheOtherSections) {
  WriteRule("r1", {"alice"}, {"/usr/bin/make"});
  kxtest::WriteFile(kExceptionFile, R"({"resource_list": ""})");
  const auto result = Exec(
      "<request command=\"get\" whitelist=\"1\" resource-exception=\"1\">"
      "<rule>missing</rule></request>");
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.out,
            "<reply>\n"
            "  <get>\n"
            "    <rules>\n"
            "      <result>0</result>\n"
            "      <error_desc>Rule does not exists: missing</error_desc>\n"
            "    </rules>\n"
            "    <whitelist>\n"
            "      <source>local</source>\n"
            "      <result>1</result>\n"
            "    </whitelist>\n"
            "    <resource-exception>\n"
            "      <source>local</source>\n"
            "      <result>1</result>\n"
            "    </resource-exception>\n"
            "  </get>\n"
            "</reply>\n");
}

TEST_F(KxhostPluginTest, GetOfOneRuleInShortForm) {
  WriteRule("r1", {"alice"}, {"/usr/bin/make"});
  WriteRule("r2", {"bob"}, {"/usr/bin/gcc"});
  const auto result = Exec(
      "<request command=\"get\" rule_resource=\"yes\" whitelist=\"yes\">"
      "<rule>r2</rule></request>");
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.out,
            "<reply>\n"
            "  <get>\n"
            "    <rules>\n"
            "      <rule>\n"
            "        <name>r2</name>\n"
            "        <all>0</all>\n"
            "        <enable>1</enable>\n"
            "        <extended>0</extended>\n"
            "        <system>0</system>\n"
            "        <u>bob</u>\n"
            "      </rule>\n"
            "      <source>local</source>\n"
            "      <result>1</result>\n"
            "    </rules>\n"
            "  </get>\n"
            "</reply>\n");
}

TEST_F(KxhostPluginTest, BrokenExceptionFileShowsTheFixedTextAndLogsTheReason) {
  kxtest::WriteFile(kExceptionFile, "{\"resource_list\": [");
  const auto result = Exec(
      "<request command=\"get\" resource-exception=\"1\"><rule/></request>",
      true);
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.out,
            "<reply>\n"
            "  <get>\n"
            "    <rules>\n"
            "      <source>local</source>\n"
            "      <result>1</result>\n"
            "    </rules>\n"
            "    <resource-exception>\n"
            "      <result>0</result>\n"
            "      <error_desc>E_INVALID_CONFIG: </error_desc>\n"
            "    </resource-exception>\n"
            "  </get>\n"
            "</reply>\n");
  EXPECT_NE(result.err.find("failed to parse AEC resource-exception config: "),
            std::string::npos)
      << result.err;
}

TEST_F(KxhostPluginTest, CommandDifferingOnlyInCaseIsReleasedWithoutAReply) {
  const auto result =
      Run({"-v", "exec", "-", "state"}, "<request command=\"Get\"/>");
  EXPECT_EQ(result.exit_code, 3);
  EXPECT_EQ(result.out, "busy: 0\n");
  EXPECT_NE(result.err.find("aec: received unknown command 'Get', ignoring it"),
            std::string::npos)
      << result.err;
  EXPECT_NE(
      result.err.find("kxhost: request 'Get' was released without a reply"),
      std::string::npos)
      << result.err;
}

TEST_F(KxhostPluginTest, InfoAndStateThroughTheExportedNames) {
  const auto result = Run({"info", "state"});
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.out,
            "name: aec\n"
            "description: Application execution control plugin\n"
            "busy: 0\n");
}

class KxhostResetTest : public KxhostPluginTest,
                        public ::testing::WithParamInterface<const char*> {};

TEST_P(KxhostResetTest, ResetCommandsReturnTheSourcesPoliciesToLocal) {
  const std::string policies = StepFile(
      "dorvi.xml",
      "<policies>"
      "<policy group=\"aec\" name=\"state\" source=\"dorvi\"><type>1</type>"
      "</policy>"
      "<policy group=\"aec\" name=\"log_perm_exec\" source=\"yunko\">"
      "<type>0</type></policy>"
      "</policies>");
  const auto set = Run({"set-policies", policies});
  ASSERT_EQ(set.exit_code, 0) << set.err;
  ASSERT_EQ(kxtest::ReadFile(plugintest::kEnvironmentFile), "1");

  // A new process: the sources come back from the settings database.
  const auto result =
      Run({"exec", "-", "policies"}, std::string("<request command=\"") +
                                         GetParam() +
                                         "\"><source>dorvi</source></request>");
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.out.rfind("<reply/>\n", 0), 0u) << result.out;
  const auto printed = PrintedPolicies(result.out);
  EXPECT_EQ(Field(printed, "state", "<xmlattr>.source"), "local");
  EXPECT_EQ(Field(printed, "state", "type"), "0");
  EXPECT_EQ(Field(printed, "log_perm_exec", "<xmlattr>.source"), "yunko");
  EXPECT_EQ(kxtest::ReadFile(plugintest::kEnvironmentFile), "0");
}

INSTANTIATE_TEST_SUITE_P(
    Commands, KxhostResetTest,
    ::testing::Values("reset_policies", "reset_policy"),
    [](const ::testing::TestParamInfo<const char*>& param_info) {
      return std::string(param_info.param);
    });

TEST_F(KxhostPluginTest, OldControlDocumentSwitchesHardModeOn) {
  const std::string policies = StepFile(
      "old.xml",
      "<policies><policy group=\"aec_control\" name=\"mode\" "
      "source=\"dorvi\"><type>2</type></policy></policies>");
  const auto set = Run({"set-policies", policies, "policies"});
  EXPECT_EQ(set.exit_code, 0) << set.err;
  EXPECT_EQ(kxtest::ReadFile(plugintest::kEnvironmentFile), "3");
  const auto printed = PrintedPolicies(set.out);
  EXPECT_EQ(Field(printed, "state", "type"), "1");
  EXPECT_EQ(Field(printed, "mode", "type"), "1");
  EXPECT_EQ(plugintest::QueryRows(
                "SELECT fsPolicy, fiValue FROM control_plugin_conf ORDER BY "
                "fsPolicy DESC"),
            (std::vector<std::vector<std::string>>{{"aec_state", "1"},
                                                   {"aec_mode", "1"}}));
}

}  // namespace
