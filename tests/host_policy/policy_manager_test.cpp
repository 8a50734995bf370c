// PolicyManager: setting from documents, filtering, applying, storing.
#include "host/policy_manager.h"

#include <gtest/gtest.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "host/request_getters.h"
#include "kxtest.h"
#include "lib/runtime.h"
#include "lib/xml_document.h"
#include "test_policies.h"

namespace {

namespace pt = boost::property_tree;
using hostpolicytest::Journal;
using hostpolicytest::QueryOne;
using hostpolicytest::RecordingKernelPolicy;
using hostpolicytest::RecordingLocalPolicy;
using hostpolicytest::RecordingManager;

parsed_json_data_t Json(const std::string& text) {
  parsed_json_data_t data;
  std::istringstream in(text);
  pt::read_json(in, data.tree);
  data.text = text;
  return data;
}

class PolicyManagerTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override {
    state_ = std::make_shared<RecordingKernelPolicy>(
        manager_, "state", "0", control_, &journal_, "aec_state");
    mode_ = std::make_shared<RecordingKernelPolicy>(
        manager_, "mode", "0", control_, &journal_, "aec_mode");
    audit_ = std::make_shared<RecordingKernelPolicy>(
        manager_, "log_perm_exec", "", log_getter_, &journal_);
    list_ = std::make_shared<RecordingLocalPolicy>("exceptions", &journal_);
    text_ = std::make_shared<RecordingLocalPolicy>("whitelist", &journal_);
    manager_.AddPolicy(state_);
    manager_.AddPolicy(mode_);
    manager_.AddPolicy(audit_);
    manager_.AddPolicy(list_);
    manager_.AddPolicy(text_);
    journal_.clear();
  }

  bool SetXml(const std::string& text) {
    return manager_.SetPoliciesXml(kxhost::ParseXml(text));
  }

  RecordingManager manager_;
  std::shared_ptr<ControlPolicyDbRequestGetter> control_ =
      std::make_shared<ControlPolicyDbRequestGetter>();
  std::shared_ptr<AecLogPolicyDbRequestGetter> log_getter_ =
      std::make_shared<AecLogPolicyDbRequestGetter>();
  Journal journal_;
  std::shared_ptr<RecordingKernelPolicy> state_, mode_, audit_;
  std::shared_ptr<RecordingLocalPolicy> list_, text_;
};

TEST_F(PolicyManagerTest, AddPolicyKeepsOrderAndInitsEachOnce) {
  Journal journal;
  RecordingManager manager;
  manager.AddPolicy(std::make_shared<RecordingLocalPolicy>("a", &journal));
  manager.AddPolicy(std::make_shared<RecordingLocalPolicy>("b", &journal));
  EXPECT_EQ(journal, (Journal{"a:Init", "b:Init"}));
  ASSERT_EQ(manager.Policies().size(), 2u);
  EXPECT_EQ(manager.Policies()[1]->Name(), "b");
  EXPECT_EQ(manager.GetPolicy("a"), manager.Policies()[0]);
  EXPECT_EQ(manager.GetPolicy("nope"), nullptr);
}

TEST_F(PolicyManagerTest, KernelPoliciesApplyTheirValueWhenAdded) {
  EXPECT_EQ(state_->applied_, std::vector<int>{0});
  EXPECT_EQ(audit_->applied_, std::vector<int>{1});
  EXPECT_FALSE(manager_.IsChanged());
}

TEST_F(PolicyManagerTest, ManagerKeepsItsConstructorArguments) {
  EXPECT_EQ(manager_.Plugin(), "aec");
  EXPECT_EQ(manager_.Group(), "aec");
  EXPECT_EQ(manager_.Description(), "Test manager");
  EXPECT_EQ(manager_.LogId(), 32);
}

TEST_F(PolicyManagerTest, FilterParamsIsConsultedForEveryXmlParameter) {
  ASSERT_TRUE(
      SetXml("<policies>"
             "<policy group=\"aec\" name=\"state\" "
             "source=\"dorvi\"><type>1</type></policy>"
             "<policy group=\"other\" name=\"x\"><value>v</value></policy>"
             "<policy name=\"exceptions\"><value><r>/a</r></value></policy>"
             "</policies>"));
  ASSERT_EQ(manager_.filtered_.size(), 3u);
  EXPECT_EQ(manager_.filtered_[0].group, "aec");
  EXPECT_EQ(manager_.filtered_[0].name, "state");
  EXPECT_EQ(manager_.filtered_[0].source, "dorvi");
  EXPECT_EQ(manager_.filtered_[0].value, "1");
  EXPECT_EQ(manager_.filtered_[1].group, "other");
  EXPECT_EQ(manager_.filtered_[1].value, "v");
  EXPECT_EQ(manager_.filtered_[2].group, "aec");  // absent: the manager's
  EXPECT_EQ(manager_.filtered_[2].source, "local");
  EXPECT_EQ(manager_.filtered_[2].value, "");  // a tree's own text
}

TEST_F(PolicyManagerTest, FilterParamsIsConsultedForEveryJsonParameter) {
  ASSERT_TRUE(manager_.SetPoliciesJson(Json(R"({"policies": [
          {"group": "aec", "name": "mode", "source": "yunko", "value": "1"},
          {"group": "else", "name": "y", "value": "2"}]})"),
                                       nullptr));
  ASSERT_EQ(manager_.filtered_.size(), 2u);
  EXPECT_EQ(manager_.filtered_[0].name, "mode");
  EXPECT_EQ(manager_.filtered_[0].source, "yunko");
  EXPECT_EQ(manager_.filtered_[1].group, "else");
  EXPECT_EQ(manager_.filtered_[1].value, "2");
  EXPECT_EQ(mode_->Value(), "1");
  EXPECT_EQ(mode_->Source(), "yunko");
}

TEST_F(PolicyManagerTest, FilteredGroupMustBeTheManagersOrTheEntryIsIgnored) {
  ASSERT_TRUE(SetXml(
      "<policies><policy group=\"other\" name=\"state\"><type>1</type></policy>"
      "</policies>"));
  EXPECT_EQ(state_->Value(), "0");
  EXPECT_TRUE(journal_.empty());
}

TEST_F(PolicyManagerTest, FilterMayRenameAnOldGroupsParameter) {
  manager_.renames_["old_state"] = "state";
  ASSERT_TRUE(SetXml(
      "<policies><policy group=\"legacy\" name=\"old_state\"><type>1</type>"
      "</policy></policies>"));
  EXPECT_EQ(state_->Value(), "1");
}

TEST_F(PolicyManagerTest, FilterReturningFalseDropsTheParameter) {
  manager_.drop_name_ = "state";
  ASSERT_TRUE(
      SetXml("<policies><policy name=\"state\"><type>1</type></policy>"
             "<policy name=\"mode\"><type>1</type></policy></policies>"));
  EXPECT_EQ(state_->Value(), "0");
  EXPECT_EQ(mode_->Value(), "1");
}

TEST_F(PolicyManagerTest, FilterRewritingATreeValueSetsTheText) {
  manager_.rewrites_["exceptions"] = "flat";
  ASSERT_TRUE(SetXml(
      "<policies><policy name=\"exceptions\"><value><r>/a</r></value></policy>"
      "</policies>"));
  EXPECT_TRUE(list_->trees_.empty());
  EXPECT_EQ(list_->texts_, std::vector<std::string>{"flat"});
}

TEST_F(PolicyManagerTest, ValueIsSetBeforeTheSource) {
  ASSERT_TRUE(
      SetXml("<policies><policy name=\"whitelist\" source=\"dorvi\">"
             "<value>*S-1-5-21-1</value></policy></policies>"));
  EXPECT_EQ(journal_, (Journal{"whitelist:SetValue(text) *S-1-5-21-1",
                               "whitelist:SetSource dorvi"}));
}

TEST_F(PolicyManagerTest, ElementValuesGoOverAsTreesTextAsText) {
  ASSERT_TRUE(SetXml(
      "<policies>"
      "<policy name=\"exceptions\"><value a=\"x\"><r>/b</r><r>/a</r></value>"
      "</policy>"
      "<policy name=\"whitelist\"><value>  *S-1,*S-2 </value></policy>"
      "</policies>"));
  ASSERT_EQ(list_->trees_.size(), 1u);
  const pt::ptree& tree = list_->trees_[0];
  ASSERT_EQ(tree.size(), 2u);  // the attribute is not a child
  EXPECT_EQ(tree.begin()->first, "r");
  EXPECT_EQ(tree.begin()->second.data(), "/b");
  EXPECT_EQ(text_->texts_, std::vector<std::string>{"*S-1,*S-2"});
}

TEST_F(PolicyManagerTest, AnEmptyValueElementIsAnEmptyTree) {
  ASSERT_TRUE(SetXml(
      "<policies><policy name=\"exceptions\"><value/></policy></policies>"));
  ASSERT_EQ(list_->trees_.size(), 1u);
  EXPECT_TRUE(list_->trees_[0].empty());
  EXPECT_TRUE(list_->texts_.empty());
}

TEST_F(PolicyManagerTest, JsonArraysAndObjectsAreTreesStringsAreText) {
  ASSERT_TRUE(manager_.SetPoliciesJson(Json(R"({"policies": [
          {"name": "exceptions", "value": ["/a", "/b"]},
          {"name": "whitelist", "value": {"k": "v"}},
          {"name": "state", "value": "1"},
          {"name": "mode", "value": 1}]})"),
                                       nullptr));
  ASSERT_EQ(list_->trees_.size(), 1u);
  EXPECT_EQ(list_->trees_[0].size(), 2u);
  EXPECT_EQ(list_->trees_[0].begin()->first, "");
  ASSERT_EQ(text_->trees_.size(), 1u);
  EXPECT_EQ(text_->trees_[0].get<std::string>("k"), "v");
  EXPECT_EQ(state_->Value(), "1");
  EXPECT_EQ(mode_->Value(), "1");
}

TEST_F(PolicyManagerTest, AnEmptyJsonValueIsAnEmptyTree) {
  ASSERT_TRUE(manager_.SetPoliciesJson(
      Json(R"({"policies": [{"name": "exceptions", "value": []},
                            {"name": "whitelist", "value": ""}]})"),
      nullptr));
  ASSERT_EQ(list_->trees_.size(), 1u);
  EXPECT_TRUE(list_->trees_[0].empty());
  ASSERT_EQ(text_->trees_.size(), 1u);
  EXPECT_TRUE(text_->texts_.empty());
}

TEST_F(PolicyManagerTest, UnknownPolicyFailsTheCallButOthersAreSet) {
  auto result = XMLParserBoost::CreateEmptyXML();
  EXPECT_FALSE(manager_.SetPoliciesJson(
      Json(R"({"policies": [{"name": "nope", "value": "1"},
                            {"name": "state", "value": "1"}]})"),
      result));
  EXPECT_EQ(state_->Value(), "1");
  EXPECT_TRUE(log_.Contains("unknown policy 'nope'"));
  const pt::ptree& tree = kxhost::TreeOf(*result);
  ASSERT_EQ(tree.count("policy"), 2u);
  auto it = tree.begin();
  EXPECT_EQ(it->second.get<std::string>("<xmlattr>.name"), "nope");
  EXPECT_EQ(it->second.get<std::string>("<xmlattr>.result"), "0");
  ++it;
  EXPECT_EQ(it->second.get<std::string>("<xmlattr>.name"), "state");
  EXPECT_EQ(it->second.get<std::string>("<xmlattr>.result"), "1");
}

TEST_F(PolicyManagerTest, UnknownPolicyInXmlFailsTheCallButOthersAreSet) {
  EXPECT_FALSE(
      SetXml("<policies><policy name=\"nope\"><value>1</value></policy>"
             "<policy name=\"mode\"><type>1</type></policy></policies>"));
  EXPECT_EQ(mode_->Value(), "1");
}

TEST_F(PolicyManagerTest, RejectedValueFailsTheCallAndKeepsTheSource) {
  text_->reject_ = true;
  EXPECT_FALSE(SetXml(
      "<policies><policy name=\"whitelist\" source=\"dorvi\"><value>x</value>"
      "</policy><policy name=\"state\"><type>1</type></policy></policies>"));
  EXPECT_EQ(text_->Source(), "local");
  EXPECT_EQ(state_->Value(), "1");
  EXPECT_TRUE(log_.Contains("policy 'whitelist' rejected its value"));
}

TEST_F(PolicyManagerTest, MalformedXmlDocumentsTouchNoPolicy) {
  const char* documents[] = {
      // not a policies document
      "<request command=\"get\"><policy name=\"state\"><type>1</type></policy>"
      "</request>",
      // a valid entry first, then one without a name
      "<policies><policy name=\"state\"><type>1</type></policy>"
      "<policy><type>1</type></policy></policies>",
      // an entry without a value
      "<policies><policy name=\"state\"><type>1</type></policy>"
      "<policy name=\"mode\"/></policies>",
  };
  for (const char* text : documents) {
    SCOPED_TRACE(text);
    manager_.filtered_.clear();
    EXPECT_FALSE(SetXml(text));
    EXPECT_EQ(state_->Value(), "0");
    EXPECT_TRUE(manager_.filtered_.empty());
    EXPECT_TRUE(journal_.empty());
  }
  EXPECT_FALSE(manager_.SetPoliciesXml(nullptr));
}

TEST_F(PolicyManagerTest, MalformedJsonDocumentsTouchNoPolicy) {
  const char* documents[] = {
      R"({"other": []})",
      R"({"policies": "state"})",
      R"({"policies": {"name": "state", "value": "1"}})",
      R"({"policies": [{"name": "state", "value": "1"}, "mode"]})",
      R"({"policies": [{"name": "state", "value": "1"}, {"value": "1"}]})",
      R"({"policies": [{"name": "state", "value": "1"}, {"name": "mode"}]})",
  };
  for (const char* text : documents) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(manager_.SetPoliciesJson(Json(text), nullptr));
    EXPECT_EQ(state_->Value(), "0");
    EXPECT_TRUE(manager_.filtered_.empty());
  }
}

TEST_F(PolicyManagerTest, AnEmptyPoliciesListSetsNothingAndSucceeds) {
  EXPECT_TRUE(manager_.SetPoliciesJson(Json(R"({"policies": []})"), nullptr));
  EXPECT_TRUE(SetXml("<policies/>"));
  EXPECT_FALSE(manager_.IsChanged());
}

TEST_F(PolicyManagerTest, IsChangedWhenAnyPolicyChanged) {
  EXPECT_FALSE(manager_.IsChanged());
  list_->MarkChanged();
  EXPECT_TRUE(manager_.IsChanged());
}

TEST_F(PolicyManagerTest, PoliciesApplyInAddPolicyOrderOnlyWhenChanged) {
  text_->SetValue("w");
  list_->MarkChanged();
  state_->SetValue("1");
  journal_.clear();
  manager_.ApplyPolicies();
  EXPECT_EQ(journal_, (Journal{"state:ApplyKernelValue 1", "exceptions:Apply",
                               "whitelist:Apply"}));
  EXPECT_FALSE(manager_.IsChanged());
  journal_.clear();
  manager_.ApplyPolicies();
  EXPECT_TRUE(journal_.empty());
}

TEST_F(PolicyManagerTest, AThrowingApplyIsLoggedAndTheOthersStillRun) {
  list_->MarkChanged();
  list_->throw_on_apply_ = true;
  text_->SetValue("w");
  manager_.ApplyPolicies();
  EXPECT_TRUE(log_.Contains("policy 'exceptions' failed to apply"));
  EXPECT_FALSE(text_->IsChanged());
  EXPECT_TRUE(list_->IsChanged());
}

TEST_F(PolicyManagerTest, ResetSourceResetsEveryPolicyThenApplies) {
  state_->SetValue("1");
  state_->SetSource("dorvi");
  text_->SetSource("dorvi");
  manager_.ApplyPolicies();
  journal_.clear();
  manager_.ResetSource();
  EXPECT_EQ(state_->Source(), "local");
  EXPECT_EQ(state_->Value(), "0");
  EXPECT_EQ(text_->Source(), "local");
  EXPECT_EQ(state_->applied_.back(), 0);
  EXPECT_FALSE(manager_.IsChanged());
}

TEST_F(PolicyManagerTest, ResetSourceByNameResetsOnlyThatSourcesPolicies) {
  state_->SetValue("1");
  state_->SetSource("dorvi");
  mode_->SetValue("1");
  mode_->SetSource("yunko");
  manager_.ApplyPolicies();
  manager_.ResetSourceByName("dorvi");
  EXPECT_EQ(state_->Source(), "local");
  EXPECT_EQ(state_->Value(), "0");
  EXPECT_EQ(mode_->Source(), "yunko");
  EXPECT_EQ(mode_->Value(), "1");
  EXPECT_EQ(state_->applied_.back(), 0);
}

TEST_F(PolicyManagerTest, ResetPolicySourceResetsTheOneNamedPolicy) {
  state_->SetSource("dorvi");
  mode_->SetSource("dorvi");
  manager_.ResetPolicySource("state");
  EXPECT_EQ(state_->Source(), "local");
  EXPECT_EQ(mode_->Source(), "dorvi");
}

TEST_F(PolicyManagerTest, SetValueToPolicySetsValueThenSource) {
  EXPECT_TRUE(
      manager_.SetValueToPolicy<std::string>("whitelist", "dorvi", "x"));
  EXPECT_EQ(journal_, (Journal{"whitelist:SetValue(text) x",
                               "whitelist:SetSource dorvi"}));
  EXPECT_FALSE(manager_.SetValueToPolicy<std::string>("nope", "dorvi", "x"));
  text_->reject_ = true;
  EXPECT_FALSE(
      manager_.SetValueToPolicy<std::string>("whitelist", "yunko", "y"));
  EXPECT_EQ(text_->Source(), "dorvi");
}

TEST_F(PolicyManagerTest, GetPoliciesXmlListsEveryPolicyWithItsGroup) {
  auto xml = XMLParserBoost::CreateEmptyXML();
  ASSERT_TRUE(manager_.GetPoliciesXml(xml));
  const pt::ptree& tree = kxhost::TreeOf(*xml);
  std::vector<std::string> names;
  for (const auto& child : tree) {
    ASSERT_EQ(child.first, "policy");
    EXPECT_EQ(child.second.get<std::string>("<xmlattr>.group"), "aec");
    names.push_back(child.second.get<std::string>("<xmlattr>.name"));
  }
  EXPECT_EQ(names, (std::vector<std::string>{"state", "mode", "log_perm_exec",
                                             "exceptions", "whitelist"}));
}

TEST_F(PolicyManagerTest, ExportedJsonImportsBackToTheSameValues) {
  state_->SetValue("1");
  state_->SetSource("dorvi");
  text_->SetValue("a \"quoted\"\\ text\n");
  auto xml = XMLParserBoost::CreateEmptyXML();
  const std::string json = manager_.GetPoliciesJson(xml);
  EXPECT_EQ(kxhost::TreeOf(*xml).count("policy"), 5u);

  Journal journal;
  RecordingManager other;
  auto state = std::make_shared<RecordingKernelPolicy>(
      other, "state", "0", control_, &journal, "aec_state");
  auto text = std::make_shared<RecordingLocalPolicy>("whitelist", &journal);
  other.AddPolicy(state);
  other.AddPolicy(text);
  // The other policies of the export are unknown there; these two are set.
  EXPECT_FALSE(other.SetPoliciesJson(Json(json), nullptr));
  EXPECT_EQ(state->Value(), "1");
  EXPECT_EQ(state->Source(), "dorvi");
  EXPECT_EQ(text->Value(), "a \"quoted\"\\ text\n");
}

TEST_F(PolicyManagerTest, ValuesAndSourcesSurviveARestart) {
  ASSERT_TRUE(SetXml(
      "<policies>"
      "<policy name=\"state\" source=\"dorvi\"><type>1</type></policy>"
      "<policy name=\"mode\" source=\"yunko\"><type>1</type></policy>"
      "<policy name=\"log_perm_exec\" source=\"dorvi\"><type>0</type></policy>"
      "<policy name=\"whitelist\" source=\"dorvi\"><value>w</value></policy>"
      "</policies>"));
  manager_.ApplyPolicies();

  kxhost::ResetState();
  Journal journal;
  RecordingManager restarted;
  auto state = std::make_shared<RecordingKernelPolicy>(
      restarted, "state", "0", control_, &journal, "aec_state");
  auto mode = std::make_shared<RecordingKernelPolicy>(
      restarted, "mode", "0", control_, &journal, "aec_mode");
  auto log = std::make_shared<RecordingKernelPolicy>(restarted, "log_perm_exec",
                                                     "", log_getter_, &journal);
  restarted.AddPolicy(state);
  restarted.AddPolicy(mode);
  restarted.AddPolicy(log);
  EXPECT_EQ(state->Value(), "1");
  EXPECT_EQ(state->Source(), "dorvi");
  EXPECT_EQ(mode->Value(), "1");
  EXPECT_EQ(mode->Source(), "yunko");
  EXPECT_EQ(log->Value(), "0");
  EXPECT_EQ(log->Source(), "dorvi");
  EXPECT_EQ(journal,
            (Journal{"state:ApplyKernelValue 1", "mode:ApplyKernelValue 1",
                     "log_perm_exec:ApplyKernelValue 0"}));
  EXPECT_EQ(QueryOne("SELECT source FROM conf.kxhost_policy_source WHERE "
                     "plugin='aec' AND policy='whitelist'"),
            "dorvi");
}

TEST_F(PolicyManagerTest, StoredValuesAreIntegersInOneRowPerPolicy) {
  state_->SetValue("1");
  manager_.ApplyPolicies();
  manager_.ApplyPolicies();
  EXPECT_EQ(QueryOne("SELECT typeof(fiValue) FROM control_plugin_conf WHERE "
                     "fsPolicy='aec_state'"),
            "integer");
  EXPECT_EQ(QueryOne("SELECT count(*) FROM control_plugin_conf WHERE "
                     "fsPolicy='aec_state'"),
            "1");
  EXPECT_EQ(QueryOne("SELECT count(*) FROM conf.kxhost_policy_source WHERE "
                     "plugin='aec' AND policy='state'"),
            "1");
}

TEST_F(PolicyManagerTest, ReadingAtStartMakesAMissingAuditTableEmpty) {
  // The policies' Init made it, so that the read finds no row instead of
  // failing; the value is then the installation default.
  EXPECT_EQ(QueryOne("SELECT count(*) FROM conf.aec_log_conf"), "0");
  EXPECT_EQ(audit_->Value(), "1");
}

TEST_F(PolicyManagerTest, SavingMakesAMissingAuditTable) {
  ASSERT_NE(QueryOne("DROP TABLE conf.aec_log_conf"), "<failed>");
  audit_->SetValue("0");
  manager_.ApplyPolicies();
  EXPECT_EQ(QueryOne("SELECT fiValue FROM conf.aec_log_conf WHERE "
                     "fsEvent='log_perm_exec'"),
            "0");
}

TEST_F(PolicyManagerTest, SourcesWithQuotesAreStoredAsTheyAre) {
  text_->SetSource("o'brien; DROP TABLE control_plugin_conf");
  manager_.ApplyPolicies();
  EXPECT_EQ(QueryOne("SELECT source FROM conf.kxhost_policy_source WHERE "
                     "policy='whitelist'"),
            "o'brien; DROP TABLE control_plugin_conf");
  EXPECT_NE(QueryOne("SELECT count(*) FROM control_plugin_conf"), "<failed>");
}

TEST_F(PolicyManagerTest, APolicyThatCannotBeStoredIsLoggedOthersAreStored) {
  // A table the value cannot go into: the key column does not exist.
  ASSERT_NE(QueryOne("DROP TABLE conf.aec_log_conf"), "<failed>");
  ASSERT_NE(QueryOne("CREATE TABLE conf.aec_log_conf (other TEXT)"),
            "<failed>");
  state_->SetValue("1");
  manager_.ApplyPolicies();
  EXPECT_TRUE(log_.Contains("cannot store policy 'log_perm_exec'"));
  EXPECT_EQ(QueryOne("SELECT fiValue FROM control_plugin_conf WHERE "
                     "fsPolicy='aec_state'"),
            "1");
  // Nothing of the failed policy was kept, not even its source.
  EXPECT_EQ(QueryOne("SELECT count(*) FROM conf.kxhost_policy_source WHERE "
                     "policy='log_perm_exec'"),
            "0");
}

}  // namespace
