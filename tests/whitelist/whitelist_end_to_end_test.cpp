// The whole way of a whitelist from central management: a policies document
// with starred SIDs from "dorvi" -> the directory resolves them -> the
// whitelist file holds the local names -> centralized control is on -> a
// reset of the source turns it off and recomputes the checksum.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "aec_policies/aecpluginpolicy.h"
#include "aecwhitelist.h"
#include "host/ixml.h"
#include "host/plugin_api.h"
#include "host/policy_sources.h"
#include "kxtest.h"
#include "lib/xml_document.h"
#include "whitelist_env.h"

namespace {

using Calls = std::vector<std::vector<std::string>>;
using Names = std::vector<std::string>;

const std::string kPath = "/opt/korvex/etc/aec/white-list.config";
const std::string kAideOut = "/opt/korvex/etc/aec/crc-rule-out.db";
const std::string kAideDb = "/opt/korvex/etc/aec/crc-rule.db";
const std::vector<std::string> kAideArgs = {
    "-i", "-c", "/opt/korvex/etc/aec/crc-rule.conf"};

std::string PoliciesDocument(const std::string& whitelist) {
  return "<policies><policy group=\"aec\" name=\"whitelist\" source=\"dorvi\">"
         "<value>" +
         whitelist + "</value></policy></policies>";
}

std::string DorviWhitelist() {
  return std::string("root,*") + wltest::kAliceSid + ",*" + wltest::kBobSid +
         ",*" + wltest::kDevsSid + ",*" + wltest::kCarolSid;
}

size_t CountCalls(const std::string& tool,
                  const std::vector<std::string>& args) {
  size_t count = 0;
  for (const auto& call : kxtest::FakeToolCalls(tool)) count += call == args;
  return count;
}

class WhitelistEndToEndTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override {
    if (!wltest::NssWrapped()) GTEST_SKIP() << "nss_wrapper is not available";
    const std::string failure = wltest::StartDirectory();
    if (!failure.empty()) GTEST_SKIP() << "no test directory: " << failure;
    AecPolicySources::Get()->ReadConfig();
    kxtest::InstallFakeTool("kxaecctl", {});
    kxtest::FakeBehaviour aide;
    aide.create_files = {kAideOut};
    kxtest::InstallFakeTool("kxaide", aide);
    wltest::StoreDirectoryAccount(wltest::kDirectoryServer);
  }

  static bool SetPolicies(const std::string& document) {
    return plugin_set_policies(kxhost::ParseXml(document));
  }

  static void ResetPoliciesOf(const std::string& source) {
    parsed_xml_data_t request;
    request.xml =
        kxhost::ParseXml("<request command=\"reset_policies\"><source>" +
                         source + "</source></request>");
    request.reply = XMLParserBoost::CreateEmptyXML();
    plugin_exec(&request);
    EXPECT_EQ(1, request.outcome);  // answered, not released
  }
};

TEST_F(WhitelistEndToEndTest,
       DorviSidsBecomeLocalNamesUnderCentralControlUntilReset) {
  ASSERT_EQ(0, plugin_init());
  ASSERT_TRUE(SetPolicies(PoliciesDocument(DorviWhitelist())));

  const UsersAndGroups written = AECWhiteList::Get();
  EXPECT_EQ((Names{"alice@corp", "corp\\bob"}), written.users);
  EXPECT_EQ(Names{"devs@corp"}, written.groups);
  EXPECT_TRUE(AECWhiteList::IsEnableCC());
  EXPECT_EQ("dorvi", AECWhiteList::CurrentSource());
  EXPECT_EQ("dorvi", wltest::StoredWhitelistSource());
  EXPECT_EQ(1u, CountCalls("kxaecctl", {"reload", "-w"}));
  EXPECT_EQ(0u, CountCalls("kxaide", kAideArgs));

  // The same whitelist again is no change: nothing is rewritten.
  ASSERT_TRUE(SetPolicies(PoliciesDocument(DorviWhitelist())));
  EXPECT_EQ(1u, CountCalls("kxaecctl", {"reload", "-w"}));

  ResetPoliciesOf("dorvi");
  EXPECT_FALSE(AECWhiteList::IsEnableCC());
  EXPECT_EQ("local", AECWhiteList::CurrentSource());
  EXPECT_EQ("", wltest::StoredWhitelistSource());
  EXPECT_EQ(1u, CountCalls("kxaide", kAideArgs));
  EXPECT_TRUE(kxtest::Exists(kAideDb));
  EXPECT_FALSE(kxtest::Exists(kAideOut));
  // The names stay; only the control over them went back to the station.
  EXPECT_EQ(written.users, AECWhiteList::Get().users);
  EXPECT_EQ(0, plugin_exit());
}

TEST_F(WhitelistEndToEndTest,
       AnUnreachableDirectoryLeavesTheWhitelistUnchanged) {
  kxtest::WriteFile(kPath, "{\"user_list\": [\"keep\"], \"group_list\": \"\"}");
  AecPolicySources::Get()->SetWhitelistSource("dorvi");
  ASSERT_TRUE(AecPolicySources::Get()->WriteConfig());
  const std::string before = kxtest::ReadFile(kPath);
  wltest::StoreDirectoryAccount("127.0.0.2");
  ASSERT_EQ(0, plugin_init());
  SetPolicies(PoliciesDocument(DorviWhitelist()));
  EXPECT_EQ(before, kxtest::ReadFile(kPath));
  EXPECT_EQ("dorvi", AECWhiteList::CurrentSource());
  EXPECT_TRUE(log_.Contains("aec:AEC whitelist is not parse: "));
  EXPECT_EQ(0u, CountCalls("kxaecctl", {"reload", "-w"}));
  EXPECT_EQ(0, plugin_exit());
}

TEST_F(WhitelistEndToEndTest,
       AnUnreachableDirectoryUnderANewSourceKeepsTheNamesButTakesTheSource) {
  // The value is refused, but the document's source is still set, and a new
  // source rewrites the old names under its own name.
  kxtest::WriteFile(kPath, "{\"user_list\": [\"keep\"], \"group_list\": \"\"}");
  wltest::StoreDirectoryAccount("127.0.0.2");
  ASSERT_EQ(0, plugin_init());
  SetPolicies(PoliciesDocument(DorviWhitelist()));
  EXPECT_TRUE(log_.Contains("aec:AEC whitelist is not parse: "));
  EXPECT_EQ(Names{"keep"}, AECWhiteList::Get().users);
  EXPECT_TRUE(AECWhiteList::Get().groups.empty());
  EXPECT_EQ("dorvi", AECWhiteList::CurrentSource());
  EXPECT_EQ(1u, CountCalls("kxaecctl", {"reload", "-w"}));
  EXPECT_EQ(0, plugin_exit());
}

TEST_F(WhitelistEndToEndTest,
       TheKxhostProgramAppliesADorviWhitelistThroughTheLibrary) {
  const std::string document = root_.dir() + "/policies.xml";
  kxtest::WriteFile("/opt/korvex/policies.xml",
                    PoliciesDocument(DorviWhitelist()));
  const kxtest::RunResult run =
      kxtest::RunKxhost({"--root", root_.dir(), "--plugin", KX_PLUGIN_PATH,
                         "set-policies", document});
  ASSERT_EQ(0, run.exit_code) << run.err;
  AecPolicySources::Get()->ReadConfig();
  const UsersAndGroups written = AECWhiteList::Get();
  EXPECT_EQ((Names{"alice@corp", "corp\\bob"}), written.users);
  EXPECT_EQ(Names{"devs@corp"}, written.groups);
  EXPECT_TRUE(AECWhiteList::IsEnableCC());
  EXPECT_EQ(1u, CountCalls("kxaecctl", {"reload", "-w"}));
}

TEST(PolicySetOrderTest,
     WhitelistThenExceptionsComeAfterTheLogEventsAndBeforeRules) {
  kxtest::ScratchRoot root;
  AecPolicySources::Get()->ReadConfig();
  AecPluginPolicy policies;
  std::vector<std::string> names;
  for (const auto& policy : policies.Policies())
    names.push_back(policy->Name());
  EXPECT_EQ((Names{"state", "mode", "log_perm_exec", "log_deny_exec",
                   "log_perm_openlib", "log_deny_openlib", "log_perm_openfile",
                   "log_deny_openfile", "whitelist", "exceptions", "rules"}),
            names);
}

}  // namespace
