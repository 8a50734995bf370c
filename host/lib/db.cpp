#include "host/db.h"

#include <sqlite3.h>

#include <stdexcept>
#include <string>

#include "host/log.h"
#include "runtime.h"
#include "settings_db.h"

namespace {
constexpr const char* kLogFile = "db";
}

void db_execute(const char* sql, db_response_t* response) {
  // Called outside any lock, so that an observer may itself use the host.
  if (sql != nullptr) {
    if (const auto observer = kxhost::CurrentStatementObserver()) observer(sql);
  }
  if (response == nullptr) return;
  response->rows = 0;
  response->columns = 0;
  response->table = nullptr;
  if (sql == nullptr) {
    log_message(kLogFile, __LINE__, 3, 24, "kxhost",
                "db_execute: no statement given");
    return;
  }
  sqlite3* db = nullptr;
  try {
    db = kxhost::SettingsDb();
  } catch (const std::runtime_error& e) {
    log_message(kLogFile, __LINE__, 3, 24, "kxhost", "db_execute: %s: %s",
                e.what(), sql);
    return;
  }
  char** table = nullptr;
  int rows = 0;
  int columns = 0;
  char* error = nullptr;
  const int rc = sqlite3_get_table(db, sql, &table, &rows, &columns, &error);
  if (rc != SQLITE_OK) {
    log_message(kLogFile, __LINE__, 3, 24, "kxhost", "db_execute: %s: %s",
                error != nullptr ? error : sqlite3_errstr(rc), sql);
    sqlite3_free(error);
    // sqlite3_get_table releases its table on failure; be sure of it.
    if (table != nullptr) sqlite3_free_table(table);
    return;
  }
  response->rows = rows;
  response->columns = columns;
  response->table = table;
}
