// Reading the agent's audit journal for the "log" and "loglist" commands.
//
// The journal is the SQLite database aec::kAuditDbPath, table `logs`, written
// by the agent's audit service. These commands only read it. The SQL texts are
// built by plain concatenation of the request values, exactly as received: a
// malformed value surfaces as an SQL error ("failed to read audit database").
// Because those values are not escaped, every journal connection is made
// read-only by policy: an authorizer admits plain SELECT statements over
// `logs` and nothing else, so a crafted value can make a query fail but can
// never change the journal, create a database or attach one
// (docs/journal.md, docs/security.md).
//
// The handlers HandleLog and HandleLogList are declared in aec_commands.h.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "host/ixml.h"

struct sqlite3_stmt;

namespace aec {

// One result row as SQLite produces it. Valid only during the row callback:
// the texts point into SQLite's own buffers.
class AuditRow {
 public:
  explicit AuditRow(sqlite3_stmt* statement);
  int Columns() const { return columns_; }
  // The text of column `index` up to its first NUL byte (the journal's values
  // are C strings to every reader); nullopt for SQL NULL or a column the row
  // does not have. Throws std::bad_alloc when SQLite cannot make the text.
  std::optional<std::string_view> Text(int index) const;

 private:
  sqlite3_stmt* statement_;
  int columns_;
};

using AuditRowHandler = std::function<void(const AuditRow&)>;

// What one journal read may cost. The SQL is built from request values, so
// a value can make SQLite build huge values, run for hours or collect an
// answer of gigabytes; each bound turns that into the read's ordinary
// failure, with a log line naming the bound (docs/security.md).
struct JournalReadLimits {
  // SQLITE_LIMIT_LENGTH: the longest text or blob a statement may make or
  // read (the journal holds paths and names).
  static constexpr int kMaxValueBytes = 1 << 20;
  // SQLITE_LIMIT_SQL_LENGTH: the longest statement text.
  static constexpr int kMaxSqlBytes = 1 << 20;
  // SQLITE_LIMIT_COMPOUND_SELECT, _EXPR_DEPTH, _FUNCTION_ARG.
  static constexpr int kMaxCompoundSelect = 4;
  static constexpr int kMaxExpressionDepth = 100;
  static constexpr int kMaxFunctionArguments = 8;
  // Page cache of the journal and of the temporary tables that DISTINCT and
  // sorting use, in KiB: beyond it they spill to temporary files.
  static constexpr int kCacheKib = 8 * 1024;
  // Wall-clock time one statement may run (a progress handler interrupts
  // it), and how long a read waits for a writer's lock to go.
  static constexpr int kTimeBudgetMs = 10 * 1000;
  static constexpr int kBusyTimeoutMs = 5 * 1000;
  // The text one reply may collect from the journal, in bytes.
  static constexpr std::size_t kMaxReplyBytes = 64u << 20;
};

// Whether the read-only policy lets a statement call the SQL function
// `name`: only functions whose result is no larger than their arguments
// (comparison, case, dates, aggregates); printf, char, replace, zeroblob,
// randomblob, hex, group_concat and all others are refused.
bool IsAllowedJournalFunction(const char* name);

// Throws PluginException with gettext("failed to read audit database"),
// after logging that the reply bound was hit, when `bytes` of collected
// journal text exceed JournalReadLimits::kMaxReplyBytes.
void CheckJournalReplyBytes(std::size_t bytes);

// Runs every statement of `sql` in turn against the journal and hands each
// result row to `on_row` as SQLite steps to it; nothing is buffered, so
// memory does not grow with the number of rows. (The journal's classic
// reader returned the whole table at once; the row callback replaces that
// table.) Like that reader, statements whose rows have a different number of
// columns than the first rows seen make the query fail.
//
// Opens its own connection with sqlite3_open's flags (so a missing journal
// file is created, empty) and closes it before returning, also on failure.
// Throws PluginException with gettext("failed to open audit database") when
// the database cannot be opened, and with gettext("failed to read audit
// database") when any statement cannot be prepared, is refused by the
// read-only policy, breaks one of JournalReadLimits or fails while stepping;
// both are logged first. A journal locked by a writer is waited for up to
// JournalReadLimits::kBusyTimeoutMs. An
// exception thrown by `on_row` passes through unchanged (after closing).
void QueryAuditDb(const std::string& sql, const AuditRowHandler& on_row);

// The outcome condition: null -> " AND success=0" (denied events only, on
// purpose), "all" -> "", "success" -> " AND success=1", anything else ->
// " AND success=0".
std::string ResultFilter(const char* operationresult);

// Runs "SELECT DISTINCT " + column + " FROM logs " + where and returns a new
// document holding the non-null values of the first column, in SQLite's
// order, as repeated values named `value_name`. Throws as QueryAuditDb.
boost::shared_ptr<IXml> DistinctColumn(const std::string& where,
                                       const std::string& column,
                                       const std::string& value_name);

// The WHERE clause of "loglist". Null arguments are absent values.
std::string LogListWhere(const char* inittime, const char* finaltime,
                         const char* operationresult);

// The conditions that "log" appends to both of its queries. Null arguments
// are absent values.
struct LogFilter {
  const char* inittime = nullptr;
  const char* finaltime = nullptr;
  const char* execfile = nullptr;
  const char* user = nullptr;
  const char* group = nullptr;
  const char* operationresult = nullptr;
};
std::string LogConditions(const LogFilter& filter);

// The two queries of "log": programs with their libraries (events 1050 to
// 1053), then programs of the file-opening events (1054, 1055), with their
// files only when `openfiles`.
std::string LogObjectsQuery(const std::string& conditions);
std::string LogFilesQuery(const std::string& conditions, bool openfiles);

// The object of a journal row without its framing: from the second character
// on, less the last two characters when at least two remain. An empty value
// stays empty.
std::string_view UnframeObjectName(std::string_view object_name);

}  // namespace aec
