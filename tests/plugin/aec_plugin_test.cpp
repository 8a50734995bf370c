// The exported entry points and the dispatcher, driven in process as the
// host drives them.
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "host/plugin_api.h"
#include "plugin_test_util.h"

namespace {

using plugintest::CoreCode;
using plugintest::EventsOfKind;
using plugintest::Exec;
using plugintest::PoliciesDocument;
using plugintest::PolicyField;
using plugintest::QueryRows;
using plugintest::RunSql;

int Busy() {
  plugin_state_data_t state{};
  state.busy = -1;
  plugin_state(&state);
  return state.busy;
}

// Log lines with their priorities, for the lines whose priority matters.
// Replaces the suite's capture while it lives.
class PriorityLog {
 public:
  PriorityLog() {
    kxhost::SetLogObserver([this](int priority, const std::string& line) {
      lines_.emplace_back(priority, line);
    });
  }
  ~PriorityLog() { kxhost::SetLogObserver(nullptr); }
  PriorityLog(const PriorityLog&) = delete;
  PriorityLog& operator=(const PriorityLog&) = delete;
  const std::vector<std::pair<int, std::string>>& Lines() const {
    return lines_;
  }

 private:
  std::vector<std::pair<int, std::string>> lines_;
};

class EntryPointTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override {
    kxtest::InstallFakeTool("kxaecctl", {});
    kxtest::InstallFakeTool("kxaide", {});
    ASSERT_EQ(plugin_init(), 0);
    kxhost::ClearEvents();
    log_.Clear();
  }

  static void SetFrom(const std::string& policy, const std::string& source,
                      const std::string& value) {
    ASSERT_TRUE(plugin_set_policies(PoliciesDocument(
        "<policies><policy group=\"aec\" name=\"" + policy + "\" source=\"" +
        source + "\"><type>" + value + "</type></policy></policies>")));
  }

  static std::size_t SourceRows() {
    return QueryRows("SELECT policy FROM conf.kxhost_policy_source "
                     "WHERE plugin = 'aec'")
        .size();
  }
};

// ---------------------------------------------------------------- init/exit

TEST_F(EntryPointTest, InitNotifiesClientsAndLogsInitialized) {
  EXPECT_EQ(plugin_init(), 0);
  const auto updates = EventsOfKind("update_clients");
  ASSERT_EQ(updates.size(), 1u);
  EXPECT_EQ(updates[0].args, std::vector<std::string>{"aec"});
  EXPECT_TRUE(log_.Contains("[" + CoreCode(6) + "] aec: initialized"));
}

TEST_F(EntryPointTest, FailedInitKeepsThePreviousPolicySet) {
  SetFrom("state", "dorvi", "1");
  // The whitelist policy cannot be created without a readable whitelist.
  kxtest::WriteFile(plugintest::kWhitelistFile, "{ broken");
  kxhost::ClearEvents();
  EXPECT_EQ(plugin_init(), 1);
  EXPECT_TRUE(log_.Contains("[" + CoreCode(3) +
                            "] aec: initialization failed: E_INVALID_CONFIG"));
  EXPECT_FALSE(log_.Contains("aec: initialized"));
  EXPECT_TRUE(EventsOfKind("update_clients").empty());
  // Still the set that was there: the state from "dorvi" is kept.
  EXPECT_EQ(PolicyField("state", "@source"), "dorvi");
  EXPECT_EQ(PolicyField("state", "type"), "1");
}

TEST_F(EntryPointTest, ExitOnlyLogsUninitialized) {
  PriorityLog log;
  EXPECT_EQ(plugin_exit(), 0);
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_EQ(log.Lines()[0].first, 6);
  EXPECT_NE(log.Lines()[0].second.find("[" + CoreCode(6) +
                                       "] aec: uninitialized"),
            std::string::npos);
  EXPECT_TRUE(kxhost::Events().empty());
  // Nothing was released: the policies are still there.
  EXPECT_EQ(PolicyField("mode", "type"), "0");
}

// ---------------------------------------------------------- info and state

TEST_F(EntryPointTest, InfoFillsTheRecord) {
  plugin_info_data_t info;
  std::memset(&info, 'x', sizeof info);
  plugin_info(&info);
  EXPECT_EQ(info.kind, 0);
  EXPECT_EQ(info.api_version, 1);
  EXPECT_STREQ(info.name, "aec");
  EXPECT_STREQ(info.description, "Application execution control plugin");
}

TEST_F(EntryPointTest, InfoWithANullPointerDoesNothingAndLogsNothing) {
  PriorityLog log;
  plugin_info(nullptr);
  EXPECT_TRUE(log.Lines().empty());
  EXPECT_TRUE(kxhost::Events().empty());
}

TEST_F(EntryPointTest, StateWithANullPointerLogsTheFunctionsSignature) {
  PriorityLog log;
  plugin_state(nullptr);
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_EQ(log.Lines()[0].first, 3);
  const std::string& line = log.Lines()[0].second;
  EXPECT_EQ(line.rfind("aec_plugin:", 0), 0u) << line;
  EXPECT_NE(line.find(": [" + CoreCode(3) +
                      "] aec: void plugin_state(plugin_state_data_t*): got "
                      "NULL pointer"),
            std::string::npos)
      << line;
}

TEST_F(EntryPointTest, StateIsZeroOutsideCommands) { EXPECT_EQ(Busy(), 0); }

// ----------------------------------------------------------------- dispatch

TEST_F(EntryPointTest, BusyIsOneInsideAHandlerAndZeroAfterwards) {
  // The "get" handler logs from inside itself when the exception file is
  // broken; the host's send_message logs inside the busy window too.
  kxtest::WriteFile(plugintest::kExceptionFile, "not json");
  std::vector<std::pair<std::string, int>> seen;
  kxhost::SetLogObserver([&seen](int, const std::string& line) {
    if (line.find("failed to parse AEC resource-exception config") !=
        std::string::npos) {
      seen.emplace_back("handler", Busy());
    } else if (line.find("send_message:") != std::string::npos) {
      seen.emplace_back("send_message", Busy());
    }
  });
  const auto outcome =
      Exec("<request command=\"get\" resource-exception=\"1\"/>");
  kxhost::SetLogObserver(nullptr);
  EXPECT_EQ(outcome.outcome, 1);
  EXPECT_EQ(seen, (std::vector<std::pair<std::string, int>>{
                      {"handler", 1}, {"send_message", 1}}));
  EXPECT_EQ(Busy(), 0);
}

TEST_F(EntryPointTest, BusyIsZeroAfterAnUnknownCommand) {
  std::vector<int> seen;
  kxhost::SetLogObserver([&seen](int, const std::string& line) {
    if (line.find("free_msg_memory:") != std::string::npos) {
      seen.push_back(Busy());
    }
  });
  const auto outcome = Exec("<request command=\"no_such_command\"/>");
  kxhost::SetLogObserver(nullptr);
  EXPECT_EQ(outcome.outcome, 2);
  EXPECT_EQ(seen, std::vector<int>{1});  // released inside the window
  EXPECT_EQ(Busy(), 0);
}

class CaseVariantTest : public EntryPointTest,
                        public ::testing::WithParamInterface<const char*> {};

TEST_P(CaseVariantTest, CommandNameDifferingOnlyInCaseIsUnknown) {
  const std::string command = GetParam();
  const auto outcome = Exec("<request command=\"" + command + "\"/>");
  EXPECT_EQ(outcome.outcome, 2);
  EXPECT_EQ(outcome.reply, "<reply/>\n");
  EXPECT_TRUE(log_.Contains("[" + CoreCode(3) +
                            "] aec: received unknown command '" + command +
                            "', ignoring it"));
  const auto released = EventsOfKind("free_msg_memory");
  ASSERT_EQ(released.size(), 1u);
  EXPECT_EQ(released[0].args, std::vector<std::string>{command});
  EXPECT_TRUE(EventsOfKind("send_message").empty());
  EXPECT_EQ(Busy(), 0);
}

INSTANTIATE_TEST_SUITE_P(Names, CaseVariantTest,
                         ::testing::Values("GET", "Get", "Reset_Policies",
                                           "RESET_POLICY", "logList",
                                           "Status_Confirmation"));

TEST_F(EntryPointTest, NullRequestAndMissingCommandAreIgnored) {
  PriorityLog log;
  plugin_exec(nullptr);
  parsed_xml_data_t request;
  request.xml = kxhost::ParseXml("<request><rule/></request>");
  request.reply = XMLParserBoost::CreateEmptyXML();
  plugin_exec(&request);
  EXPECT_EQ(request.outcome, 0);
  EXPECT_TRUE(kxhost::Events().empty());
  EXPECT_TRUE(log.Lines().empty());
  EXPECT_EQ(Busy(), 0);
}

// ------------------------------------------------------------------- resets

class ResetCommandTest : public EntryPointTest,
                         public ::testing::WithParamInterface<const char*> {};

TEST_P(ResetCommandTest, ResetWithASourceResetsOnlyThatSourcesPolicies) {
  SetFrom("state", "dorvi", "1");
  SetFrom("log_perm_exec", "yunko", "0");
  kxhost::ClearEvents();
  const auto outcome = Exec(std::string("<request command=\"") + GetParam() +
                            "\"><source>dorvi</source></request>");
  EXPECT_EQ(outcome.outcome, 1);
  EXPECT_EQ(outcome.reply, "<reply/>\n");  // no reply document of its own
  EXPECT_EQ(PolicyField("state", "@source"), "local");
  EXPECT_EQ(PolicyField("state", "type"), "0");
  EXPECT_EQ(PolicyField("log_perm_exec", "@source"), "yunko");
  EXPECT_EQ(PolicyField("log_perm_exec", "type"), "0");
  // The reset is applied: control goes off in the kernel.
  EXPECT_EQ(kxtest::ReadFile(plugintest::kEnvironmentFile), "0");
}

TEST_P(ResetCommandTest, ResetWithoutASourceResetsEveryPolicy) {
  SetFrom("state", "dorvi", "1");
  SetFrom("log_perm_exec", "yunko", "0");
  const auto outcome =
      Exec(std::string("<request command=\"") + GetParam() + "\"/>");
  EXPECT_EQ(outcome.outcome, 1);
  EXPECT_EQ(PolicyField("state", "@source"), "local");
  EXPECT_EQ(PolicyField("state", "type"), "0");
  EXPECT_EQ(PolicyField("log_perm_exec", "@source"), "local");
  EXPECT_EQ(PolicyField("log_perm_exec", "type"), "1");
}

TEST_P(ResetCommandTest, ResetOfAnotherSourceLeavesThePoliciesAlone) {
  SetFrom("state", "dorvi", "1");
  const auto outcome = Exec(std::string("<request command=\"") + GetParam() +
                            "\"><source>yunko</source></request>");
  EXPECT_EQ(outcome.outcome, 1);
  EXPECT_EQ(PolicyField("state", "@source"), "dorvi");
  EXPECT_EQ(PolicyField("state", "type"), "1");
}

TEST_P(ResetCommandTest, ResetOfTheExceptionsSourceIsRecorded) {
  ASSERT_TRUE(plugin_set_policies(PoliciesDocument(
      "<policies><policy group=\"aec\" name=\"exceptions\" source=\"dorvi\">"
      "<value><r>/opt/app/bin/tool</r></value></policy></policies>")));
  ASSERT_EQ(PolicyField("exceptions", "@source"), "dorvi");
  const auto outcome = Exec(std::string("<request command=\"") + GetParam() +
                            "\"><source>dorvi</source></request>");
  EXPECT_EQ(outcome.outcome, 1);
  EXPECT_EQ(PolicyField("exceptions", "@source"), "local");
  EXPECT_NE(kxtest::ReadFile("/opt/korvex/etc/aec/policy-sources.conf")
                .find("\"exceptions\": \"local\""),
            std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Commands, ResetCommandTest,
    ::testing::Values("reset_policies", "reset_policy"),
    [](const ::testing::TestParamInfo<const char*>& param_info) {
      return std::string(param_info.param);
    });

// ---------------------------------------------------------- set and import

TEST_F(EntryPointTest, SetPoliciesThatChangeNothingStillAppliesWithoutNotifying) {
  // Applying ends in the host storing every policy: rows removed here come
  // back only if the policies were applied.
  RunSql("DELETE FROM conf.kxhost_policy_source");
  RunSql("DELETE FROM control_plugin_conf");
  ASSERT_EQ(SourceRows(), 0u);
  EXPECT_TRUE(plugin_set_policies(PoliciesDocument(
      "<policies><policy group=\"aec\" name=\"state\" source=\"local\">"
      "<type>0</type></policy></policies>")));
  EXPECT_EQ(SourceRows(), 11u);
  EXPECT_EQ(QueryRows("SELECT fiValue FROM control_plugin_conf WHERE "
                      "fsPolicy = 'aec_state'"),
            (std::vector<std::vector<std::string>>{{"0"}}));
  EXPECT_TRUE(EventsOfKind("update_clients").empty());
  EXPECT_TRUE(log_.Contains("[" + CoreCode(7) +
                            "] aec: got request to set policies"));
}

TEST_F(EntryPointTest, SetPoliciesThatChangeSomethingNotifiesClientsOnce) {
  EXPECT_TRUE(plugin_set_policies(PoliciesDocument(
      "<policies><policy group=\"aec\" name=\"log_perm_exec\">"
      "<type>0</type></policy></policies>")));
  const auto updates = EventsOfKind("update_clients");
  ASSERT_EQ(updates.size(), 1u);
  EXPECT_EQ(updates[0].args, std::vector<std::string>{"aec"});
  EXPECT_EQ(kxtest::ReadFile(
                "/opt/korvex/var/run/sysctl/korvex/secure/secenv_verbose"),
            "14");
}

TEST_F(EntryPointTest, UnreadablePoliciesDocumentAppliesNothing) {
  RunSql("DELETE FROM conf.kxhost_policy_source");
  EXPECT_FALSE(plugin_set_policies(PoliciesDocument(
      "<policies><policy group=\"aec\" source=\"dorvi\"><type>1</type>"
      "</policy></policies>")));
  EXPECT_EQ(SourceRows(), 0u);
  EXPECT_TRUE(EventsOfKind("update_clients").empty());
}

TEST_F(EntryPointTest, ImportAppliesThePoliciesEvenWhenItReportsFailure) {
  auto result = XMLParserBoost::CreateEmptyXML();
  EXPECT_FALSE(plugin_import_policies(
      plugintest::JsonDocument(R"({"policies": [
          {"group": "aec", "name": "state", "source": "yunko", "value": "1"},
          {"group": "aec", "name": "no_such_policy", "value": "1"}]})"),
      result));
  EXPECT_EQ(PolicyField("state", "type"), "1");
  EXPECT_EQ(kxtest::ReadFile(plugintest::kEnvironmentFile), "1");
  EXPECT_EQ(QueryRows("SELECT fiValue FROM control_plugin_conf WHERE "
                      "fsPolicy = 'aec_state'"),
            (std::vector<std::vector<std::string>>{{"1"}}));
  // Import never notifies the clients, changed or not.
  EXPECT_TRUE(EventsOfKind("update_clients").empty());
  EXPECT_TRUE(log_.Contains("[" + CoreCode(7) +
                            "] aec: got request to import policies"));
}

TEST_F(EntryPointTest, ImportOfAnUnreadableDocumentStillApplies) {
  RunSql("DELETE FROM conf.kxhost_policy_source");
  auto result = XMLParserBoost::CreateEmptyXML();
  EXPECT_FALSE(plugin_import_policies(
      plugintest::JsonDocument(R"({"not_policies": 1})"), result));
  EXPECT_EQ(SourceRows(), 11u);
  EXPECT_TRUE(EventsOfKind("update_clients").empty());
}

}  // namespace
