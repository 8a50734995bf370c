// LocalPolicy and KernelPolicy: values, sources, documents, and what a
// kernel policy reads and applies at start.
#include "host/policy.h"

#include <gtest/gtest.h>

#include <boost/property_tree/ptree.hpp>
#include <memory>
#include <stdexcept>
#include <string>

#include "host/db.h"
#include "host/policy_manager.h"
#include "host/request_getters.h"
#include "kxtest.h"
#include "lib/xml_document.h"
#include "test_policies.h"

namespace {

namespace pt = boost::property_tree;
using hostpolicytest::Journal;
using hostpolicytest::QueryOne;
using hostpolicytest::RecordingKernelPolicy;
using hostpolicytest::RecordingLocalPolicy;
using hostpolicytest::RecordingManager;

// A local policy with nothing overridden, to see the base alone.
class PlainLocalPolicy : public LocalPolicy {
 public:
  PlainLocalPolicy() : LocalPolicy("plain", "string", "Plain policy") {}
};

// Counts ResetSource calls, to show that ResetSourceByName never makes one.
class ResetCountingPolicy : public LocalPolicy {
 public:
  ResetCountingPolicy() : LocalPolicy("counting", "string", "") {}
  void ResetSource() override {
    ++resets_;
    LocalPolicy::ResetSource();
  }
  int resets_ = 0;
};

TEST(LocalPolicyTest, StartsLocalEmptyAndUnchanged) {
  PlainLocalPolicy policy;
  EXPECT_EQ(policy.Source(), "local");
  EXPECT_EQ(policy.Value(), "");
  EXPECT_EQ(policy.DefaultValue(), "");
  EXPECT_EQ(policy.Type(), "string");
  EXPECT_EQ(policy.ValueNodeName(), "value");
  EXPECT_EQ(policy.Name(), "plain");
  EXPECT_EQ(policy.Description(), "Plain policy");
  EXPECT_TRUE(policy.ValueDescriptions().empty());
  EXPECT_FALSE(policy.IsChanged());
}

TEST(LocalPolicyTest, DifferentValueRaisesChangedSameValueDoesNot) {
  PlainLocalPolicy policy;
  policy.SetValue("a");
  EXPECT_TRUE(policy.IsChanged());
  EXPECT_EQ(policy.Value(), "a");
  EXPECT_TRUE(policy.Apply());
  EXPECT_FALSE(policy.IsChanged());
  policy.SetValue("a");
  EXPECT_FALSE(policy.IsChanged());
}

TEST(LocalPolicyTest, TreeValueStoresTheTreesOwnText) {
  PlainLocalPolicy policy;
  pt::ptree tree("from tree");
  tree.add("child", "ignored");
  policy.SetValue(tree);
  EXPECT_EQ(policy.Value(), "from tree");
  EXPECT_TRUE(policy.IsChanged());
}

TEST(LocalPolicyTest, ResetSourceReturnsToLocalKeepingValueAndFlag) {
  PlainLocalPolicy policy;
  policy.SetValue("v");
  policy.SetSource("dorvi");
  policy.ResetSource();
  EXPECT_EQ(policy.Source(), "local");
  EXPECT_EQ(policy.Value(), "v");
  EXPECT_TRUE(policy.IsChanged());
}

TEST(LocalPolicyTest, ResetSourceByNameActsOnlyForTheControllingSource) {
  PlainLocalPolicy policy;
  policy.SetSource("dorvi");
  policy.ResetSourceByName("yunko");
  EXPECT_EQ(policy.Source(), "dorvi");
  policy.ResetSourceByName("dorvi");
  EXPECT_EQ(policy.Source(), "local");
}

TEST(LocalPolicyTest, ResetSourceByNameNeverCallsTheVirtualResetSource) {
  ResetCountingPolicy policy;
  policy.SetSource("dorvi");
  policy.ResetSourceByName("dorvi");
  EXPECT_EQ(policy.Source(), "local");
  EXPECT_EQ(policy.resets_, 0);
}

TEST(LocalPolicyTest, InitDoesNothing) {
  PlainLocalPolicy policy;
  policy.SetValue("kept");
  policy.Init();
  EXPECT_EQ(policy.Value(), "kept");
  EXPECT_TRUE(policy.IsChanged());
}

TEST(LocalPolicyTest, GetXmlCarriesAttributesValueDefaultAndDescriptions) {
  PlainLocalPolicy policy;
  policy.SetValue("v1");
  policy.SetSource("yunko");
  const auto doc = policy.GetXml();
  const pt::ptree& tree = kxhost::TreeOf(*doc);
  EXPECT_EQ(tree.get<std::string>("<xmlattr>.name"), "plain");
  EXPECT_EQ(tree.get<std::string>("<xmlattr>.type"), "string");
  EXPECT_EQ(tree.get<std::string>("<xmlattr>.source"), "yunko");
  EXPECT_EQ(tree.get<std::string>("description"), "Plain policy");
  EXPECT_EQ(tree.get<std::string>("value"), "v1");
  EXPECT_EQ(tree.get<std::string>("default"), "");
  EXPECT_EQ(tree.count("value_description"), 0u);
}

class KernelPolicyTest : public kxtest::SandboxTest {
 protected:
  std::shared_ptr<RecordingKernelPolicy> Make(const std::string& name,
                                              const std::string& text) {
    return std::make_shared<RecordingKernelPolicy>(
        manager_, name, text, control_, &journal_, "test_" + name);
  }
  void StoreRow(const std::string& key, const std::string& value) {
    ASSERT_NE(QueryOne("INSERT INTO control_plugin_conf VALUES('" + key +
                       "', " + value + ")"),
              "<failed>");
  }

  RecordingManager manager_;
  std::shared_ptr<ControlPolicyDbRequestGetter> control_ =
      std::make_shared<ControlPolicyDbRequestGetter>();
  Journal journal_;
};

TEST_F(KernelPolicyTest, IsAnEnumCarriedInTheTypeNode) {
  auto policy = Make("p", "0");
  EXPECT_EQ(policy->Type(), "enum");
  EXPECT_EQ(policy->ValueNodeName(), "type");
  EXPECT_EQ(policy->Source(), "local");
}

TEST_F(KernelPolicyTest, LogIdAndPluginComeFromTheManager) {
  auto policy = Make("p", "0");
  EXPECT_EQ(policy->LogId(), 32);
  EXPECT_EQ(policy->Plugin(), "aec");
}

TEST_F(KernelPolicyTest, DefaultIsTheConstructorTextElseTheGettersMissingRow) {
  EXPECT_EQ(Make("p", "1")->DefaultValue(), "1");
  auto log_getter = std::make_shared<AecLogPolicyDbRequestGetter>();
  RecordingKernelPolicy exec(manager_, "log_perm_exec", "", log_getter,
                             nullptr);
  RecordingKernelPolicy openfile(manager_, "log_perm_openfile", "", log_getter,
                                 nullptr);
  EXPECT_EQ(exec.DefaultValue(), "1");
  EXPECT_EQ(openfile.DefaultValue(), "0");
}

TEST_F(KernelPolicyTest, DbPolicyNameDefaultsToTheName) {
  class NamedOnly : public KernelPolicy {
   public:
    explicit NamedOnly(const KernelPolicyManager& m) : KernelPolicy(m, "0") {}
    std::string Name() const override { return "only_name"; }
    std::string Description() const override { return ""; }
    std::map<std::string, std::string> ValueDescriptions() const override {
      return {};
    }
    std::shared_ptr<PolicyDbRequestGetter> RequestGetter() const override {
      return nullptr;
    }
    void ApplyKernelValue(int) override {}
  };
  NamedOnly policy(manager_);
  EXPECT_EQ(policy.DbPolicyName(), "only_name");
}

TEST_F(KernelPolicyTest, InitReadsTheStoredRowAndAppliesIt) {
  StoreRow("test_p", "1");
  auto policy = Make("p", "0");
  policy->Init();
  EXPECT_EQ(policy->Value(), "1");
  EXPECT_FALSE(policy->IsChanged());
  ASSERT_EQ(policy->applied_.size(), 1u);
  EXPECT_EQ(policy->applied_[0], 1);
}

TEST_F(KernelPolicyTest, InitWithoutARowAppliesTheDefault) {
  auto policy = Make("p", "1");
  policy->Init();
  EXPECT_EQ(policy->Value(), "1");
  ASSERT_EQ(policy->applied_.size(), 1u);
  EXPECT_EQ(policy->applied_[0], 1);
}

TEST_F(KernelPolicyTest, InitWithoutTheTableAppliesTheDefault) {
  // The audit table exists only once the plug-in or a save made it.
  auto policy = std::make_shared<RecordingKernelPolicy>(
      manager_, "log_deny_openlib", "",
      std::make_shared<AecLogPolicyDbRequestGetter>(), nullptr);
  ASSERT_EQ(QueryOne("SELECT fiValue FROM conf.aec_log_conf"), "<failed>");
  policy->Init();
  EXPECT_EQ(policy->Value(), "1");
  EXPECT_EQ(policy->applied_, std::vector<int>{1});
}

TEST_F(KernelPolicyTest, InitRestoresTheStoredSourceWithoutSetSource) {
  ASSERT_NE(QueryOne("INSERT INTO conf.kxhost_policy_source VALUES('aec', "
                     "'p', 'dorvi')"),
            "<failed>");
  auto policy = Make("p", "0");
  policy->Init();
  EXPECT_EQ(policy->Source(), "dorvi");
}

TEST_F(KernelPolicyTest, InitPassesAnApplicationFailureToTheCaller) {
  auto policy = Make("p", "1");
  policy->throw_on_apply_ = true;
  EXPECT_THROW(policy->Init(), std::runtime_error);
}

TEST_F(KernelPolicyTest, AFallbackDuringInitLeavesTheChangeToBeStored) {
  StoreRow("test_p", "1");
  auto policy = Make("p", "0");
  policy->fall_back_from_ = 1;
  policy->Init();
  EXPECT_EQ(policy->Value(), "0");
  EXPECT_TRUE(policy->IsChanged());
}

TEST_F(KernelPolicyTest, ApplyPushesTheIntegerAndLowersTheFlag) {
  auto policy = Make("p", "0");
  policy->SetValue("1");
  EXPECT_TRUE(policy->IsChanged());
  EXPECT_TRUE(policy->Apply());
  EXPECT_FALSE(policy->IsChanged());
  EXPECT_EQ(policy->applied_, std::vector<int>{1});
}

TEST_F(KernelPolicyTest, AValueThePolicyDoesNotDescribeIsRefused) {
  // Before, such a text reached the kernel as 0: "on" or "true" from central
  // management switched control off without a word.
  auto policy = Make("p", "0");
  policy->SetValue("1");
  policy->Apply();
  for (const char* text :
       {"abc", "1x", "", " 1", "1 ", "2", "-1", "99999999999", "true"}) {
    EXPECT_THROW(policy->SetValue(text), std::invalid_argument) << text;
    EXPECT_EQ(policy->Value(), "1") << text;
    EXPECT_FALSE(policy->IsChanged()) << text;
  }
  policy->SetValue("0");
  EXPECT_TRUE(policy->IsChanged());
  policy->Apply();
  EXPECT_EQ(policy->applied_, (std::vector<int>{1, 0}));
}

TEST_F(KernelPolicyTest, AThrowingApplicationKeepsTheChangePending) {
  auto policy = Make("p", "0");
  policy->SetValue("1");
  policy->throw_on_apply_ = true;
  EXPECT_THROW(policy->Apply(), std::runtime_error);
  EXPECT_TRUE(policy->IsChanged());
}

TEST_F(KernelPolicyTest, TreeValueTakesTheTreesText) {
  auto policy = Make("p", "0");
  policy->SetValue(pt::ptree("1"));
  EXPECT_EQ(policy->Value(), "1");
  EXPECT_TRUE(policy->IsChanged());
}

TEST_F(KernelPolicyTest, ResetSourceReturnsToLocalAndTheDefault) {
  auto policy = Make("p", "0");
  policy->Init();
  policy->SetValue("1");
  policy->SetSource("dorvi");
  policy->Apply();
  policy->ResetSource();
  EXPECT_EQ(policy->Source(), "local");
  EXPECT_EQ(policy->Value(), "0");
  EXPECT_TRUE(policy->IsChanged());
}

TEST_F(KernelPolicyTest, ResetSourceByNameOfAnotherSourceChangesNothing) {
  auto policy = Make("p", "0");
  policy->Init();
  policy->SetValue("1");
  policy->SetSource("dorvi");
  policy->Apply();
  policy->ResetSourceByName("yunko");
  EXPECT_EQ(policy->Source(), "dorvi");
  EXPECT_EQ(policy->Value(), "1");
  EXPECT_FALSE(policy->IsChanged());
  policy->ResetSourceByName("dorvi");
  EXPECT_EQ(policy->Source(), "local");
  EXPECT_EQ(policy->Value(), "0");
}

TEST_F(KernelPolicyTest, GetXmlCarriesTheValueInTypeAndTheDescriptions) {
  auto policy = Make("p", "0");
  policy->SetValue("1");
  const auto doc = policy->GetXml();
  const pt::ptree& tree = kxhost::TreeOf(*doc);
  EXPECT_EQ(tree.get<std::string>("<xmlattr>.type"), "enum");
  EXPECT_EQ(tree.get<std::string>("type"), "1");
  EXPECT_EQ(tree.get<std::string>("default"), "0");
  ASSERT_EQ(tree.count("value_description"), 2u);
  auto range = tree.equal_range("value_description");
  auto first = range.first;
  EXPECT_EQ(first->second.get<std::string>("<xmlattr>.value"), "0");
  EXPECT_EQ(first->second.data(), "Disabled");
  ++first;
  EXPECT_EQ(first->second.get<std::string>("<xmlattr>.value"), "1");
  EXPECT_EQ(first->second.data(), "Enabled");
}

}  // namespace
