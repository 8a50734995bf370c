// The plug-in's rows in the settings database: what InitStorage sends, byte
// for byte, and what the database holds afterwards.
#include <string>
#include <vector>

#include "aec_policies/aecpluginpolicy.h"
#include "host/request_getters.h"
#include "plugin_test_util.h"

namespace {

using plugintest::CoreCode;
using plugintest::QueryRows;
using plugintest::RunSql;
using plugintest::StatementRecorder;
using plugintest::TableExists;
using Rows = std::vector<std::vector<std::string>>;

// The statement of a fresh installation: the audit INSERTs are joined with
// nothing between them and the last one has no ";".
const char* const kFreshInstallation =
    "CREATE TABLE conf.aec_log_conf ('fsEvent' TEXT, 'fiValue' INTEGER);"
    "INSERT INTO 'aec_log_conf' VALUES('log_perm_exec', 1)"
    "INSERT INTO 'aec_log_conf' VALUES('log_deny_exec', 1)"
    "INSERT INTO 'aec_log_conf' VALUES('log_perm_openlib', 1)"
    "INSERT INTO 'aec_log_conf' VALUES('log_deny_openlib', 1)"
    "INSERT INTO 'aec_log_conf' VALUES('log_perm_openfile', 0)"
    "INSERT INTO 'aec_log_conf' VALUES('log_deny_openfile', 0)"
    "INSERT INTO 'control_plugin_conf' VALUES('aec_state', 0);"
    "INSERT INTO 'control_plugin_conf' VALUES('aec_mode', 0);";

const char* const kControlRowsOff =
    "INSERT INTO 'control_plugin_conf' VALUES('aec_state', 0);"
    "INSERT INTO 'control_plugin_conf' VALUES('aec_mode', 0);";

std::string ReadOf(const std::string& policy) {
  return ControlPolicyDbRequestGetter().GetRequestReadData(policy);
}

Rows ControlRows() {
  return QueryRows(
      "SELECT fsPolicy, fiValue FROM main.control_plugin_conf ORDER BY rowid");
}

const std::string kCreationFailed =
    "[" + CoreCode(3) + "] aec: aec policies creation failed";

class InitStorageTest : public kxtest::SandboxTest {
 protected:
  // What the installation has before the host ever opened its database: no
  // control table at all.
  void DropControlTable() { RunSql("DROP TABLE main.control_plugin_conf"); }
};

TEST_F(InitStorageTest, FreshInstallationSendsTheCreateAndTheJoinedInserts) {
  DropControlTable();
  StatementRecorder recorder;
  InitStorage();
  EXPECT_EQ(recorder.Statements(),
            (std::vector<std::string>{ReadOf("aec_state"),
                                      ReadOf("aec_control"),
                                      kFreshInstallation}));
}

TEST_F(InitStorageTest, FreshInstallationTextStopsAfterTheCreateTable) {
  DropControlTable();
  InitStorage();
  // SQLite ran the CREATE TABLE and refused the joined INSERTs: the log
  // table exists without rows, the control rows were never written, and
  // the failure is reported.
  ASSERT_TRUE(TableExists("conf", "aec_log_conf"));
  EXPECT_EQ(QueryRows("SELECT * FROM conf.aec_log_conf"), Rows{});
  EXPECT_FALSE(TableExists("main", "control_plugin_conf"));
  EXPECT_TRUE(log_.Contains(kCreationFailed));
  bool from_core = false;
  for (const auto& line : log_.Lines()) {
    if (line.find(kCreationFailed) != std::string::npos) {
      from_core = line.rfind("aec_plugin:", 0) == 0;
    }
  }
  EXPECT_TRUE(from_core) << "logged with the core's file name";
}

TEST_F(InitStorageTest, FreshInstallationGetsItsControlRowsAtTheNextStart) {
  DropControlTable();
  InitStorage();
  // A restart: the host opens its database again and makes its control
  // table; the plug-in finds the log table and no control rows.
  kxhost::ResetState();
  log_.Clear();
  StatementRecorder recorder;
  InitStorage();
  EXPECT_EQ(recorder.Statements(),
            (std::vector<std::string>{ReadOf("aec_state"),
                                      ReadOf("aec_control"), kControlRowsOff}));
  EXPECT_EQ(ControlRows(), (Rows{{"aec_state", "0"}, {"aec_mode", "0"}}));
  EXPECT_EQ(QueryRows("SELECT * FROM conf.aec_log_conf"), Rows{});
  EXPECT_FALSE(log_.Contains(kCreationFailed));
}

TEST_F(InitStorageTest, FirstStartWithAnEmptyControlTableWritesOnlyTwoRows) {
  // The host makes its control table when it opens the database, so a first
  // start on this host reads an empty table, not a missing one.
  StatementRecorder recorder;
  InitStorage();
  EXPECT_EQ(recorder.Statements(),
            (std::vector<std::string>{ReadOf("aec_state"),
                                      ReadOf("aec_control"), kControlRowsOff}));
  EXPECT_EQ(ControlRows(), (Rows{{"aec_state", "0"}, {"aec_mode", "0"}}));
  EXPECT_FALSE(TableExists("conf", "aec_log_conf"));
  EXPECT_FALSE(log_.Contains(kCreationFailed));
}

TEST_F(InitStorageTest, SecondStartSendsNoStatementAfterTheFirstRead) {
  InitStorage();
  StatementRecorder recorder;
  InitStorage();
  EXPECT_EQ(recorder.Statements(),
            (std::vector<std::string>{ReadOf("aec_state")}));
  EXPECT_EQ(ControlRows(), (Rows{{"aec_state", "0"}, {"aec_mode", "0"}}));
}

TEST_F(InitStorageTest, AnyStateRowCountsAsInitialisedWhateverItsValue) {
  RunSql("INSERT INTO control_plugin_conf VALUES('aec_state', 1)");
  RunSql("INSERT INTO control_plugin_conf VALUES('aec_control', 2)");
  StatementRecorder recorder;
  InitStorage();
  EXPECT_EQ(recorder.Statements(),
            (std::vector<std::string>{ReadOf("aec_state")}));
  // An old row beside a new one is not looked at again.
  EXPECT_EQ(ControlRows(), (Rows{{"aec_state", "1"}, {"aec_control", "2"}}));
}

class SecondPluginInitTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override { kxtest::InstallFakeTool("kxaecctl", {}); }
};

TEST_F(SecondPluginInitTest, SecondPluginInitSendsNoStorageStatementAfterTheFirstRead) {
  ASSERT_EQ(plugin_init(), 0);
  StatementRecorder recorder;
  ASSERT_EQ(plugin_init(), 0);
  const auto& statements = recorder.Statements();
  ASSERT_FALSE(statements.empty());
  EXPECT_EQ(statements[0], ReadOf("aec_state"));
  // What follows are the policies' own reads of their values, nothing of
  // the storage set-up.
  for (std::size_t i = 1; i < statements.size(); ++i) {
    EXPECT_EQ(statements[i].rfind("SELECT fiValue FROM ", 0), 0u)
        << statements[i];
    EXPECT_EQ(statements[i].find("aec_control"), std::string::npos)
        << statements[i];
  }
  EXPECT_EQ(ControlRows(), (Rows{{"aec_state", "0"}, {"aec_mode", "0"}}));
}

TEST_F(SecondPluginInitTest, FailedStorageSetUpIsLoggedAndInitialisationContinues) {
  RunSql("DROP TABLE main.control_plugin_conf");
  EXPECT_EQ(plugin_init(), 0);
  EXPECT_TRUE(log_.Contains(kCreationFailed));
  EXPECT_TRUE(log_.Contains("[" + CoreCode(6) + "] aec: initialized"));
  // The policy set exists: its policies are listed.
  EXPECT_EQ(plugintest::PolicyField("state", "type"), "0");
}

struct Upgrade {
  const char* old_value;
  const char* state;
  const char* mode;
};

class UpgradeFromAecControlTest
    : public kxtest::SandboxTest,
      public ::testing::WithParamInterface<Upgrade> {};

TEST_P(UpgradeFromAecControlTest, OldControlRowBecomesStateAndModeAndIsDeleted) {
  const Upgrade& upgrade = GetParam();
  RunSql(std::string("INSERT INTO control_plugin_conf VALUES('aec_control', ") +
         upgrade.old_value + ")");
  StatementRecorder recorder;
  InitStorage();
  const std::string expected =
      std::string("DELETE FROM 'control_plugin_conf' WHERE fsPolicy = "
                  "'aec_control';"
                  "INSERT INTO 'control_plugin_conf' VALUES('aec_state', ") +
      upgrade.state +
      ");INSERT INTO 'control_plugin_conf' VALUES('aec_mode', " + upgrade.mode +
      ");";
  EXPECT_EQ(recorder.Statements(),
            (std::vector<std::string>{ReadOf("aec_state"),
                                      ReadOf("aec_control"), expected}));
  EXPECT_EQ(ControlRows(),
            (Rows{{"aec_state", upgrade.state}, {"aec_mode", upgrade.mode}}));
  // An upgrade never creates the log table: its rows come from the first
  // policy application.
  EXPECT_FALSE(TableExists("conf", "aec_log_conf"));
  EXPECT_FALSE(log_.Contains(kCreationFailed));
}

INSTANTIATE_TEST_SUITE_P(
    OldValues, UpgradeFromAecControlTest,
    ::testing::Values(Upgrade{"2", "1", "1"}, Upgrade{"1", "1", "0"},
                      Upgrade{"0", "0", "0"}, Upgrade{"5", "0", "0"}),
    [](const ::testing::TestParamInfo<Upgrade>& param_info) {
      return std::string("Value") + param_info.param.old_value;
    });

TEST_F(InitStorageTest, UpgradeReadsOnlyTheFirstOldRow) {
  // Two old rows (a database edited by hand): the first decides, and both
  // go with the one DELETE.
  RunSql("INSERT INTO control_plugin_conf VALUES('aec_control', 1)");
  RunSql("INSERT INTO control_plugin_conf VALUES('aec_control', 2)");
  InitStorage();
  EXPECT_EQ(ControlRows(), (Rows{{"aec_state", "1"}, {"aec_mode", "0"}}));
}

}  // namespace
