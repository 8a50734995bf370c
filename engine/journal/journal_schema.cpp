#include "journal_schema.h"

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

constexpr const char* kIndexesAndGaps =
    "CREATE INDEX IF NOT EXISTS logs_time"
    " ON logs(date_time, event_id, success);"
    "CREATE INDEX IF NOT EXISTS logs_user_time ON logs(username, date_time);"
    "CREATE INDEX IF NOT EXISTS logs_app_time ON logs(app, date_time);"
    "CREATE INDEX IF NOT EXISTS logs_group_time"
    " ON logs(groupname, date_time);"
    // When rows were lost and how many: the journal says where it has gaps.
    "CREATE TABLE IF NOT EXISTS dropped_events ("
    " date_time INTEGER NOT NULL,"
    " count INTEGER NOT NULL);";

}  // namespace

bool EnsureJournalSchema(sqlite3* db, std::string* error) {
  char* message = nullptr;
  if (sqlite3_exec(db, kJournalTableDefinition, nullptr, nullptr, &message) ==
          SQLITE_OK &&
      sqlite3_exec(db, kIndexesAndGaps, nullptr, nullptr, &message) ==
          SQLITE_OK) {
    return true;
  }
  *error = message != nullptr ? message : sqlite3_errmsg(db);
  sqlite3_free(message);
  return false;
}

}  // namespace aec::engine
