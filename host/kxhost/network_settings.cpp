#include "network_settings.h"

#include <sqlite3.h>

#include <stdexcept>

#include "lib/settings_db.h"

namespace kxhost {
namespace {

class Statement {
 public:
  Statement(sqlite3* db, const char* sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr) != SQLITE_OK) {
      throw std::runtime_error(std::string(sql) + ": " + sqlite3_errmsg(db));
    }
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  void Bind(int index, const std::string& text) {
    if (sqlite3_bind_text(statement_, index, text.data(),
                          static_cast<int>(text.size()),
                          SQLITE_TRANSIENT) != SQLITE_OK) {
      throw std::runtime_error(std::string("bind: ") + sqlite3_errmsg(db_));
    }
  }
  void Run() {
    const int rc = sqlite3_step(statement_);
    if (rc != SQLITE_DONE && rc != SQLITE_ROW) {
      throw std::runtime_error(std::string(sqlite3_sql(statement_)) + ": " +
                               sqlite3_errmsg(db_));
    }
  }

 private:
  sqlite3* db_;
  sqlite3_stmt* statement_ = nullptr;
};

// Runs `sql` once with ?1 and ?2 bound to the two texts.
void RunBound(sqlite3* db, const char* sql, const std::string& first,
              const std::string& second) {
  Statement statement(db, sql);
  statement.Bind(1, first);
  statement.Bind(2, second);
  statement.Run();
}

}  // namespace

void StoreNetworkSetting(const std::string& name, const std::string& value) {
  sqlite3* db = SettingsDb();
  Statement(db,
            "CREATE TABLE IF NOT EXISTS conf.network_plugin_config "
            "(name TEXT, value TEXT)")
      .Run();
  RunBound(db,
           "UPDATE conf.network_plugin_config SET value = ?1 "
           "WHERE name = ?2",
           value, name);
  if (sqlite3_changes(db) > 0) return;
  RunBound(db,
           "INSERT INTO conf.network_plugin_config (name, value) "
           "VALUES (?1, ?2)",
           name, value);
}

}  // namespace kxhost
