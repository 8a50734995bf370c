#include "aec_policies/aecexceptionspolicy.h"

#include <gtest/gtest.h>

#include <boost/property_tree/json_parser.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "host/policy_manager.h"
#include "host/policy_sources.h"
#include "kxtest.h"
#include "whitelist_env.h"

namespace {

using Calls = std::vector<std::vector<std::string>>;
using Paths = std::set<std::string>;

const std::string kPath = "/opt/korvex/etc/aec/resource-exception.conf";
const std::string kAideOut = "/opt/korvex/etc/aec/crc-rule-out.db";
const std::vector<std::string> kAideArgs = {
    "-i", "-c", "/opt/korvex/etc/aec/crc-rule.conf"};
const std::vector<std::string> kReloadArgs = {"reload", "-C", "-v"};

boost::property_tree::ptree Json(const std::string& text) {
  std::istringstream in(text);
  boost::property_tree::ptree tree;
  boost::property_tree::read_json(in, tree);
  return tree;
}

// An import value as the policy manager hands it over: a JSON array.
boost::property_tree::ptree List(const std::vector<std::string>& paths) {
  boost::property_tree::ptree list;
  for (const auto& path : paths) {
    boost::property_tree::ptree element;
    element.put_value(path);
    list.push_back(std::make_pair("", element));
  }
  return list;
}

class AecExceptionsPolicyTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override {
    AecPolicySources::Get()->ReadConfig();
    kxtest::InstallFakeTool("kxaecctl", {});
    kxtest::FakeBehaviour aide;
    aide.create_files = {kAideOut};
    kxtest::InstallFakeTool("kxaide", aide);
  }

  static void StoreExceptionSource(const std::string& source) {
    AecPolicySources::Get()->SetExceptionSource(source);
    ASSERT_TRUE(AecPolicySources::Get()->WriteConfig());
  }

  KernelPolicyManager manager_{"aec", "aec", "Application execution control",
                               32};
};

TEST_F(AecExceptionsPolicyTest, MissingFileIsLoggedAndTheSetStartsEmpty) {
  ASSERT_FALSE(kxtest::Exists(kPath));
  AecExceptionsPolicy policy(manager_);
  EXPECT_TRUE(policy.Exceptions().empty());
  EXPECT_FALSE(policy.IsChanged());
  EXPECT_EQ("exceptions", policy.Name());
  EXPECT_EQ("string", policy.Type());
  // Code 0x20000003, the tag, the reason and the empty fourth value.
  EXPECT_TRUE(log_.Contains("[536870915] aec: failed o parse "));
  bool found = false;
  for (const auto& line : log_.Lines()) {
    if (line.find("failed o parse ") == std::string::npos) continue;
    found = true;
    EXPECT_EQ(": ", line.substr(line.size() - 2)) << line;
    EXPECT_NE(std::string::npos, line.find("aecexceptionspolicy")) << line;
  }
  EXPECT_TRUE(found);
}

TEST_F(AecExceptionsPolicyTest, MalformedFileOrMissingKeyStartsEmpty) {
  kxtest::WriteFile(kPath, "{\"resource_list\": [");
  EXPECT_TRUE(AecExceptionsPolicy(manager_).Exceptions().empty());
  kxtest::WriteFile(kPath, "{\"other\": [\"/a\"]}");
  EXPECT_TRUE(AecExceptionsPolicy(manager_).Exceptions().empty());
  EXPECT_TRUE(log_.Contains("No such node (resource_list)"));
}

TEST_F(AecExceptionsPolicyTest, ReadingCollapsesDuplicatesAndSorts) {
  kxtest::WriteFile(kPath,
                    "{\"resource_list\": [\"/b\", \"/a\", \"/b\"], \"x\": 1}");
  EXPECT_EQ((Paths{"/a", "/b"}), AecExceptionsPolicy(manager_).Exceptions());
  kxtest::WriteFile(kPath, "{\"resource_list\": {\"k\": \"/c\"}}");
  EXPECT_EQ((Paths{"/c"}), AecExceptionsPolicy(manager_).Exceptions());
}

TEST_F(AecExceptionsPolicyTest, TheSourceIsTheHostsRecordAsItStands) {
  StoreExceptionSource("yunko");
  EXPECT_EQ("yunko", AecExceptionsPolicy(manager_).Source());
  StoreExceptionSource("");
  EXPECT_EQ("", AecExceptionsPolicy(manager_).Source());
}

TEST_F(AecExceptionsPolicyTest,
       ImportingDuplicatesStoresThemSortedAndWritesInOrder) {
  AecExceptionsPolicy policy(manager_);
  policy.SetValue(List({"/b", "/a", "/a"}));
  EXPECT_EQ((Paths{"/a", "/b"}), policy.Exceptions());
  EXPECT_TRUE(policy.IsChanged());
  EXPECT_TRUE(policy.Apply());
  EXPECT_FALSE(policy.IsChanged());
  // The property tree writer escapes "/" as "\/"; JSON readers take it back.
  EXPECT_EQ(
      "{\n"
      "    \"resource_list\": [\n"
      "        \"\\/a\",\n"
      "        \"\\/b\"\n"
      "    ]\n"
      "}\n",
      kxtest::ReadFile(kPath));
  EXPECT_EQ((Paths{"/a", "/b"}),
            AecExceptionsPolicy::Get(Json(kxtest::ReadFile(kPath))));
  EXPECT_EQ((Calls{kReloadArgs}), kxtest::FakeToolCalls("kxaecctl"));
}

TEST_F(AecExceptionsPolicyTest,
       ImportingTheSamePathsInAnotherOrderLeavesTheFlagDown) {
  kxtest::WriteFile(kPath, "{\"resource_list\": [\"/a\", \"/b\"]}");
  AecExceptionsPolicy policy(manager_);
  policy.SetValue(List({"/b", "/a", "/b"}));
  EXPECT_FALSE(policy.IsChanged());
  policy.SetValue(List({"/b"}));
  EXPECT_TRUE(policy.IsChanged());
}

TEST_F(AecExceptionsPolicyTest,
       APathThatIsNotUtf8IsLeftOutAndTheFileStaysReadable) {
  AecExceptionsPolicy policy(manager_);
  policy.SetValue(List({"/opt/a\xff-b", "/opt/\xc0\xaf", "/opt/caf\xc3\xa9"}));
  EXPECT_TRUE(
      log_.Contains("exception '/opt/a\xff-b' is not UTF-8 text: left out"));
  EXPECT_TRUE(log_.Contains("exception '/opt/\xc0\xaf' is not UTF-8 text"));
  ASSERT_TRUE(policy.IsChanged());
  ASSERT_TRUE(policy.Apply());
  EXPECT_EQ(Paths{"/opt/caf\xc3\xa9"},
            AecExceptionsPolicy(manager_).Exceptions());
}

TEST_F(AecExceptionsPolicyTest,
       AnEmptyImportWritesTheEmptyStringAndReadsBackEmpty) {
  kxtest::WriteFile(kPath, "{\"resource_list\": [\"/a\"]}");
  AecExceptionsPolicy policy(manager_);
  policy.SetValue(boost::property_tree::ptree());
  ASSERT_TRUE(policy.IsChanged());
  ASSERT_TRUE(policy.Apply());
  EXPECT_EQ("{\n    \"resource_list\": \"\"\n}\n", kxtest::ReadFile(kPath));
  EXPECT_TRUE(AecExceptionsPolicy(manager_).Exceptions().empty());
}

TEST_F(AecExceptionsPolicyTest, AServerTextIsStoredByTheBaseOnly) {
  kxtest::WriteFile(kPath, "{\"resource_list\": [\"/a\"]}");
  AecExceptionsPolicy policy(manager_);
  policy.SetValue(std::string("/x,/y"));
  EXPECT_EQ((Paths{"/a"}), policy.Exceptions());
  EXPECT_EQ("/x,/y", policy.Value());
}

TEST_F(AecExceptionsPolicyTest, ApplyRecordsTheSourceEvenWhenLocal) {
  StoreExceptionSource("dorvi");
  AecExceptionsPolicy policy(manager_);
  policy.SetSource("local");
  ASSERT_TRUE(policy.IsChanged());
  EXPECT_TRUE(policy.Apply());
  EXPECT_EQ("local", wltest::StoredExceptionSource());
}

TEST_F(AecExceptionsPolicyTest,
       AToolThatCannotStartFailsApplyAfterWritingFileAndSource) {
  ASSERT_EQ(0, std::remove("/opt/korvex/bin/kxaecctl"));
  AecExceptionsPolicy policy(manager_);
  policy.SetSource("dorvi");
  policy.SetValue(List({"/a"}));
  EXPECT_FALSE(policy.Apply());
  EXPECT_TRUE(policy.IsChanged());
  EXPECT_EQ((Paths{"/a"}),
            AecExceptionsPolicy::Get(Json(kxtest::ReadFile(kPath))));
  EXPECT_EQ("dorvi", wltest::StoredExceptionSource());
}

TEST_F(AecExceptionsPolicyTest,
       AnUnwritableFileRaisesWriteErrorAndTouchesNoSource) {
  kxtest::WriteFile(kPath, "{\"resource_list\": [\"/old\"]}");
  AecExceptionsPolicy policy(manager_);
  policy.SetSource("dorvi");
  policy.SetValue(List({"/new"}));
  {
    wltest::ReadOnlyDir read_only("/opt/korvex/etc/aec");
    try {
      policy.Apply();
      FAIL() << "no exception";
    } catch (const boost::property_tree::json_parser_error& e) {
      EXPECT_EQ("write error", e.message());
    }
  }
  EXPECT_TRUE(policy.IsChanged());
  EXPECT_EQ("{\"resource_list\": [\"/old\"]}", kxtest::ReadFile(kPath));
  EXPECT_FALSE(kxtest::Exists(AecPolicySources::ConfigPath()));
  EXPECT_TRUE(kxtest::FakeToolCalls("kxaecctl").empty());
}

TEST_F(AecExceptionsPolicyTest, SetSourceRaisesTheFlagOnlyForAnotherSource) {
  AecExceptionsPolicy policy(manager_);
  ASSERT_EQ("local", policy.Source());
  policy.SetSource("local");
  EXPECT_FALSE(policy.IsChanged());
  policy.SetSource("dorvi");
  EXPECT_TRUE(policy.IsChanged());
  EXPECT_EQ("dorvi", policy.Source());
}

TEST_F(AecExceptionsPolicyTest, ResetSourceUnderLocalTouchesNothing) {
  AecExceptionsPolicy policy(manager_);
  policy.ResetSource();
  EXPECT_EQ("local", policy.Source());
  EXPECT_FALSE(kxtest::Exists(AecPolicySources::ConfigPath()));
  EXPECT_TRUE(kxtest::FakeToolCalls("kxaide").empty());
}

TEST_F(AecExceptionsPolicyTest,
       ResetSourceUnderDorviRewritesTheRecordsButKeepsDorvi) {
  AecExceptionsPolicy policy(manager_);
  policy.SetSource("dorvi");
  policy.ResetSource();
  EXPECT_EQ("dorvi", policy.Source());
  EXPECT_EQ("dorvi", wltest::StoredExceptionSource());
  EXPECT_EQ((Calls{kAideArgs}), kxtest::FakeToolCalls("kxaide"));
  EXPECT_TRUE(kxtest::Exists("/opt/korvex/etc/aec/crc-rule.db"));
}

TEST_F(AecExceptionsPolicyTest,
       ResetSourceByNameOfTheCurrentSourceRecordsLocal) {
  StoreExceptionSource("dorvi");
  AecExceptionsPolicy policy(manager_);
  policy.SetSource("dorvi");
  policy.ResetSourceByName("yunko");
  EXPECT_EQ("dorvi", policy.Source());
  EXPECT_TRUE(kxtest::FakeToolCalls("kxaide").empty());

  policy.ResetSourceByName("dorvi");
  EXPECT_EQ("local", policy.Source());
  EXPECT_EQ("local", wltest::StoredExceptionSource());
  EXPECT_EQ((Calls{kAideArgs}), kxtest::FakeToolCalls("kxaide"));
}

}  // namespace
