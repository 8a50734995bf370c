// What the settings database really holds after the plug-in's first start,
// with the exact statements it sends (docs/policies.md, "What the settings
// database holds").
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "aec_policies/aecpluginpolicy.h"
#include "host/db.h"
#include "host/request_getters.h"
#include "kxtest.h"
#include "test_policies.h"

namespace {

using hostpolicytest::QueryOne;
using hostpolicytest::RecordingKernelPolicy;
using hostpolicytest::RecordingManager;

class SettingsDatabaseTest : public kxtest::SandboxTest {};

// The plug-in's fresh-installation text exactly as it sends it: the audit
// INSERTs joined with nothing between them.
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
  // So an audit event finds no row and reads its installation default.
  AecLogPolicyDbRequestGetter getter;
  EXPECT_EQ(QueryOne(getter.GetRequestReadData("log_perm_exec")), "<none>");
  RecordingManager manager;
  RecordingKernelPolicy exec(manager, "log_perm_exec", "",
                             std::make_shared<AecLogPolicyDbRequestGetter>(),
                             nullptr);
  exec.Init();
  EXPECT_EQ(exec.Value(), "1");
}

TEST_F(SettingsDatabaseTest, ControlTableExistsBeforeThePluginsFirstStart) {
  // The host makes control_plugin_conf when it opens the database, so the
  // probe of the old "aec_control" row finds an empty table rather than
  // none.
  ControlPolicyDbRequestGetter getter;
  db_response_t response;
  db_execute(getter.GetRequestReadData("aec_control").c_str(), &response);
  ASSERT_NE(response.table, nullptr);
  EXPECT_EQ(response.rows, 0);
  sqlite3_free_table(response.table);
}

TEST_F(SettingsDatabaseTest, PluginsFirstStartHereStoresTheControlRowsAtOnce) {
  InitStorage();
  ControlPolicyDbRequestGetter getter;
  EXPECT_EQ(QueryOne(getter.GetRequestReadData("aec_state")), "0");
  EXPECT_EQ(QueryOne(getter.GetRequestReadData("aec_mode")), "0");
  // The audit table is not the plug-in's doing on this path.
  EXPECT_EQ(QueryOne("SELECT count(*) FROM conf.aec_log_conf"), "<failed>");
  EXPECT_FALSE(log_.Contains("aec policies creation failed"));
}

TEST_F(SettingsDatabaseTest, PluginsFreshInstallationPathMakesOnlyTheLogTable) {
  // A host that has no control table yet: the plug-in's fresh branch.
  ASSERT_NE(QueryOne("DROP TABLE main.control_plugin_conf"), "<failed>");
  InitStorage();
  EXPECT_TRUE(log_.Contains("aec policies creation failed"));
  EXPECT_EQ(QueryOne("SELECT count(*) FROM conf.aec_log_conf"), "0");
  EXPECT_EQ(QueryOne("SELECT count(*) FROM control_plugin_conf"), "<failed>");
}

TEST_F(SettingsDatabaseTest, AuditValuesSurviveARestartAfterThePluginsStart) {
  InitStorage();
  RecordingManager manager;
  auto exec = std::make_shared<RecordingKernelPolicy>(
      manager, "log_perm_exec", "",
      std::make_shared<AecLogPolicyDbRequestGetter>(), nullptr);
  manager.AddPolicy(exec);
  exec->SetValue("0");
  manager.ApplyPolicies();
  EXPECT_EQ(QueryOne("SELECT fiValue FROM conf.aec_log_conf WHERE "
                     "fsEvent='log_perm_exec'"),
            "0");
}

TEST_F(SettingsDatabaseTest, GettersReadTheStoredValue) {
  ASSERT_NE(QueryOne("INSERT INTO control_plugin_conf VALUES('aec_mode', 1)"),
            "<failed>");
  ControlPolicyDbRequestGetter getter;
  EXPECT_EQ(QueryOne(getter.GetRequestReadData("aec_mode")), "1");
  EXPECT_EQ(QueryOne(getter.GetRequestReadData("aec_state")), "<none>");
}

}  // namespace
