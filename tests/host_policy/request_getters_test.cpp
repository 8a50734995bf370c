// Where kernel policies' values live, and what a fresh settings database
// really holds after the plug-in's first-start statement.
#include <gtest/gtest.h>

#include <string>

#include "host/db.h"
#include "host/request_getters.h"
#include "kxtest.h"
#include "test_policies.h"

namespace {

using hostpolicytest::QueryOne;

TEST(RequestGettersTest, ControlGetterReadsControlPluginConf) {
  ControlPolicyDbRequestGetter getter;
  EXPECT_EQ(getter.GetRequestReadData("aec_state"),
            "SELECT fiValue FROM control_plugin_conf WHERE fsPolicy='aec_state'");
  EXPECT_EQ(getter.Table(), "control_plugin_conf");
  EXPECT_EQ(getter.KeyColumn(), "fsPolicy");
  EXPECT_EQ(getter.ValueColumn(), "fiValue");
  EXPECT_EQ(getter.MissingRowValue("aec_state"), "0");
  EXPECT_EQ(getter.MissingRowValue("aec_mode"), "0");
}

TEST(RequestGettersTest, LogGetterReadsTheAttachedAuditTable) {
  AecLogPolicyDbRequestGetter getter;
  EXPECT_EQ(getter.GetRequestReadData("log_deny_exec"),
            "SELECT fiValue FROM conf.aec_log_conf WHERE fsEvent='log_deny_exec'");
  EXPECT_EQ(getter.Table(), "conf.aec_log_conf");
  EXPECT_EQ(getter.KeyColumn(), "fsEvent");
  EXPECT_EQ(getter.ValueColumn(), "fiValue");
}

TEST(RequestGettersTest, MissingAuditRowsReadAsTheInstallationDefaults) {
  AecLogPolicyDbRequestGetter getter;
  EXPECT_EQ(getter.MissingRowValue("log_perm_exec"), "1");
  EXPECT_EQ(getter.MissingRowValue("log_deny_exec"), "1");
  EXPECT_EQ(getter.MissingRowValue("log_perm_openlib"), "1");
  EXPECT_EQ(getter.MissingRowValue("log_deny_openlib"), "1");
  EXPECT_EQ(getter.MissingRowValue("log_perm_openfile"), "0");
  EXPECT_EQ(getter.MissingRowValue("log_deny_openfile"), "0");
  EXPECT_EQ(getter.MissingRowValue("log_something_else"), "0");
}

TEST(RequestGettersTest, AQuoteInAPolicyNameCannotEndTheStatement) {
  ControlPolicyDbRequestGetter getter;
  EXPECT_EQ(getter.GetRequestReadData("a'b"),
            "SELECT fiValue FROM control_plugin_conf WHERE fsPolicy='a''b'");
}

class SettingsDatabaseTest : public kxtest::SandboxTest {};

// The plug-in's first-start text exactly as it sends it: the audit INSERTs
// joined with nothing between them.
const char kFreshInstallationText[] =
    "CREATE TABLE conf.aec_log_conf ('fsEvent' TEXT, 'fiValue' INTEGER);"
    "INSERT INTO 'aec_log_conf' VALUES('log_perm_exec', 1)"
    "INSERT INTO 'aec_log_conf' VALUES('log_deny_exec', 1)"
    "INSERT INTO 'aec_log_conf' VALUES('log_perm_openlib', 1)"
    "INSERT INTO 'aec_log_conf' VALUES('log_deny_openlib', 1)"
    "INSERT INTO 'aec_log_conf' VALUES('log_perm_openfile', 0)"
    "INSERT INTO 'aec_log_conf' VALUES('log_deny_openfile', 0)"
    "INSERT INTO 'control_plugin_conf' VALUES('aec_state', 0);"
    "INSERT INTO 'control_plugin_conf' VALUES('aec_mode', 0);";

TEST_F(SettingsDatabaseTest, FreshInstallationStatementLeavesAnEmptyLogTable) {
  db_response_t response;
  db_execute(kFreshInstallationText, &response);
  // Reported as a failure (the plug-in logs "aec policies creation failed")...
  EXPECT_EQ(response.table, nullptr);
  // ...yet the CREATE TABLE before the syntax error has run.
  EXPECT_EQ(QueryOne("SELECT count(*) FROM conf.aec_log_conf"), "0");
  // Nothing after the first INSERT ran, the control rows included.
  EXPECT_EQ(QueryOne("SELECT count(*) FROM control_plugin_conf"), "0");
  // So an audit event reads its installation default.
  AecLogPolicyDbRequestGetter getter;
  EXPECT_EQ(QueryOne(getter.GetRequestReadData("log_perm_exec")), "<none>");
}

TEST_F(SettingsDatabaseTest, ControlTableExistsBeforeThePluginsFirstStart) {
  // The host makes control_plugin_conf when it opens the database, so the
  // plug-in's probe of the old "aec_control" row finds an empty table rather
  // than none: its first start takes the "no rows" branch, not the
  // fresh-installation one (docs/policies.md).
  ControlPolicyDbRequestGetter getter;
  db_response_t response;
  db_execute(getter.GetRequestReadData("aec_control").c_str(), &response);
  ASSERT_NE(response.table, nullptr);
  EXPECT_EQ(response.rows, 0);
  sqlite3_free_table(response.table);
  // That branch's statement stores the two control rows at once.
  EXPECT_NE(QueryOne("INSERT INTO 'control_plugin_conf' VALUES('aec_state', 0);"
                     "INSERT INTO 'control_plugin_conf' VALUES('aec_mode', 0);"),
            "<failed>");
  EXPECT_EQ(QueryOne(getter.GetRequestReadData("aec_state")), "0");
  EXPECT_EQ(QueryOne(getter.GetRequestReadData("aec_mode")), "0");
  // And the audit table is not made by it.
  EXPECT_EQ(QueryOne("SELECT count(*) FROM conf.aec_log_conf"), "<failed>");
}

TEST_F(SettingsDatabaseTest, GettersReadTheStoredValue) {
  ASSERT_NE(QueryOne("INSERT INTO control_plugin_conf VALUES('aec_mode', 1)"),
            "<failed>");
  ControlPolicyDbRequestGetter getter;
  EXPECT_EQ(QueryOne(getter.GetRequestReadData("aec_mode")), "1");
  EXPECT_EQ(QueryOne(getter.GetRequestReadData("aec_state")), "<none>");
}

}  // namespace
