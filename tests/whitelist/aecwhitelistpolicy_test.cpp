#include "aec_policies/aecwhitelistpolicy.h"

#include <gtest/gtest.h>
#include <pwd.h>

#include <boost/property_tree/json_parser.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "aecwhitelist.h"
#include "host/errors.h"
#include "host/policy_manager.h"
#include "host/policy_sources.h"
#include "kxtest.h"
#include "networkconfig.h"
#include "whitelist_env.h"

namespace {

using Calls = std::vector<std::vector<std::string>>;
using Names = std::vector<std::string>;

const std::string kPath = "/opt/korvex/etc/aec/white-list.config";
const std::string kAideOut = "/opt/korvex/etc/aec/crc-rule-out.db";
const std::vector<std::string> kAideArgs = {
    "-i", "-c", "/opt/korvex/etc/aec/crc-rule.conf"};

std::string Star(const char* sid) { return std::string("*") + sid; }

boost::property_tree::ptree Json(const std::string& text) {
  std::istringstream in(text);
  boost::property_tree::ptree tree;
  boost::property_tree::read_json(in, tree);
  return tree;
}

// Everything that does not need the directory.
class AecWhitelistPolicyTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override {
    AecPolicySources::Get()->ReadConfig();
    kxtest::InstallFakeTool("kxaecctl", {});
    kxtest::FakeBehaviour aide;
    aide.create_files = {kAideOut};
    kxtest::InstallFakeTool("kxaide", aide);
  }

  static void StoreWhitelistSource(const std::string& source) {
    AecPolicySources::Get()->SetWhitelistSource(source);
    ASSERT_TRUE(AecPolicySources::Get()->WriteConfig());
  }

  KernelPolicyManager manager_{"aec", "aec", "Application execution control",
                               32};
};

// The server form: a real directory and local accounts through nss_wrapper.
class AecWhitelistPolicyServerTest : public AecWhitelistPolicyTest {
 protected:
  void SetUp() override {
    AecWhitelistPolicyTest::SetUp();
    if (!wltest::NssWrapped()) GTEST_SKIP() << "nss_wrapper is not available";
    const std::string failure = wltest::StartDirectory();
    if (!failure.empty()) GTEST_SKIP() << "no test directory: " << failure;
    wltest::StoreDirectoryAccount(wltest::kDirectoryServer);
  }
};

TEST_F(AecWhitelistPolicyTest, StartsFromTheFileUnderTheCurrentSource) {
  kxtest::WriteFile(
      kPath, "{\"user_list\": [\"alice\"], \"group_list\": [\"wheel\"]}");
  AecWhitelistPolicy policy(manager_);
  EXPECT_EQ("whitelist", policy.Name());
  EXPECT_EQ("string", policy.Type());
  EXPECT_EQ("local", policy.Source());
  EXPECT_EQ(Names{"alice"}, policy.Pending().users);
  EXPECT_EQ(Names{"wheel"}, policy.Applied().groups);
  EXPECT_FALSE(policy.IsChanged());

  StoreWhitelistSource("yunko");
  EXPECT_EQ("yunko", AecWhitelistPolicy(manager_).Source());
  StoreWhitelistSource("local");
  EXPECT_EQ("local", AecWhitelistPolicy(manager_).Source());
}

TEST_F(AecWhitelistPolicyTest, AMissingWhitelistFileFailsConstruction) {
  ASSERT_EQ(0, std::remove(kPath.c_str()));
  try {
    AecWhitelistPolicy policy(manager_);
    FAIL() << "no exception";
  } catch (const PluginException& e) {
    EXPECT_EQ(std::string(error::kInvalidConfig), e.what());
  }
}

TEST_F(AecWhitelistPolicyTest,
       TheImportFormTakesUsersAndGroupsAndSkipsOtherTypes) {
  AecWhitelistPolicy policy(manager_);
  policy.SetValue(
      Json("[{\"name\": \"alice\", \"type\": \"user\"},"
           " {\"name\": \"pc1\", \"type\": \"computer\"},"
           " {\"name\": \"wheel\", \"type\": \"group\"},"
           " {\"name\": \"bob\", \"type\": \"user\"}]"));
  EXPECT_EQ((Names{"alice", "bob"}), policy.Pending().users);
  EXPECT_EQ(Names{"wheel"}, policy.Pending().groups);
  EXPECT_TRUE(policy.IsChanged());
}

TEST_F(AecWhitelistPolicyTest, AnImportElementWithoutNameOrTypeRaises) {
  AecWhitelistPolicy policy(manager_);
  EXPECT_THROW(policy.SetValue(Json("[{\"type\": \"user\"}]")),
               boost::property_tree::ptree_bad_path);
  EXPECT_THROW(policy.SetValue(Json("[{\"name\": \"alice\"}]")),
               boost::property_tree::ptree_bad_path);
  EXPECT_TRUE(policy.Pending().users.empty());
  EXPECT_FALSE(policy.IsChanged());
}

TEST_F(AecWhitelistPolicyTest, TheSameSetInAnotherOrderChangesNothing) {
  kxtest::WriteFile(kPath,
                    "{\"user_list\": [\"a\", \"b\"], \"group_list\": [\"g\"]}");
  AecWhitelistPolicy policy(manager_);
  policy.SetValue(Json(
      "[{\"name\": \"g\", \"type\": \"group\"}, {\"name\": \"b\", \"type\": "
      "\"user\"}, {\"name\": \"a\", \"type\": \"user\"}]"));
  EXPECT_FALSE(policy.IsChanged());
  EXPECT_EQ((Names{"a", "b"}), policy.Pending().users);
}

TEST_F(AecWhitelistPolicyTest,
       ApplyUnderDorviWritesTheFileTurnsControlOnAndReloads) {
  AecWhitelistPolicy policy(manager_);
  policy.SetSource("dorvi");
  policy.SetValue(Json("[{\"name\": \"alice\", \"type\": \"user\"}]"));
  ASSERT_TRUE(policy.IsChanged());
  EXPECT_TRUE(policy.Apply());
  EXPECT_FALSE(policy.IsChanged());
  EXPECT_EQ(Names{"alice"}, policy.Applied().users);
  EXPECT_EQ(Names{"alice"}, AECWhiteList::Get().users);
  EXPECT_TRUE(AECWhiteList::IsEnableCC());
  EXPECT_EQ("dorvi", wltest::StoredWhitelistSource());
  EXPECT_EQ((Calls{{"reload", "-w"}}), kxtest::FakeToolCalls("kxaecctl"));
}

TEST_F(AecWhitelistPolicyTest,
       AnUnwritableFileIsLoggedAsNotAppliedAndKeepsTheFlag) {
  AecWhitelistPolicy policy(manager_);
  policy.SetSource("dorvi");
  policy.SetValue(Json("[{\"name\": \"alice\", \"type\": \"user\"}]"));
  const std::string before = kxtest::ReadFile(kPath);
  {
    wltest::ReadOnlyDir read_only("/opt/korvex/etc/aec");
    EXPECT_FALSE(policy.Apply());
  }
  EXPECT_TRUE(policy.IsChanged());
  EXPECT_TRUE(policy.Applied().users.empty());
  EXPECT_EQ(Names{"alice"}, policy.Pending().users);
  EXPECT_EQ(before, kxtest::ReadFile(kPath));
  EXPECT_FALSE(AECWhiteList::IsEnableCC());
  EXPECT_TRUE(
      log_.Contains("[536870915] aec:AEC whitelist is not applied: "
                    "/opt/korvex/etc/aec/white-list.config: write error"));
}

TEST_F(AecWhitelistPolicyTest, SetSourceRaisesTheFlagOnlyForAnotherSource) {
  AecWhitelistPolicy policy(manager_);
  policy.SetSource("local");
  EXPECT_FALSE(policy.IsChanged());
  policy.SetSource("yunko");
  EXPECT_TRUE(policy.IsChanged());
}

TEST_F(AecWhitelistPolicyTest, ResetSourceTurnsCentralControlOff) {
  StoreWhitelistSource("dorvi");
  AecWhitelistPolicy policy(manager_);
  ASSERT_EQ("dorvi", policy.Source());
  policy.ResetSource();
  EXPECT_EQ("local", policy.Source());
  EXPECT_FALSE(AECWhiteList::IsEnableCC());
  EXPECT_EQ("", wltest::StoredWhitelistSource());
  EXPECT_EQ((Calls{kAideArgs}), kxtest::FakeToolCalls("kxaide"));
}

TEST_F(AecWhitelistPolicyTest,
       ResetSourceWithoutCentralControlRecomputesNothing) {
  AecWhitelistPolicy policy(manager_);
  policy.ResetSource();
  EXPECT_TRUE(kxtest::FakeToolCalls("kxaide").empty());
  EXPECT_FALSE(kxtest::Exists(AecPolicySources::ConfigPath()));
}

TEST_F(AecWhitelistPolicyTest,
       ResetByTheNameOfAnotherSourceLeavesControlAlone) {
  StoreWhitelistSource("dorvi");
  AecWhitelistPolicy policy(manager_);
  policy.ResetSourceByName("yunko");
  EXPECT_EQ("dorvi", policy.Source());
  EXPECT_TRUE(AECWhiteList::IsEnableCC());
  EXPECT_EQ("dorvi", wltest::StoredWhitelistSource());
  EXPECT_TRUE(kxtest::FakeToolCalls("kxaide").empty());
}

TEST_F(AecWhitelistPolicyTest,
       ResetByTheNameOfTheCurrentSourceTurnsControlOff) {
  StoreWhitelistSource("dorvi");
  AecWhitelistPolicy policy(manager_);
  policy.ResetSourceByName("dorvi");
  EXPECT_EQ("local", policy.Source());
  EXPECT_FALSE(AECWhiteList::IsEnableCC());
  EXPECT_EQ((Calls{kAideArgs}), kxtest::FakeToolCalls("kxaide"));
}

TEST_F(AecWhitelistPolicyTest, AnUnreachableDirectoryIsLoggedAndTheValueKept) {
  wltest::EnterPrivateNetwork();
  wltest::StoreDirectoryAccount("127.0.0.2");
  kxtest::WriteFile(kPath, "{\"user_list\": [\"x\"], \"group_list\": \"\"}");
  AecWhitelistPolicy policy(manager_);
  policy.SetValue(Star(wltest::kAliceSid));
  EXPECT_EQ(Names{"x"}, policy.Pending().users);
  EXPECT_FALSE(policy.IsChanged());
  EXPECT_TRUE(log_.Contains("[536870915] aec:AEC whitelist is not parse: "));
  EXPECT_TRUE(log_.Contains("cannot be reached"));
}

TEST_F(AecWhitelistPolicyServerTest,
       TwoStarredSidsGiveOneUserAndOneGroupAndPlainNamesAreIgnored) {
  AecWhitelistPolicy policy(manager_);
  policy.SetValue("root," + Star(wltest::kAliceSid) + "," +
                  Star(wltest::kDevsSid));
  EXPECT_EQ(Names{"alice@corp"}, policy.Pending().users);
  EXPECT_EQ(Names{"devs@corp"}, policy.Pending().groups);
  EXPECT_TRUE(policy.IsChanged());
}

TEST_F(AecWhitelistPolicyServerTest,
       TheLastEntryWithoutATrailingCommaIsTakenWhole) {
  AecWhitelistPolicy policy(manager_);
  // Cut short, the last SID would end in "100" and name nobody.
  const UsersAndGroups parsed = policy.ParseFromServer(
      Star(wltest::kDevsSid) + "," + Star(wltest::kAliceSid));
  EXPECT_EQ(Names{"alice@corp"}, parsed.users);
  EXPECT_EQ(Names{"devs@corp"}, parsed.groups);
}

TEST_F(AecWhitelistPolicyServerTest,
       AnAccountKnownOnlyAsDomainBackslashNameIsFoundSecond) {
  AecWhitelistPolicy policy(manager_);
  const UsersAndGroups parsed = policy.ParseFromServer(
      Star(wltest::kBobSid) + "," + Star(wltest::kOpsSid) + ",");
  EXPECT_EQ(Names{"corp\\bob"}, parsed.users);
  EXPECT_EQ(Names{"corp\\ops"}, parsed.groups);
}

TEST_F(AecWhitelistPolicyServerTest, TheNameAtDomainFormWinsWhenBothExist) {
  ASSERT_NE(nullptr, getpwnam("corp\\dave"));
  AecWhitelistPolicy policy(manager_);
  EXPECT_EQ(Names{"dave@corp"},
            policy.ParseFromServer(Star(wltest::kDaveSid)).users);
}

TEST_F(AecWhitelistPolicyServerTest, UnresolvableSidsAreDropped) {
  AecWhitelistPolicy policy(manager_);
  const UsersAndGroups parsed = policy.ParseFromServer(
      Star(wltest::kCarolSid) + "," + Star(wltest::kQaSid) + "," +
      Star(wltest::kUnknownSid) + "," + Star(wltest::kPrinterSid) + "," +
      "S-1-5-21-1-2-3-1001," + Star(wltest::kAliceSid));
  // Only the starred, resolvable and locally known alice is left; the
  // unstarred copy of her SID is not looked at.
  EXPECT_EQ(Names{"alice@corp"}, parsed.users);
  EXPECT_TRUE(parsed.groups.empty());
}

TEST_F(AecWhitelistPolicyServerTest,
       TheSameSidsInAnotherOrderLeaveTheFlagDown) {
  AecWhitelistPolicy policy(manager_);
  policy.SetValue(Star(wltest::kAliceSid) + "," + Star(wltest::kBobSid) + "," +
                  Star(wltest::kDevsSid));
  ASSERT_TRUE(policy.IsChanged());
  ASSERT_TRUE(policy.Apply());
  policy.SetValue(Star(wltest::kDevsSid) + "," + Star(wltest::kBobSid) + "," +
                  Star(wltest::kAliceSid));
  EXPECT_FALSE(policy.IsChanged());
}

TEST_F(AecWhitelistPolicyServerTest, WrongCredentialsAreLoggedAsNotParse) {
  wltest::StoreDirectoryAccount(wltest::kDirectoryServer, "wrong");
  AecWhitelistPolicy policy(manager_);
  policy.SetValue(Star(wltest::kAliceSid));
  EXPECT_FALSE(policy.IsChanged());
  EXPECT_TRUE(policy.Pending().users.empty());
  EXPECT_TRUE(log_.Contains("aec:AEC whitelist is not parse: "));
  EXPECT_TRUE(log_.Contains("Invalid credentials"));
}

TEST_F(AecWhitelistPolicyServerTest, AMalformedSidRejectsTheWholeValue) {
  AecWhitelistPolicy policy(manager_);
  policy.SetValue(Star(wltest::kAliceSid) + ",*S-1-5-21-x");
  EXPECT_FALSE(policy.IsChanged());
  EXPECT_TRUE(policy.Pending().users.empty());
  EXPECT_TRUE(log_.Contains("AEC whitelist is not parse: malformed SID"));
}

}  // namespace
