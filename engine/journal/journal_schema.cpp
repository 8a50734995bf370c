#include "journal_schema.h"

#include <algorithm>
#include <iterator>
#include <vector>

namespace aec::engine {

const char* const kJournalTable = "logs";
const char* const kTimeIndex = "logs_time";
const char* const kUserIndex = "logs_user_time";
const char* const kAppIndex = "logs_app_time";
const char* const kGroupIndex = "logs_group_time";
const char* const kDroppedEventsTable = "dropped_events";

const char* const kJournalTableDefinition =
    "CREATE TABLE IF NOT EXISTS logs ("
    " id INTEGER PRIMARY KEY,"
    " event_id INTEGER NOT NULL,"
    " date_time INTEGER,"
    " app TEXT,"
    " object_name TEXT,"
    " username TEXT,"
    " groupname TEXT,"
    " success INTEGER,"
    " pid INTEGER,"
    " uid INTEGER,"
    " gid INTEGER,"
    " hostname TEXT,"
    " description TEXT);";

namespace {

// The time index carries every column `loglist` reads, so a time-bounded
// list is answered from the index alone; the table is never visited. New
// rows land at its right edge (time only grows), so the extra columns cost
// the writer little.
constexpr const char* kTimeIndexColumns[] = {
    "date_time", "event_id", "success", "username", "groupname", "app"};

constexpr const char* kTimeIndexDefinition =
    "CREATE INDEX IF NOT EXISTS logs_time"
    " ON logs(date_time, event_id, success, username, groupname, app);";

constexpr const char* kOtherIndexesAndGaps =
    "CREATE INDEX IF NOT EXISTS logs_user_time ON logs(username, date_time);"
    "CREATE INDEX IF NOT EXISTS logs_app_time ON logs(app, date_time);"
    "CREATE INDEX IF NOT EXISTS logs_group_time"
    " ON logs(groupname, date_time);"
    // When rows were lost and how many: the journal says where it has gaps.
    "CREATE TABLE IF NOT EXISTS dropped_events ("
    " date_time INTEGER NOT NULL,"
    " count INTEGER NOT NULL);";

bool TimeIndexIsCurrent(sqlite3* db, bool* current, std::string* error) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db,
                         "SELECT name FROM pragma_index_info('logs_time')"
                         " ORDER BY seqno",
                         -1, &statement, nullptr) != SQLITE_OK) {
    *error = sqlite3_errmsg(db);
    return false;
  }
  std::vector<std::string> columns;
  int rc;
  while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
    const auto* name =
        reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
    columns.emplace_back(name != nullptr ? name : "");
  }
  sqlite3_finalize(statement);
  if (rc != SQLITE_DONE) {
    *error = sqlite3_errmsg(db);
    return false;
  }
  // No index at all is "current": the CREATE below makes the right one.
  *current = columns.empty() || std::equal(columns.begin(), columns.end(),
                                           std::begin(kTimeIndexColumns),
                                           std::end(kTimeIndexColumns));
  return true;
}

bool Exec(sqlite3* db, const char* sql, std::string* error) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &message) == SQLITE_OK) {
    return true;
  }
  *error = message != nullptr ? message : sqlite3_errmsg(db);
  sqlite3_free(message);
  return false;
}

}  // namespace

bool EnsureJournalSchema(sqlite3* db, std::string* error) {
  if (!Exec(db, kJournalTableDefinition, error)) return false;
  bool current = true;
  if (!TimeIndexIsCurrent(db, &current, error)) return false;
  if (!current) {
    // A journal from before the time index covered the listed columns: the
    // old index is a prefix of the new one and would only cost writes, so
    // it is replaced, in one transaction, so that a failure keeps the old.
    const std::string replace = std::string("BEGIN; DROP INDEX logs_time;") +
                                kTimeIndexDefinition + "COMMIT;";
    if (!Exec(db, replace.c_str(), error)) {
      sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
      return false;
    }
  }
  return Exec(db, kTimeIndexDefinition, error) &&
         Exec(db, kOtherIndexesAndGaps, error);
}

}  // namespace aec::engine
