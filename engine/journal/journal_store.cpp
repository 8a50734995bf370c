#include "journal_store.h"

#include <algorithm>
#include <cstring>
#include <tuple>

#include "journal_schema.h"

namespace aec::engine {

namespace {

constexpr const char* kInsert =
    "INSERT INTO logs (event_id, date_time, app, object_name, username,"
    " groupname, success) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)";
// Row ids grow with every insert and the oldest rows go first, so the rows
// beyond the bound are one id range: cheap to find, cheap to delete.
constexpr const char* kTrimRows =
    "DELETE FROM logs WHERE id <= min((SELECT max(id) FROM logs) - ?1,"
    " (SELECT min(id) FROM logs) + ?2 - 1)";
constexpr const char* kTrimAge =
    "DELETE FROM logs WHERE id IN"
    " (SELECT id FROM logs WHERE date_time < ?1 LIMIT ?2)";
constexpr const char* kRecordDropped =
    "INSERT INTO dropped_events (date_time, count) VALUES (?1, ?2)";
// Long enough for a reader's checkpoint-free transaction to finish; a writer
// that still finds the journal locked drops the batch (counted).
constexpr int kBusyTimeoutMs = 5000;

void BindText(sqlite3_stmt* statement, int index, const std::string& text) {
  if (text.empty()) {
    sqlite3_bind_null(statement, index);
  } else {
    sqlite3_bind_text(statement, index, text.data(),
                      static_cast<int>(text.size()), SQLITE_STATIC);
  }
}

// Runs a prepared statement that returns no rows and resets it for its next
// use, whatever the outcome; SQLite's message stays readable for Fail. True
// when it ran to the end.
bool StepToDone(sqlite3_stmt* statement) {
  const int rc = sqlite3_step(statement);
  sqlite3_reset(statement);
  return rc == SQLITE_DONE;
}

}  // namespace

bool JournalStore::Open(const std::string& path, std::string* error) {
  Close();
  const int rc = sqlite3_open_v2(
      path.c_str(), &db_,
      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
      nullptr);
  if (rc != SQLITE_OK) {
    *error = db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
    Close();
    return false;
  }
  sqlite3_busy_timeout(db_, kBusyTimeoutMs);
  // journal_mode answers the mode in force: a file system without shared
  // memory support keeps the old mode, and then readers would block the
  // writer, so that is a failure to open.
  sqlite3_stmt* mode = nullptr;
  bool wal = false;
  if (sqlite3_prepare_v2(db_, "PRAGMA journal_mode=WAL", -1, &mode, nullptr) ==
          SQLITE_OK &&
      sqlite3_step(mode) == SQLITE_ROW) {
    const auto* text =
        reinterpret_cast<const char*>(sqlite3_column_text(mode, 0));
    wal = text != nullptr && std::strcmp(text, "wal") == 0;
  }
  sqlite3_finalize(mode);
  if (!wal) {
    *error = std::string("cannot switch the journal to WAL mode: ") +
             sqlite3_errmsg(db_);
    Close();
    return false;
  }
  // The user and program indexes take rows in no particular order; a page
  // cache that holds their working set saves a read for most inserts.
  // Each commit and each checkpoint writes every page it touched once, and
  // those indexes touch a few thousand pages whatever the number of rows,
  // so the rows per commit (the writer's batch) and the pages per checkpoint
  // (128 MiB of log here) set what a row costs: with SQLite's default
  // 1,000-page checkpoint nearly every commit of a few thousand rows would
  // be followed by a checkpoint.
  if (!Exec("PRAGMA synchronous=NORMAL", error) ||
      !Exec("PRAGMA cache_size=-65536", error) ||
      !Exec("PRAGMA wal_autocheckpoint=32768", error) ||
      !EnsureJournalSchema(db_, error)) {
    Close();
    return false;
  }
  if (sqlite3_prepare_v2(db_, kInsert, -1, &insert_, nullptr) != SQLITE_OK ||
      sqlite3_prepare_v2(db_, kTrimRows, -1, &trim_rows_, nullptr) !=
          SQLITE_OK ||
      sqlite3_prepare_v2(db_, kTrimAge, -1, &trim_age_, nullptr) != SQLITE_OK ||
      sqlite3_prepare_v2(db_, kRecordDropped, -1, &record_dropped_, nullptr) !=
          SQLITE_OK) {
    *error = sqlite3_errmsg(db_);
    Close();
    return false;
  }
  return true;
}

void JournalStore::Close() {
  for (sqlite3_stmt** statement :
       {&insert_, &trim_rows_, &trim_age_, &record_dropped_}) {
    sqlite3_finalize(*statement);
    *statement = nullptr;
  }
  if (db_ != nullptr) {
    sqlite3_close(db_);
    db_ = nullptr;
  }
}

bool JournalStore::Exec(const char* sql, std::string* error) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) == SQLITE_OK) {
    return true;
  }
  *error = message != nullptr ? message : sqlite3_errmsg(db_);
  sqlite3_free(message);
  return false;
}

bool JournalStore::Fail(std::string* error) {
  *error = sqlite3_errmsg(db_);
  if (!sqlite3_get_autocommit(db_)) {
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  return false;
}

bool JournalStore::Append(const std::vector<JournalEvent>& batch,
                          std::string* error) {
  // Rows go in in the order of the time index (time, event, outcome, user,
  // group, program): each row then lands beside the one before in that
  // index and, rows of one user coming together, in the user and group
  // indexes too, where arrival order would send every insert to another
  // page. The rows of one second lose their arrival order (their ids follow
  // this order); time order between seconds, and the id order retention
  // relies on, stay.
  order_.resize(batch.size());
  for (size_t i = 0; i < batch.size(); ++i) order_[i] = &batch[i];
  std::stable_sort(order_.begin(), order_.end(),
            [](const JournalEvent* a, const JournalEvent* b) {
              return std::tie(a->date_time, a->event_id, a->success,
                              a->username, a->groupname, a->app) <
                     std::tie(b->date_time, b->event_id, b->success,
                              b->username, b->groupname, b->app);
            });
  if (!Exec("BEGIN", error)) return false;
  for (const JournalEvent* e : order_) {
    const JournalEvent& event = *e;
    framed_.assign(1, '"');
    framed_ += event.object_name;
    framed_ += "\";";
    sqlite3_bind_int(insert_, 1, event.event_id);
    sqlite3_bind_int64(insert_, 2, event.date_time);
    BindText(insert_, 3, event.app);
    sqlite3_bind_text(insert_, 4, framed_.data(),
                      static_cast<int>(framed_.size()), SQLITE_STATIC);
    BindText(insert_, 5, event.username);
    BindText(insert_, 6, event.groupname);
    sqlite3_bind_int(insert_, 7, event.success);
    if (!StepToDone(insert_)) return Fail(error);
  }
  if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return Fail(error);
  }
  return true;
}

bool JournalStore::RecordDropped(int64_t now, uint64_t count,
                                 std::string* error) {
  sqlite3_bind_int64(record_dropped_, 1, now);
  sqlite3_bind_int64(record_dropped_, 2, static_cast<sqlite3_int64>(count));
  return StepToDone(record_dropped_) ? true : Fail(error);
}

bool JournalStore::Trim(uint64_t max_rows, int64_t min_time, size_t limit,
                        uint64_t* deleted, std::string* error) {
  *deleted = 0;
  if (!Exec("BEGIN", error)) return false;
  if (max_rows > 0) {
    sqlite3_bind_int64(trim_rows_, 1, static_cast<sqlite3_int64>(max_rows));
    sqlite3_bind_int64(trim_rows_, 2, static_cast<sqlite3_int64>(limit));
    if (!StepToDone(trim_rows_)) return Fail(error);
    *deleted += static_cast<uint64_t>(sqlite3_changes(db_));
  }
  if (min_time > 0) {
    sqlite3_bind_int64(trim_age_, 1, min_time);
    sqlite3_bind_int64(trim_age_, 2, static_cast<sqlite3_int64>(limit));
    if (!StepToDone(trim_age_)) return Fail(error);
    *deleted += static_cast<uint64_t>(sqlite3_changes(db_));
  }
  if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return Fail(error);
  }
  return true;
}

}  // namespace aec::engine
