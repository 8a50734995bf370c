// db_execute over the settings database.
#include "host/db.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <boost/filesystem.hpp>
#include <string>

#include "kxtest.h"
#include "lib/runtime.h"
#include "lib/settings_db.h"

namespace {

class DbExecute : public kxtest::SandboxTest {
 protected:
  db_response_t Run(const char* sql) {
    db_response_t response;
    // Values that a careless host would leave behind on failure.
    response.rows = 77;
    response.columns = 77;
    db_execute(sql, &response);
    return response;
  }
};

TEST_F(DbExecute, QueryThatFindsRowsGivesTheTable) {
  db_response_t created = Run(
      "CREATE TABLE conf.aec_log_conf (fsEvent TEXT, fiValue INTEGER);"
      "INSERT INTO conf.aec_log_conf VALUES ('log_perm_exec', 1);"
      "INSERT INTO conf.aec_log_conf VALUES ('log_deny_exec', 0)");
  ASSERT_NE(created.table, nullptr);
  sqlite3_free_table(created.table);

  db_response_t found = Run(
      "SELECT fiValue FROM conf.aec_log_conf WHERE fsEvent = 'log_perm_exec'");
  ASSERT_NE(found.table, nullptr);
  EXPECT_EQ(found.rows, 1);
  EXPECT_EQ(found.columns, 1);
  EXPECT_STREQ(found.table[0], "fiValue");
  // With one column the first value is element 1.
  EXPECT_STREQ(found.table[1], "1");
  sqlite3_free_table(found.table);
}

TEST_F(DbExecute, TableLayoutIsNamesThenRowsRowByRow) {
  sqlite3_free_table(Run("CREATE TABLE t (a TEXT, b TEXT);"
                         "INSERT INTO t VALUES ('1', '2');"
                         "INSERT INTO t VALUES ('3', NULL)")
                         .table);
  db_response_t r = Run("SELECT a, b FROM t ORDER BY a");
  ASSERT_NE(r.table, nullptr);
  ASSERT_EQ(r.rows, 2);
  ASSERT_EQ(r.columns, 2);
  EXPECT_STREQ(r.table[0], "a");
  EXPECT_STREQ(r.table[1], "b");
  EXPECT_STREQ(r.table[2], "1");
  EXPECT_STREQ(r.table[3], "2");
  EXPECT_STREQ(r.table[4], "3");
  EXPECT_EQ(r.table[5], nullptr);
  sqlite3_free_table(r.table);
}

TEST_F(DbExecute, QueryThatFindsNothingIsNotFailure) {
  db_response_t r = Run(
      "SELECT fiValue FROM control_plugin_conf WHERE fsPolicy = 'aec_state'");
  ASSERT_NE(r.table, nullptr);
  EXPECT_EQ(r.rows, 0);
  sqlite3_free_table(r.table);
  EXPECT_FALSE(log_.Contains("db_execute"));
}

TEST_F(DbExecute, FailureGivesNullTableZeroSizesAndALogLine) {
  db_response_t r = Run("SELECT x FROM no_such_table");
  EXPECT_EQ(r.table, nullptr);
  EXPECT_EQ(r.rows, 0);
  EXPECT_EQ(r.columns, 0);
  EXPECT_TRUE(log_.Contains("no such table: no_such_table"))
      << ::testing::PrintToString(log_.Lines());
  EXPECT_TRUE(log_.Contains("SELECT x FROM no_such_table"));
}

TEST_F(DbExecute, NullStatementFailsWithoutTouchingTheDatabase) {
  db_response_t r = Run(nullptr);
  EXPECT_EQ(r.table, nullptr);
  EXPECT_EQ(r.rows, 0);
  EXPECT_TRUE(log_.Contains("no statement given"));
  db_execute("SELECT 1", nullptr);  // a null record is ignored
}

TEST_F(DbExecute, HostTablesExistOnFirstOpen) {
  db_response_t r = Run(
      "SELECT name FROM main.sqlite_master WHERE name = 'control_plugin_conf' "
      "UNION ALL "
      "SELECT name FROM conf.sqlite_master WHERE name = 'kxhost_policy_source'");
  ASSERT_NE(r.table, nullptr);
  EXPECT_EQ(r.rows, 2);
  sqlite3_free_table(r.table);
  EXPECT_TRUE(kxtest::Exists("/opt/korvex/usr/db/kx.db"));
  EXPECT_TRUE(kxtest::Exists("/opt/korvex/usr/db/kx_settings.db"));
}

TEST_F(DbExecute, TablesAreReachedWithAndWithoutThePrefix) {
  sqlite3_free_table(
      Run("CREATE TABLE conf.network_plugin_config (name TEXT, value TEXT);"
          "INSERT INTO conf.network_plugin_config VALUES ('KXServer', 'dc1')")
          .table);
  db_response_t bare = Run("SELECT value FROM network_plugin_config");
  ASSERT_NE(bare.table, nullptr);
  EXPECT_EQ(bare.rows, 1);
  EXPECT_STREQ(bare.table[1], "dc1");
  sqlite3_free_table(bare.table);
  db_response_t quoted =
      Run("SELECT count(*) FROM 'control_plugin_conf'");
  ASSERT_NE(quoted.table, nullptr);
  EXPECT_STREQ(quoted.table[1], "0");
  sqlite3_free_table(quoted.table);
}

TEST_F(DbExecute, ResetStateReopensOnTheCurrentRoot) {
  sqlite3_free_table(Run("CREATE TABLE conf.marker (x)").table);
  kxhost::ResetState();
  db_response_t r = Run("SELECT count(*) FROM conf.marker");
  ASSERT_NE(r.table, nullptr);
  sqlite3_free_table(r.table);
  {
    kxtest::ScratchRoot other;
    db_response_t missing = Run("SELECT count(*) FROM conf.marker");
    EXPECT_EQ(missing.table, nullptr);
  }
}

TEST_F(DbExecute, UnopenableDatabaseIsAFailureNotACrash) {
  // A root whose usr/ cannot be made: a file stands where the directory goes.
  kxtest::ScratchRoot other;
  boost::filesystem::remove_all("/opt/korvex/usr");
  kxtest::WriteFile("/opt/korvex/usr", "not a directory");
  db_response_t r = Run("SELECT 1");
  EXPECT_EQ(r.table, nullptr);
  EXPECT_TRUE(log_.Contains("settings database"));
}

}  // namespace
