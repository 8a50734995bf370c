// One writing connection to the audit journal, used by the writer thread
// only.
//
// Open() puts the journal in WAL mode (readers and the writer never block one
// another; a committed batch is visible to the next read) with synchronous
// NORMAL (a power cut can lose the last batches, never corrupt the file) and
// creates what the schema lacks. Every call returns false with SQLite's
// message in `error` on failure; a failed Append leaves nothing of its batch
// behind.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <vector>

#include "journal_writer.h"

namespace aec::engine {

class JournalStore {
 public:
  JournalStore() = default;
  ~JournalStore() { Close(); }
  JournalStore(const JournalStore&) = delete;
  JournalStore& operator=(const JournalStore&) = delete;

  bool Open(const std::string& path, std::string* error);
  bool IsOpen() const { return db_ != nullptr; }
  void Close();

  // All of `batch` in one transaction, ordered as the time index orders
  // rows (so ids within one second do not follow the order of `batch`).
  bool Append(const std::vector<JournalEvent>& batch, std::string* error);

  // Notes in `dropped_events` that `count` rows were lost up to `now`.
  bool RecordDropped(int64_t now, uint64_t count, std::string* error);

  // Deletes the oldest rows beyond `max_rows` (0: no bound) and the rows
  // older than `min_time` (0: no bound), at most `limit` of each in one
  // transaction. Sets `deleted` to the number of rows removed.
  bool Trim(uint64_t max_rows, int64_t min_time, size_t limit,
            uint64_t* deleted, std::string* error);

 private:
  bool Exec(const char* sql, std::string* error);
  bool Fail(std::string* error);  // copies SQLite's message, rolls back

  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* trim_rows_ = nullptr;
  sqlite3_stmt* trim_age_ = nullptr;
  sqlite3_stmt* record_dropped_ = nullptr;
  std::string framed_;  // the framed object of the row being inserted
  std::vector<const JournalEvent*> order_;  // the batch in insertion order
};

}  // namespace aec::engine
