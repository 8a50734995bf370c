#include "aecwhitelist.h"

#include <gtest/gtest.h>

#include <boost/property_tree/json_parser.hpp>
#include <string>
#include <vector>

#include "host/errors.h"
#include "host/policy_sources.h"
#include "kxtest.h"
#include "whitelist_env.h"

namespace {

using Calls = std::vector<std::vector<std::string>>;

const std::string kPath = "/opt/korvex/etc/aec/white-list.config";
const std::string kAideOut = "/opt/korvex/etc/aec/crc-rule-out.db";
const std::string kAideDb = "/opt/korvex/etc/aec/crc-rule.db";
const std::vector<std::string> kAideArgs = {
    "-i", "-c", "/opt/korvex/etc/aec/crc-rule.conf"};

class AECWhiteListTest : public kxtest::SandboxTest {
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

  static UsersAndGroups Make(std::vector<std::string> users,
                             std::vector<std::string> groups) {
    UsersAndGroups value;
    value.users = std::move(users);
    value.groups = std::move(groups);
    return value;
  }

  void ExpectInvalidConfig() {
    try {
      AECWhiteList::Get();
      FAIL() << "no exception";
    } catch (const PluginException& e) {
      EXPECT_EQ(std::string(error::kInvalidConfig), e.what());
    }
    EXPECT_TRUE(log_.Contains("failed to parse AEC whitelist config: "));
  }
};

TEST_F(AECWhiteListTest, TwoEmptyStringsReadAsTwoEmptyLists) {
  kxtest::WriteFile(kPath, "{\"user_list\": \"\", \"group_list\": \"\"}");
  const UsersAndGroups value = AECWhiteList::Get();
  EXPECT_TRUE(value.users.empty());
  EXPECT_TRUE(value.groups.empty());
}

TEST_F(AECWhiteListTest, WritingTwoEmptyListsProducesTheEmptyStringDocument) {
  AECWhiteList("local").Apply(Make({}, {}));
  EXPECT_EQ(
      "{\n"
      "    \"user_list\": \"\",\n"
      "    \"group_list\": \"\"\n"
      "}\n",
      kxtest::ReadFile(kPath));
}

TEST_F(AECWhiteListTest, WritesBothListsPrettyPrintedInListOrder) {
  AECWhiteList("local").Apply(Make({"bob", "alice", "corp\\bob"}, {"wheel"}));
  EXPECT_EQ(
      "{\n"
      "    \"user_list\": [\n"
      "        \"bob\",\n"
      "        \"alice\",\n"
      "        \"corp\\\\bob\"\n"
      "    ],\n"
      "    \"group_list\": [\n"
      "        \"wheel\"\n"
      "    ]\n"
      "}\n",
      kxtest::ReadFile(kPath));
  const UsersAndGroups back = AECWhiteList::Get();
  EXPECT_EQ((std::vector<std::string>{"bob", "alice", "corp\\bob"}),
            back.users);
  EXPECT_EQ(std::vector<std::string>{"wheel"}, back.groups);
}

TEST_F(AECWhiteListTest, ANameThatIsNotUtf8IsLeftOutAndTheFileStaysReadable) {
  // A local account named in Latin-1, say; UTF-8 names pass as they are.
  AECWhiteList("local").Apply(
      Make({"j\xfcrgen", "j\xc3\xbcrgen"}, {"staff\xe4-", "wheel"}));
  EXPECT_TRUE(log_.Contains("user_list item 'j\xfcrgen' is not UTF-8 text"));
  EXPECT_TRUE(log_.Contains("group_list item 'staff\xe4-' is not UTF-8 text"));
  const UsersAndGroups back = AECWhiteList::Get();
  EXPECT_EQ(std::vector<std::string>{"j\xc3\xbcrgen"}, back.users);
  EXPECT_EQ(std::vector<std::string>{"wheel"}, back.groups);
}

TEST_F(AECWhiteListTest, FileWithOnlyUserListFailsWithInvalidConfig) {
  kxtest::WriteFile(kPath, "{\"user_list\": [\"alice\"]}");
  ExpectInvalidConfig();
}

TEST_F(AECWhiteListTest, MissingFileFailsWithInvalidConfig) {
  ASSERT_EQ(0, std::remove(kPath.c_str()));
  ExpectInvalidConfig();
}

TEST_F(AECWhiteListTest, MalformedJsonFailsWithInvalidConfig) {
  kxtest::WriteFile(kPath, "{\"user_list\": [\"alice\",");
  ExpectInvalidConfig();
}

TEST_F(AECWhiteListTest, AnObjectInPlaceOfAnArrayYieldsItsMemberValues) {
  kxtest::WriteFile(kPath,
                    "{\"user_list\": {\"x\": \"alice\", \"y\": \"bob\"},"
                    " \"group_list\": [\"wheel\"], \"extra\": 1}");
  const UsersAndGroups value = AECWhiteList::Get();
  EXPECT_EQ((std::vector<std::string>{"alice", "bob"}), value.users);
  EXPECT_EQ(std::vector<std::string>{"wheel"}, value.groups);
}

TEST_F(AECWhiteListTest, OtherKeysAreLostOnTheNextWrite) {
  kxtest::WriteFile(
      kPath, "{\"user_list\": [], \"group_list\": [], \"extra\": \"x\"}");
  AECWhiteList("local").Apply(AECWhiteList::Get());
  EXPECT_EQ(std::string::npos, kxtest::ReadFile(kPath).find("extra"));
}

TEST_F(AECWhiteListTest, TreeWithoutGroupListRaisesNoSuchNode) {
  boost::property_tree::ptree tree;
  tree.put("user_list", "");
  try {
    AECWhiteList::Get(tree);
    FAIL() << "no exception";
  } catch (const boost::property_tree::ptree_bad_path& e) {
    EXPECT_NE(std::string::npos, std::string(e.what()).find("No such node"));
  }
}

TEST_F(AECWhiteListTest, ControlIsOffForAnEmptyOrLocalSource) {
  StoreWhitelistSource("");
  EXPECT_FALSE(AECWhiteList::IsEnableCC());
  StoreWhitelistSource("local");
  EXPECT_FALSE(AECWhiteList::IsEnableCC());
}

TEST_F(AECWhiteListTest, ControlIsOnForDorviAndForYunko) {
  StoreWhitelistSource("dorvi");
  EXPECT_TRUE(AECWhiteList::IsEnableCC());
  EXPECT_EQ("dorvi", AECWhiteList::CurrentSource());
  StoreWhitelistSource("yunko");
  EXPECT_TRUE(AECWhiteList::IsEnableCC());
  EXPECT_EQ("yunko", AECWhiteList::CurrentSource());
}

TEST_F(AECWhiteListTest, CurrentSourceIsLocalWhileControlIsOff) {
  StoreWhitelistSource("");
  EXPECT_EQ("local", AECWhiteList::CurrentSource());
  StoreWhitelistSource("local");
  EXPECT_EQ("local", AECWhiteList::CurrentSource());
}

TEST_F(AECWhiteListTest,
       DisableWithoutCentralControlSavesNothingAndKeepsChecksum) {
  ASSERT_FALSE(kxtest::Exists(AecPolicySources::ConfigPath()));
  AECWhiteList::DisableCC();
  EXPECT_FALSE(kxtest::Exists(AecPolicySources::ConfigPath()));
  EXPECT_TRUE(kxtest::FakeToolCalls("kxaide").empty());

  StoreWhitelistSource("local");
  const std::string before = kxtest::ReadFile(AecPolicySources::ConfigPath());
  kxtest::WriteFile(AecPolicySources::ConfigPath(), before + " ");
  AECWhiteList::DisableCC();
  // Not saved: the extra byte written behind the host's back is still there.
  EXPECT_EQ(before + " ", kxtest::ReadFile(AecPolicySources::ConfigPath()));
  EXPECT_TRUE(kxtest::FakeToolCalls("kxaide").empty());
}

TEST_F(AECWhiteListTest,
       DisableUnderDorviClearsTheSourceAndRecomputesTheChecksum) {
  StoreWhitelistSource("dorvi");
  AECWhiteList::DisableCC();
  EXPECT_FALSE(AECWhiteList::IsEnableCC());
  EXPECT_EQ("", wltest::StoredWhitelistSource());
  EXPECT_EQ((Calls{kAideArgs}), kxtest::FakeToolCalls("kxaide"));
  EXPECT_TRUE(kxtest::Exists(kAideDb));
  EXPECT_FALSE(kxtest::Exists(kAideOut));
}

TEST_F(AECWhiteListTest, ApplyForLocalWithoutCentralSourceRecordsNothing) {
  AECWhiteList("local").Apply(Make({"alice"}, {}));
  EXPECT_FALSE(kxtest::Exists(AecPolicySources::ConfigPath()));
  EXPECT_FALSE(AECWhiteList::IsEnableCC());
  EXPECT_EQ((Calls{{"reload", "-w"}}), kxtest::FakeToolCalls("kxaecctl"));
}

TEST_F(AECWhiteListTest, ApplyForDorviTurnsCentralControlOnAndReloads) {
  AECWhiteList("dorvi").Apply(Make({"alice"}, {"wheel"}));
  EXPECT_TRUE(AECWhiteList::IsEnableCC());
  EXPECT_EQ("dorvi", wltest::StoredWhitelistSource());
  EXPECT_EQ((Calls{{"reload", "-w"}}), kxtest::FakeToolCalls("kxaecctl"));
  EXPECT_EQ(std::vector<std::string>{"alice"}, AECWhiteList::Get().users);
}

TEST_F(AECWhiteListTest, ApplyForTheCurrentSourceDoesNotSaveTheSourcesAgain) {
  StoreWhitelistSource("dorvi");
  const std::string before = kxtest::ReadFile(AecPolicySources::ConfigPath());
  kxtest::WriteFile(AecPolicySources::ConfigPath(), before + " ");
  AECWhiteList("dorvi").Apply(Make({"alice"}, {}));
  EXPECT_EQ(before + " ", kxtest::ReadFile(AecPolicySources::ConfigPath()));
}

TEST_F(AECWhiteListTest, AFailingReloadIsSilentAndKeepsTheFile) {
  kxtest::FakeBehaviour failing;
  failing.exit_code = 7;
  kxtest::InstallFakeTool("kxaecctl", failing);
  EXPECT_NO_THROW(AECWhiteList("local").Apply(Make({"alice"}, {})));
  EXPECT_EQ(std::vector<std::string>{"alice"}, AECWhiteList::Get().users);
  EXPECT_EQ(7, WEXITSTATUS(AECWhiteList::Reload()));
}

TEST_F(AECWhiteListTest, ReadOnlyDirectoryKeepsTheOldFileAndRaisesWriteError) {
  AECWhiteList("local").Apply(Make({"alice"}, {}));
  const std::string before = kxtest::ReadFile(kPath);
  const std::size_t reloads = kxtest::FakeToolCalls("kxaecctl").size();
  {
    wltest::ReadOnlyDir read_only("/opt/korvex/etc/aec");
    try {
      AECWhiteList("dorvi").Apply(Make({"mallory"}, {}));
      FAIL() << "no exception";
    } catch (const boost::property_tree::json_parser_error& e) {
      EXPECT_EQ("write error", e.message());
      EXPECT_EQ(kPath, e.filename());
    }
  }
  EXPECT_EQ(before, kxtest::ReadFile(kPath));
  EXPECT_FALSE(AECWhiteList::IsEnableCC());
  EXPECT_FALSE(kxtest::Exists(AecPolicySources::ConfigPath()));
  EXPECT_EQ(reloads, kxtest::FakeToolCalls("kxaecctl").size());
}

TEST_F(AECWhiteListTest, FullFileSystemKeepsTheOldFileAndRaisesWriteError) {
  AECWhiteList("local").Apply(Make({"alice"}, {}));
  const std::string before = kxtest::ReadFile(kPath);
  {
    wltest::FullDir full("/opt/korvex/etc/aec");
    std::vector<std::string> many(2000, "a-rather-long-user-name@corp");
    EXPECT_THROW(AECWhiteList("dorvi").Apply(Make(many, {})),
                 boost::property_tree::json_parser_error);
    EXPECT_EQ(before, kxtest::ReadFile(kPath));
    EXPECT_FALSE(AECWhiteList::IsEnableCC());
  }
}

}  // namespace
