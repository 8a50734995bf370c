// The "get" command in process: rules, whitelist and resource exceptions,
// each section answered on its own.
#include <boost/filesystem.hpp>
#include <string>
#include <vector>

#include "host/policy_sources.h"
#include "plugin_test_util.h"

namespace {

using plugintest::CoreCode;
using plugintest::Exec;
using plugintest::kExceptionFile;
using plugintest::kRulesDir;
using plugintest::kWhitelistFile;
using plugintest::WriteRule;

const char* const kWhitelistAliceWheel = R"({
    "user_list": ["alice", "bob"],
    "group_list": ["wheel"]
})";

class GetCommandTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override {
    kxtest::InstallFakeTool("kxaecctl", {});
    ASSERT_EQ(plugin_init(), 0);
    log_.Clear();
    kxhost::ClearEvents();
  }

  // The names of the "rule" children of the reply's rules section.
  static std::vector<std::string> RuleNames(
      const plugintest::Outcome& outcome) {
    std::vector<std::string> names;
    for (const auto& child : outcome.tree.get_child("get.rules")) {
      if (child.first == "rule") {
        names.push_back(child.second.get<std::string>("name"));
      }
    }
    return names;
  }

  static std::vector<std::string> ChildNames(
      const plugintest::Outcome& outcome, const std::string& path) {
    std::vector<std::string> names;
    for (const auto& child : outcome.tree.get_child(path)) {
      names.push_back(child.first);
    }
    return names;
  }
};

TEST_F(GetCommandTest, AllRulesWhitelistAndExceptionsInOneReply) {
  WriteRule("build-tools", {"alice"}, {"/usr/bin/make", "/usr/bin/gcc"});
  kxtest::WriteFile(kWhitelistFile, kWhitelistAliceWheel);
  kxtest::WriteFile(kExceptionFile,
                    R"({"resource_list": ["/opt/z/tool", "/opt/a/lib.so"]})");
  const auto outcome = Exec(
      "<request command=\"get\" whitelist=\"1\" resource-exception=\"1\">"
      "<rule/></request>");
  EXPECT_EQ(outcome.outcome, 1);
  EXPECT_EQ(outcome.reply,
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
            "      </rule>\n"
            "      <source>local</source>\n"
            "      <result>1</result>\n"
            "    </rules>\n"
            "    <whitelist>\n"
            "      <u>alice</u>\n"
            "      <u>bob</u>\n"
            "      <g>wheel</g>\n"
            "      <source>local</source>\n"
            "      <result>1</result>\n"
            "    </whitelist>\n"
            "    <resource-exception>\n"
            "      <r>/opt/z/tool</r>\n"
            "      <r>/opt/a/lib.so</r>\n"
            "      <source>local</source>\n"
            "      <result>1</result>\n"
            "    </resource-exception>\n"
            "  </get>\n"
            "</reply>\n");
}

TEST_F(GetCommandTest, OneRuleByNameInExtendedForm) {
  WriteRule("build-tools", {"alice"}, {"/usr/bin/make", "/usr/bin/gcc"});
  WriteRule("other", {"bob"}, {"/bin/true"});
  const auto outcome = Exec(
      "<request command=\"get\" rule_resource=\"1\"><rule>build-tools</rule>"
      "</request>");
  EXPECT_EQ(outcome.reply,
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
            "        <r>/usr/bin/gcc</r>\n"
            "        <r>/usr/bin/make</r>\n"
            "      </rule>\n"
            "      <source>local</source>\n"
            "      <result>1</result>\n"
            "    </rules>\n"
            "  </get>\n"
            "</reply>\n");
}

class ShortFormSwitchTest : public GetCommandTest,
                            public ::testing::WithParamInterface<const char*> {
};

TEST_P(ShortFormSwitchTest, RuleResourceOtherThanOneGivesTheShortForm) {
  WriteRule("r1", {"alice"}, {"/usr/bin/make"});
  const auto outcome = Exec(std::string("<request command=\"get\" "
                                        "rule_resource=\"") +
                            GetParam() + "\"><rule>r1</rule></request>");
  EXPECT_EQ(outcome.tree.get<std::string>("get.rules.result"), "1");
  EXPECT_EQ(outcome.tree.get_child("get.rules.rule").count("r"), 0u);
  EXPECT_EQ(outcome.tree.get<std::string>("get.rules.rule.u"), "alice");
}

INSTANTIATE_TEST_SUITE_P(Values, ShortFormSwitchTest,
                         ::testing::Values("true", "yes", "", "0", "11", " 1",
                                           "1 "));

TEST_F(GetCommandTest, UnknownRuleFailsOnlyTheRulesSection) {
  WriteRule("r1", {"alice"}, {"/usr/bin/make"});
  kxtest::WriteFile(kWhitelistFile, kWhitelistAliceWheel);
  kxtest::WriteFile(kExceptionFile, R"({"resource_list": ["/opt/x"]})");
  const auto outcome = Exec(
      "<request command=\"get\" whitelist=\"1\" resource-exception=\"1\">"
      "<rule>nope</rule></request>");
  EXPECT_EQ(outcome.outcome, 1);
  EXPECT_EQ(outcome.reply,
            "<reply>\n"
            "  <get>\n"
            "    <rules>\n"
            "      <result>0</result>\n"
            "      <error_desc>Rule does not exists: nope</error_desc>\n"
            "    </rules>\n"
            "    <whitelist>\n"
            "      <u>alice</u>\n"
            "      <u>bob</u>\n"
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

TEST_F(GetCommandTest, RuleNameThatCannotBeAFileIsUnknown) {
  WriteRule("r1", {"alice"}, {"/usr/bin/make"});
  const auto outcome =
      Exec("<request command=\"get\"><rule>../rules/r1</rule></request>");
  EXPECT_EQ(outcome.tree.get<std::string>("get.rules.result"), "0");
  EXPECT_EQ(outcome.tree.get<std::string>("get.rules.error_desc"),
            "Rule does not exists: ../rules/r1");
}

TEST_F(GetCommandTest, BrokenRuleFileFailsTheWholeRulesSectionKeepingNothing) {
  for (const std::string name : {"a1", "a2", "a3", "a4"}) {
    WriteRule(name, {"alice"}, {"/usr/bin/make"});
  }
  kxtest::WriteFile(kRulesDir + "broken.conf", "{ \"name\": ");
  kxtest::WriteFile(kExceptionFile, R"({"resource_list": ["/opt/x"]})");
  const auto outcome = Exec(
      "<request command=\"get\" resource-exception=\"1\"><rule/></request>");
  EXPECT_EQ(outcome.outcome, 1);
  EXPECT_EQ(ChildNames(outcome, "get.rules"),
            (std::vector<std::string>{"result", "error_desc"}));
  EXPECT_EQ(outcome.tree.get<std::string>("get.rules.result"), "0");
  EXPECT_EQ(outcome.tree.get<std::string>("get.rules.error_desc"),
            "E_INVALID_CONFIG: ");
  EXPECT_EQ(outcome.tree.get<std::string>("get.resource-exception.result"),
            "1");
}

TEST_F(GetCommandTest, EmptyRulesDirectoryGivesOnlySourceAndResult) {
  const auto outcome = Exec("<request command=\"get\"><rule/></request>");
  EXPECT_EQ(outcome.reply,
            "<reply>\n"
            "  <get>\n"
            "    <rules>\n"
            "      <source>local</source>\n"
            "      <result>1</result>\n"
            "    </rules>\n"
            "  </get>\n"
            "</reply>\n");
}

TEST_F(GetCommandTest, AllRulesFollowTheDirectoryListingOrder) {
  // Created out of alphabetical order; the reply must follow the listing,
  // whatever order the file system lists them in.
  for (const std::string name :
       {"m", "c", "x", "a", "q", "b", "z", "k", "e", "t"}) {
    WriteRule(name, {"alice"}, {"/usr/bin/" + name});
  }
  std::vector<std::string> listing;
  for (const auto& entry : boost::filesystem::directory_iterator(kRulesDir)) {
    listing.push_back(entry.path().stem().string());
  }
  const auto outcome = Exec("<request command=\"get\"><rule/></request>");
  EXPECT_EQ(RuleNames(outcome), listing);
}

TEST_F(GetCommandTest, MissingRulesDirectoryReleasesTheRequestWithoutAReply) {
  boost::filesystem::remove_all(kRulesDir);
  kxtest::WriteFile(kExceptionFile, R"({"resource_list": ["/opt/x"]})");
  const auto outcome = Exec(
      "<request command=\"get\" resource-exception=\"1\"><rule/></request>");
  // Not a PluginException: the dispatcher's frame deals with it.
  EXPECT_EQ(outcome.outcome, 2);
  EXPECT_EQ(outcome.reply, "<reply/>\n");
  EXPECT_TRUE(log_.Contains("[" + CoreCode(3) +
                            "] aec: received unknown command 'get', ignoring "
                            "it"));
}

TEST_F(GetCommandTest, DirectoryInTheRulesDirectoryIsHandedToTheRuleReader) {
  WriteRule("r1", {"alice"}, {"/usr/bin/make"});
  boost::filesystem::create_directory(kRulesDir + "sub.conf");
  const auto outcome = Exec("<request command=\"get\"><rule/></request>");
  EXPECT_EQ(outcome.outcome, 1);
  EXPECT_EQ(outcome.tree.get<std::string>("get.rules.result"), "0");
  EXPECT_EQ(outcome.tree.get<std::string>("get.rules.error_desc"),
            "E_INVALID_CONFIG: ");
}

class OffSwitchTest : public GetCommandTest,
                      public ::testing::WithParamInterface<const char*> {};

TEST_P(OffSwitchTest, WhitelistOrExceptionsOtherThanOneOmitsTheSection) {
  kxtest::WriteFile(kExceptionFile, R"({"resource_list": ["/opt/x"]})");
  const auto outcome =
      Exec(std::string("<request command=\"get\" whitelist=\"") + GetParam() +
           "\" resource-exception=\"" + GetParam() + "\"/>");
  EXPECT_EQ(outcome.outcome, 1);
  EXPECT_EQ(outcome.reply,
            "<reply>\n"
            "  <get/>\n"
            "</reply>\n");
}

INSTANTIATE_TEST_SUITE_P(Values, OffSwitchTest,
                         ::testing::Values("0", "yes", "true", "", "01"));

TEST_F(GetCommandTest, RequestWithNoValuesYieldsAnEmptyGet) {
  const auto outcome = Exec("<request command=\"get\"/>");
  EXPECT_EQ(outcome.outcome, 1);
  EXPECT_EQ(outcome.reply, "<reply>\n  <get/>\n</reply>\n");
}

TEST_F(GetCommandTest, RuleAsAnAttributeIsNotARulesRequest) {
  WriteRule("r1", {"alice"}, {"/usr/bin/make"});
  const auto outcome = Exec("<request command=\"get\" rule=\"\"/>");
  EXPECT_EQ(outcome.reply, "<reply>\n  <get/>\n</reply>\n");
}

TEST_F(GetCommandTest, EmptyResourceListGivesOnlySourceAndResult) {
  for (const std::string list : {"[]", "\"\""}) {
    kxtest::WriteFile(kExceptionFile, "{\"resource_list\": " + list + "}");
    const auto outcome =
        Exec("<request command=\"get\" resource-exception=\"1\"/>");
    EXPECT_EQ(outcome.reply,
              "<reply>\n"
              "  <get>\n"
              "    <resource-exception>\n"
              "      <source>local</source>\n"
              "      <result>1</result>\n"
              "    </resource-exception>\n"
              "  </get>\n"
              "</reply>\n")
        << list;
  }
}

struct BrokenFile {
  const char* label;
  const char* content;  // null: no file at all
};

class BrokenExceptionFileTest
    : public GetCommandTest,
      public ::testing::WithParamInterface<BrokenFile> {};

TEST_P(BrokenExceptionFileTest, ClientSeesTheInvalidConfigTextAndTheLogTheReason) {
  if (GetParam().content != nullptr) {
    kxtest::WriteFile(kExceptionFile, GetParam().content);
  } else {
    boost::filesystem::remove(kExceptionFile);
  }
  WriteRule("r1", {"alice"}, {"/usr/bin/make"});
  kxtest::WriteFile(kWhitelistFile, kWhitelistAliceWheel);
  const auto outcome = Exec(
      "<request command=\"get\" whitelist=\"1\" resource-exception=\"1\">"
      "<rule>r1</rule></request>");
  EXPECT_EQ(outcome.outcome, 1);
  EXPECT_EQ(ChildNames(outcome, "get.resource-exception"),
            (std::vector<std::string>{"result", "error_desc"}));
  EXPECT_EQ(outcome.tree.get<std::string>("get.resource-exception.result"),
            "0");
  EXPECT_EQ(
      outcome.tree.get<std::string>("get.resource-exception.error_desc"),
      "E_INVALID_CONFIG: ");
  // The other sections are answered.
  EXPECT_EQ(outcome.tree.get<std::string>("get.rules.result"), "1");
  EXPECT_EQ(outcome.tree.get<std::string>("get.whitelist.result"), "1");
  // The reason is logged at error severity, after the fixed text.
  bool logged = false;
  for (const auto& line : log_.Lines()) {
    const auto at = line.find("failed to parse AEC resource-exception config: ");
    if (at == std::string::npos) continue;
    logged = true;
    EXPECT_GT(line.size(),
              at + std::string("failed to parse AEC resource-exception config: ")
                       .size())
        << "the exception's message follows: " << line;
  }
  EXPECT_TRUE(logged);
}

INSTANTIATE_TEST_SUITE_P(
    Files, BrokenExceptionFileTest,
    ::testing::Values(BrokenFile{"Missing", nullptr},
                      BrokenFile{"NotJson", "not json"},
                      BrokenFile{"NoResourceList", R"({"other": ["/x"]})"},
                      BrokenFile{"Truncated", R"({"resource_list": ["/x")"}),
    [](const ::testing::TestParamInfo<BrokenFile>& param_info) {
      return std::string(param_info.param.label);
    });

TEST_F(GetCommandTest, BrokenWhitelistFailsOnlyTheWhitelistSection) {
  WriteRule("r1", {"alice"}, {"/usr/bin/make"});
  kxtest::WriteFile(kExceptionFile, R"({"resource_list": ["/opt/x"]})");
  kxtest::WriteFile(kWhitelistFile, "{ broken");
  const auto outcome = Exec(
      "<request command=\"get\" whitelist=\"1\" resource-exception=\"1\">"
      "<rule/></request>");
  EXPECT_EQ(outcome.outcome, 1);
  EXPECT_EQ(ChildNames(outcome, "get"),
            (std::vector<std::string>{"rules", "whitelist",
                                      "resource-exception"}));
  EXPECT_EQ(outcome.tree.get<std::string>("get.rules.result"), "1");
  EXPECT_EQ(ChildNames(outcome, "get.whitelist"),
            (std::vector<std::string>{"result", "error_desc"}));
  EXPECT_EQ(outcome.tree.get<std::string>("get.whitelist.result"), "0");
  EXPECT_EQ(outcome.tree.get<std::string>("get.whitelist.error_desc"),
            "E_INVALID_CONFIG: ");
  EXPECT_EQ(outcome.tree.get<std::string>("get.resource-exception.result"),
            "1");
}

TEST_F(GetCommandTest, SectionsCarryTheirPolicySources) {
  kxtest::WriteFile(AecPolicySources::ConfigPath(),
                    R"({"rules": "dorvi", "exceptions": "yunko",
                        "whitelist": "dorvi"})");
  AecPolicySources::Get()->ReadConfig();
  kxtest::WriteFile(kExceptionFile, R"({"resource_list": ["/opt/x"]})");
  const auto outcome = Exec(
      "<request command=\"get\" whitelist=\"1\" resource-exception=\"1\">"
      "<rule/></request>");
  EXPECT_EQ(outcome.tree.get<std::string>("get.rules.source"), "dorvi");
  EXPECT_EQ(outcome.tree.get<std::string>("get.whitelist.source"), "dorvi");
  EXPECT_EQ(outcome.tree.get<std::string>("get.resource-exception.source"),
            "yunko");
}

TEST_F(GetCommandTest, WhitelistWithoutCentralControlIsLocal) {
  kxtest::WriteFile(AecPolicySources::ConfigPath(),
                    R"({"rules": "local", "exceptions": "local",
                        "whitelist": ""})");
  AecPolicySources::Get()->ReadConfig();
  const auto outcome = Exec("<request command=\"get\" whitelist=\"1\"/>");
  EXPECT_EQ(outcome.tree.get<std::string>("get.whitelist.source"), "local");
  EXPECT_EQ(ChildNames(outcome, "get.whitelist"),
            (std::vector<std::string>{"source", "result"}));
}

}  // namespace
