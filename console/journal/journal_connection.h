// One read-only connection to the journal for the length of one console
// request.
//
// The file is opened with SQLITE_OPEN_READONLY and without
// SQLITE_OPEN_CREATE: a journal that does not exist stays absent (missing()
// is true and nothing may be prepared). The journal is in WAL mode while
// the engine writes it, so a read never waits for the writer; a busy
// timeout covers the short moments (recovery, a checkpoint) when it must.
// A progress handler interrupts any statement once the budget given at
// opening has passed, counted from the opening, so one request cannot hold
// the console however much the filter matches.
//
// Every failure throws JournalError naming the journal's path and SQLite's
// reason. Not thread-safe: one connection per request and thread.
#pragma once

#include <sqlite3.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "journal_filter.h"
#include "journal_query.h"

namespace kxconsole::detail {

class Statement;

class JournalConnection {
 public:
  JournalConnection(const std::string& path, std::chrono::milliseconds budget);
  JournalConnection(const JournalConnection&) = delete;
  JournalConnection& operator=(const JournalConnection&) = delete;

  // True when there is no journal file, or a file without table `logs`
  // (a journal the writer has not set up yet).
  bool missing() const { return !db_; }

  // Starts a read transaction: the statements that follow read one snapshot.
  void BeginRead();

  // `sql` with `values` bound to its parameters, in order.
  Statement Prepare(const std::string& sql,
                    const std::vector<SqlValue>& values);

  [[noreturn]] void Fail(const std::string& what) const;

 private:
  friend class Statement;
  static int OnProgress(void* self);

  struct Closer {
    void operator()(sqlite3* db) const { sqlite3_close(db); }
  };

  std::string path_;
  // Closed however the constructor is left, a throw included.
  std::unique_ptr<sqlite3, Closer> db_;
  std::chrono::steady_clock::time_point deadline_;
  std::chrono::milliseconds budget_;
  bool timed_out_ = false;
};

class Statement {
 public:
  Statement(Statement&&) = default;

  // True while a row is there to read; throws on failure.
  bool Step();

  int64_t Int(int column) const;
  bool IsNull(int column) const;
  // The column as text; "" for NULL.
  std::string Text(int column) const;

 private:
  friend class JournalConnection;
  struct Finalizer {
    void operator()(sqlite3_stmt* statement) const {
      sqlite3_finalize(statement);
    }
  };
  Statement(JournalConnection* connection, sqlite3_stmt* statement)
      : connection_(connection), statement_(statement) {}

  JournalConnection* connection_;
  std::unique_ptr<sqlite3_stmt, Finalizer> statement_;
};

// One row of a statement selecting kRowColumns (journal_statements.h).
JournalRow ReadRow(const Statement& statement);

// The object as the writer framed it ("\"" + path + "\";"), unframed; a
// value without that framing is shown as stored.
std::string Unframe(std::string object);

}  // namespace kxconsole::detail
