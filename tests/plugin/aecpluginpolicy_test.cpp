// The policy set: its eleven policies in order, and the translation of the
// older single policy "aec_control" into state and mode.
#include <string>
#include <vector>

#include "aec_policies/aecpluginpolicy.h"
#include "plugin_test_util.h"

namespace {

using plugintest::EventsOfKind;
using plugintest::PoliciesDocument;
using plugintest::PolicyField;
using plugintest::QueryRows;
using Rows = std::vector<std::vector<std::string>>;

class PolicySetTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override {
    // Switching control on restarts the rule-control tool.
    kxtest::InstallFakeTool("kxaecctl", {});
    kxtest::InstallFakeTool("kxaide", {});
  }

  static Rows ControlRows() {
    return QueryRows(
        "SELECT fsPolicy, fiValue FROM control_plugin_conf "
        "WHERE fsPolicy IN ('aec_state', 'aec_mode') ORDER BY fsPolicy DESC");
  }

  static int Restarts() {
    int restarts = 0;
    for (const auto& call : kxtest::FakeToolCalls("kxaecctl")) {
      if (!call.empty() && call[0] == "restart") ++restarts;
    }
    return restarts;
  }
};

TEST_F(PolicySetTest, PluginPoliciesListsTheElevenPoliciesInOrder) {
  ASSERT_EQ(plugin_init(), 0);
  std::vector<std::string> names;
  std::vector<std::string> groups;
  for (const auto& policy : plugintest::PoliciesTree()) {
    if (policy.first != "policy") continue;
    names.push_back(policy.second.get<std::string>("<xmlattr>.name", ""));
    groups.push_back(policy.second.get<std::string>("<xmlattr>.group", ""));
  }
  EXPECT_EQ(names, (std::vector<std::string>{
                       "state", "mode", "log_perm_exec", "log_deny_exec",
                       "log_perm_openlib", "log_deny_openlib",
                       "log_perm_openfile", "log_deny_openfile", "whitelist",
                       "exceptions", "rules"}));
  EXPECT_EQ(groups, std::vector<std::string>(11, "aec"));
  EXPECT_TRUE(log_.Contains("[" + plugintest::CoreCode(7) +
                            "] aec: got request for policies list"));
}

TEST_F(PolicySetTest, PolicySetIsTheAecManager) {
  AecPluginPolicy policies;
  EXPECT_EQ(policies.Plugin(), "aec");
  EXPECT_EQ(policies.Group(), "aec");
  EXPECT_EQ(policies.Description(), "Application execution control");
  EXPECT_EQ(policies.LogId(), 32);
  ASSERT_EQ(policies.Policies().size(), 11u);
  EXPECT_EQ(policies.Policies().back()->Name(), "rules");
}

class OldControlDocumentTest
    : public PolicySetTest,
      public ::testing::WithParamInterface<const char*> {};

TEST_P(OldControlDocumentTest, OldModeTwoEndsWithControlOnInHardMode) {
  ASSERT_EQ(plugin_init(), 0);
  kxhost::ClearEvents();
  const std::string source = GetParam();
  ASSERT_TRUE(plugin_set_policies(PoliciesDocument(
      "<policies><policy group=\"aec_control\" name=\"mode\" source=\"" +
      source + "\"><type>2</type></policy></policies>")));

  EXPECT_EQ(PolicyField("state", "type"), "1");
  EXPECT_EQ(PolicyField("mode", "type"), "1");
  EXPECT_EQ(PolicyField("state", "@source"), source);
  EXPECT_EQ(PolicyField("mode", "@source"), source);
  // Hard mode switched on at run time starts a confirmation round and is
  // allowed: the kernel gets control on in hard mode.
  EXPECT_EQ(kxtest::ReadFile(plugintest::kEnvironmentFile), "3");
  EXPECT_GE(Restarts(), 1);
  EXPECT_EQ(ControlRows(), (Rows{{"aec_state", "1"}, {"aec_mode", "1"}}));
  EXPECT_EQ(EventsOfKind("update_clients").size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Sources, OldControlDocumentTest, ::testing::Values("dorvi", "local"),
    [](const ::testing::TestParamInfo<const char*>& param_info) {
      return std::string(param_info.param);
    });

TEST_F(PolicySetTest, OldModeOneEndsWithControlOnInSoftMode) {
  ASSERT_EQ(plugin_init(), 0);
  ASSERT_TRUE(plugin_set_policies(PoliciesDocument(
      "<policies><policy group=\"aec_control\" name=\"mode\" "
      "source=\"dorvi\"><type>1</type></policy></policies>")));
  EXPECT_EQ(PolicyField("state", "type"), "1");
  EXPECT_EQ(PolicyField("mode", "type"), "0");
  EXPECT_EQ(kxtest::ReadFile(plugintest::kEnvironmentFile), "1");
  EXPECT_EQ(ControlRows(), (Rows{{"aec_state", "1"}, {"aec_mode", "0"}}));
}

TEST_F(PolicySetTest, OldModeZeroSwitchesControlOff) {
  ASSERT_EQ(plugin_init(), 0);
  ASSERT_TRUE(plugin_set_policies(PoliciesDocument(
      "<policies><policy group=\"aec_control\" name=\"mode\" "
      "source=\"dorvi\"><type>1</type></policy></policies>")));
  ASSERT_EQ(kxtest::ReadFile(plugintest::kEnvironmentFile), "1");
  ASSERT_TRUE(plugin_set_policies(PoliciesDocument(
      "<policies><policy group=\"aec_control\" name=\"mode\" "
      "source=\"dorvi\"><type>0</type></policy></policies>")));
  EXPECT_EQ(PolicyField("state", "type"), "0");
  EXPECT_EQ(PolicyField("mode", "type"), "0");
  EXPECT_EQ(kxtest::ReadFile(plugintest::kEnvironmentFile), "0");
  EXPECT_EQ(ControlRows(), (Rows{{"aec_state", "0"}, {"aec_mode", "0"}}));
}

// ------------------------------------------------------------ FilterParams

struct Parameter {
  std::string group, name, source, value;
  bool operator==(const Parameter& other) const {
    return group == other.group && name == other.name &&
           source == other.source && value == other.value;
  }
};

void PrintTo(const Parameter& p, std::ostream* out) {
  *out << "{" << p.group << ", " << p.name << ", " << p.source << ", "
       << p.value << "}";
}

class FilterParamsTest : public PolicySetTest {
 protected:
  // Runs the filter on a copy and returns what it left.
  Parameter Filter(Parameter parameter, bool* kept = nullptr) {
    const bool result = policies_.FilterParams(
        parameter.group, parameter.name, parameter.source, parameter.value);
    if (kept != nullptr) *kept = result;
    return parameter;
  }

  std::string StateValue() { return policies_.GetPolicy("state")->Value(); }
  std::string StateSource() { return policies_.GetPolicy("state")->Source(); }

  AecPluginPolicy policies_;
};

TEST_F(FilterParamsTest, ParametersOfOtherGroupsPassUntouched) {
  for (const Parameter& parameter :
       {Parameter{"aec", "mode", "dorvi", "2"},
        Parameter{"aec", "state", "local", "1"},
        Parameter{"network", "mode", "yunko", "2"},
        Parameter{"", "", "", ""},
        Parameter{"AEC_CONTROL", "mode", "dorvi", "2"}}) {
    bool kept = false;
    EXPECT_EQ(Filter(parameter, &kept), parameter);
    EXPECT_TRUE(kept);
  }
  EXPECT_EQ(StateValue(), "0");
  EXPECT_EQ(StateSource(), "local");
  EXPECT_FALSE(policies_.GetPolicy("state")->IsChanged());
}

TEST_F(FilterParamsTest, OldGroupWithAnotherNameIsOnlyRenamed) {
  for (const std::string name : {"state", "log_perm_exec", "Mode", ""}) {
    bool kept = false;
    EXPECT_EQ(Filter(Parameter{"aec_control", name, "dorvi", "2"}, &kept),
              (Parameter{"aec", name, "dorvi", "2"}));
    EXPECT_TRUE(kept);
  }
  EXPECT_EQ(StateValue(), "0");
  EXPECT_EQ(StateSource(), "local");
  EXPECT_FALSE(policies_.GetPolicy("state")->IsChanged());
}

struct OldMode {
  const char* value;
  const char* state;  // what the state policy is given
  const char* mode;   // what the parameter carries on
};

class FilterParamsOldModeTest
    : public FilterParamsTest,
      public ::testing::WithParamInterface<OldMode> {};

TEST_P(FilterParamsOldModeTest, OldModeSetsStateAndCarriesTheNewMode) {
  const OldMode& old = GetParam();
  bool kept = false;
  EXPECT_EQ(Filter(Parameter{"aec_control", "mode", "yunko", old.value}, &kept),
            (Parameter{"aec", "mode", "yunko", old.mode}));
  EXPECT_TRUE(kept);
  EXPECT_EQ(StateValue(), old.state);
  EXPECT_EQ(StateSource(), "yunko");
}

INSTANTIATE_TEST_SUITE_P(
    OldValues, FilterParamsOldModeTest,
    ::testing::Values(OldMode{"0", "0", "0"}, OldMode{"1", "1", "0"},
                      OldMode{"2", "1", "1"}, OldMode{"5", "1", "0"},
                      OldMode{"", "1", "0"}),
    [](const ::testing::TestParamInfo<OldMode>& param_info) {
      const std::string value = param_info.param.value;
      return "Value" + (value.empty() ? std::string("Empty") : value);
    });

}  // namespace
