// The rules policy: diffing a wanted rule set against the disk and applying
// it.
#include "aec_policies/aecrulespolicy.h"

#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <string>
#include <vector>

#include "host/errors.h"
#include "host/policy_sources.h"
#include "kxtest.h"
#include "rules_test_util.h"

namespace pt = boost::property_tree;
using rulestest::kRulesDir;
using rulestest::RuleFiles;
using rulestest::RuleSpec;
using rulestest::RuleTree;
using rulestest::WriteRuleFile;
using Files = std::set<std::string>;

namespace {

class AecRulesPolicyTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override { kxtest::InstallFakeTool("kxaecctl", {}); }

  static pt::ptree Value(const std::vector<RuleSpec>& rules) {
    pt::ptree value;
    for (const auto& rule : rules) value.push_back({"", RuleTree(rule)});
    return value;
  }
  static RuleSpec Rule(const std::string& name,
                       std::vector<std::string> users = {}) {
    RuleSpec spec{name};
    spec.users = std::move(users);
    spec.resources = {"/usr/bin/" + name};
    return spec;
  }
  static RuleSpec SystemRule(const std::string& name) {
    RuleSpec spec = Rule(name);
    spec.system = true;
    return spec;
  }
  static std::string FileOf(const std::string& name) {
    return kxtest::ReadFile(std::string(kRulesDir) + name + ".conf");
  }
  static size_t Reloads() {
    size_t count = 0;
    for (const auto& call : kxtest::FakeToolCalls("kxaecctl")) {
      if (call == std::vector<std::string>{"reload", "-C", "-v"}) ++count;
    }
    return count;
  }
};

}  // namespace

TEST_F(AecRulesPolicyTest, StartsAsAnEmptyLocalStringPolicyNamedRules) {
  AecRulesPolicy policy;
  EXPECT_EQ(policy.Name(), "rules");
  EXPECT_EQ(policy.Type(), "string");
  EXPECT_EQ(policy.Description(), "Application execution control rules");
  EXPECT_EQ(policy.Source(), "local");
  EXPECT_EQ(policy.Value(), "");
  EXPECT_EQ(policy.DefaultValue(), "");
  EXPECT_FALSE(policy.IsChanged());
}

TEST_F(AecRulesPolicyTest, SetValueWithAStringThrowsLogicError) {
  AecRulesPolicy policy;
  try {
    policy.SetValue(std::string("anything"));
    FAIL() << "no exception";
  } catch (const std::logic_error& e) {
    EXPECT_STREQ(e.what(), "Unsupported method AecRulesPolicy::SetValue");
  }
}

TEST_F(AecRulesPolicyTest,
       AnEmptyValueAgainstTwoRulesOnDiskDeletesBothAndReloads) {
  WriteRuleFile(Rule("a"));
  WriteRuleFile(Rule("b"));
  AecRulesPolicy policy;
  policy.SetValue(pt::ptree());
  EXPECT_TRUE(policy.IsChanged());
  EXPECT_TRUE(policy.Apply());
  EXPECT_EQ(RuleFiles(), Files{});
  EXPECT_EQ(Reloads(), 1u);
  EXPECT_FALSE(policy.IsChanged());
}

TEST_F(AecRulesPolicyTest, AValueEqualToTheDiskInAnyOrderIsNoChange) {
  WriteRuleFile(Rule("a", {"alice"}));
  WriteRuleFile(Rule("b", {"bob"}));
  AecRulesPolicy policy;
  policy.SetValue(Value({Rule("b", {"bob"}), Rule("a", {"alice"})}));
  EXPECT_FALSE(policy.IsChanged());
}

TEST_F(AecRulesPolicyTest, OfTwoChildrenWithTheSameNameTheLaterWins) {
  AecRulesPolicy policy;
  policy.SetValue(Value({Rule("a", {"first"}), Rule("a", {"second"})}));
  ASSERT_TRUE(policy.IsChanged());
  policy.Apply();
  EXPECT_EQ(RuleFiles(), Files{"a.conf"});
  EXPECT_EQ(AecRule(AecRule::GetPath("a")),
            AecRule(RuleTree(Rule("a", {"second"}))));
}

TEST_F(AecRulesPolicyTest, ASystemRuleOnDiskIsNeitherComparedNorDeleted) {
  WriteRuleFile(SystemRule("sys"));
  WriteRuleFile(Rule("a"));
  const std::string system_file = FileOf("sys");
  AecRulesPolicy policy;
  policy.SetValue(Value({Rule("a")}));
  EXPECT_FALSE(policy.IsChanged());  // the system rule is not in the policy
  policy.SetValue(pt::ptree());
  ASSERT_TRUE(policy.IsChanged());
  policy.Apply();
  EXPECT_EQ(RuleFiles(), Files{"sys.conf"});
  EXPECT_EQ(FileOf("sys"), system_file);
}

TEST_F(AecRulesPolicyTest, AnIncomingSystemRuleAlwaysCountsAsDifferent) {
  WriteRuleFile(SystemRule("sys"));
  AecRulesPolicy policy;
  policy.SetValue(Value({SystemRule("sys")}));
  EXPECT_TRUE(policy.IsChanged());
}

TEST_F(AecRulesPolicyTest, AnUnparsableChildIsSkippedAfterItsLogLine) {
  pt::ptree value = Value({Rule("good")});
  pt::ptree broken = RuleTree(Rule("broken"));
  broken.erase("system");
  value.push_back({"", broken});
  pt::ptree escaping = RuleTree(Rule("../escape"));
  value.push_back({"", escaping});
  AecRulesPolicy policy;
  policy.SetValue(value);
  EXPECT_TRUE(log_.Contains("failed to parse AEC rule: No such node (system)"));
  ASSERT_TRUE(policy.IsChanged());
  policy.Apply();
  EXPECT_EQ(RuleFiles(), Files{"good.conf"});
  EXPECT_FALSE(kxtest::Exists("/opt/korvex/etc/aec/escape.conf"));
}

TEST_F(AecRulesPolicyTest, ARuleThatIsNotUtf8IsLeftOutAndLaterValuesStillApply) {
  // The file such a rule would become could not be read back, and the next
  // value would then fail on reading the rules directory.
  AecRulesPolicy policy;
  policy.SetValue(Value({Rule("good"), Rule("buil\xe4-tools")}));
  EXPECT_TRUE(log_.Contains("holds bytes that are not UTF-8"));
  ASSERT_TRUE(policy.Apply());
  EXPECT_EQ(RuleFiles(), Files{"good.conf"});

  AecRulesPolicy next;
  next.SetValue(Value({Rule("good"), Rule("other")}));
  ASSERT_TRUE(next.IsChanged());
  ASSERT_TRUE(next.Apply());
  EXPECT_EQ(RuleFiles(), (Files{"good.conf", "other.conf"}));
}

TEST_F(AecRulesPolicyTest, AnUnparsableFileOnDiskFailsSetValueAsInvalidConfig) {
  kxtest::WriteFile(std::string(kRulesDir) + "broken.conf", "not json");
  AecRulesPolicy policy;
  try {
    policy.SetValue(Value({Rule("a")}));
    FAIL() << "no exception";
  } catch (const PluginException& e) {
    EXPECT_EQ(std::string(e.what()), error::kInvalidConfig);
  }
  EXPECT_FALSE(policy.IsChanged());
}

TEST_F(AecRulesPolicyTest, AValueEqualToTheDiskKeepsAnEarlierPendingSet) {
  WriteRuleFile(Rule("a"));
  AecRulesPolicy policy;
  policy.SetValue(Value({Rule("a"), Rule("b")}));
  ASSERT_TRUE(policy.IsChanged());
  policy.SetValue(Value({Rule("a")}));  // equal to the disk
  EXPECT_TRUE(policy.IsChanged());
  policy.Apply();
  EXPECT_EQ(RuleFiles(), (Files{"a.conf", "b.conf"}));
}

TEST_F(AecRulesPolicyTest, ApplyWritesThePendingSetAndDeletesOnlyDroppedRules) {
  WriteRuleFile(Rule("keep", {"old"}));
  WriteRuleFile(Rule("drop"));
  AecRulesPolicy policy;
  policy.SetValue(Value({Rule("keep", {"new"}), Rule("add")}));
  EXPECT_TRUE(policy.Apply());
  EXPECT_EQ(RuleFiles(), (Files{"add.conf", "keep.conf"}));
  EXPECT_EQ(AecRule(AecRule::GetPath("keep")),
            AecRule(RuleTree(Rule("keep", {"new"}))));
}

TEST_F(AecRulesPolicyTest, ApplyRecordsThePolicySourceWithTheHost) {
  AecRulesPolicy policy;
  policy.SetSource("dorvi");
  policy.SetValue(Value({Rule("a")}));
  policy.Apply();
  EXPECT_EQ(AecPolicySources::Get()->GetRulesSource(), "dorvi");
  AecPolicySources::Get()->SetRulesSource("local");
  AecPolicySources::Get()->ReadConfig();  // what was written to the file
  EXPECT_EQ(AecPolicySources::Get()->GetRulesSource(), "dorvi");
}

TEST_F(AecRulesPolicyTest, AFailedReloadReturnsFalseAndKeepsTheChangedFlag) {
  boost::filesystem::remove("/opt/korvex/bin/kxaecctl");
  AecRulesPolicy policy;
  policy.SetValue(Value({Rule("a")}));
  EXPECT_FALSE(policy.Apply());
  EXPECT_TRUE(policy.IsChanged());
  EXPECT_EQ(RuleFiles(), Files{"a.conf"});
  EXPECT_TRUE(log_.Contains("failed to reload AEC rules: "));
}

TEST_F(AecRulesPolicyTest,
       ASecondApplyWithoutNewValueRemovesTheRulesJustWritten) {
  AecRulesPolicy policy;
  policy.SetValue(Value({Rule("a"), Rule("b")}));
  policy.Apply();
  ASSERT_EQ(RuleFiles(), (Files{"a.conf", "b.conf"}));
  policy.Apply();
  EXPECT_EQ(RuleFiles(), Files{});
  EXPECT_EQ(Reloads(), 2u);
}

TEST_F(AecRulesPolicyTest, ApplyBeforeAnyValueDeletesNothing) {
  WriteRuleFile(Rule("a"));
  AecRulesPolicy policy;
  EXPECT_TRUE(policy.Apply());
  EXPECT_EQ(RuleFiles(), Files{"a.conf"});
}

TEST_F(AecRulesPolicyTest, GetCurrentRulesFailsOnABrokenFile) {
  WriteRuleFile(Rule("a"));
  kxtest::WriteFile(std::string(kRulesDir) + "zz.conf", "{}");
  AecRulesPolicy policy;
  EXPECT_THROW(policy.GetCurrentRules(), PluginException);
}

TEST_F(AecRulesPolicyTest, GetCurrentRulesReadsEveryEntryWhateverItsName) {
  WriteRuleFile(Rule("a"), "not-a-conf-name");
  AecRulesPolicy policy;
  policy.GetCurrentRules();
  policy.SetValue(Value({Rule("a")}));
  EXPECT_FALSE(policy.IsChanged());
}

TEST_F(AecRulesPolicyTest, AFullDiskFailsApplyBeforeAnyRuleFileIsDeleted) {
  rulestest::SmallConfigFs small(32 * 1024);
  WriteRuleFile(Rule("keep", {"old"}));
  WriteRuleFile(Rule("drop"));
  const std::string keep_before = FileOf("keep");
  AecRulesPolicy policy;
  std::vector<std::string> many;
  for (int i = 0; i < 300; ++i) many.push_back("user" + std::to_string(i));
  policy.SetValue(Value({Rule("keep", many)}));
  ASSERT_TRUE(policy.IsChanged());
  small.Fill();
  EXPECT_THROW(policy.Apply(), pt::json_parser_error);
  EXPECT_EQ(RuleFiles(), (Files{"drop.conf", "keep.conf"}));
  EXPECT_EQ(FileOf("keep"), keep_before);
  EXPECT_TRUE(policy.IsChanged());
  EXPECT_EQ(Reloads(), 0u);
}

TEST_F(AecRulesPolicyTest, AReadOnlyDirectoryFailsApplyAndKeepsEveryRuleFile) {
  WriteRuleFile(Rule("keep", {"old"}));
  WriteRuleFile(Rule("drop"));
  const std::string keep_before = FileOf("keep");
  AecRulesPolicy policy;
  policy.SetValue(Value({Rule("keep", {"new"})}));
  rulestest::ReadOnlyConfigDir read_only;
  EXPECT_THROW(policy.Apply(), pt::json_parser_error);
  EXPECT_EQ(RuleFiles(), (Files{"drop.conf", "keep.conf"}));
  EXPECT_EQ(FileOf("keep"), keep_before);
}
