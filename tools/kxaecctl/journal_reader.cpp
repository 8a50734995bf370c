#include "journal_reader.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>

#include "for_each_in_parallel.h"
#include "tool_error.h"
#include "tool_threads.h"

namespace aectool {
namespace {

// The writer commits in short batches; a reader waits this long for one to
// end before calling the journal locked.
constexpr int kBusyWaitMs = 2000;

class Connection {
 public:
  explicit Connection(const std::string& path) {
    const int rc =
        sqlite3_open_v2(path.c_str(), &db_,
                        SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) Fail("cannot open the journal " + path);
    sqlite3_busy_timeout(db_, kBusyWaitMs);
  }
  ~Connection() {
    sqlite3_finalize(statement_);
    sqlite3_close(db_);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  sqlite3_stmt* Prepare(const std::string& sql) {
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement_, nullptr) !=
        SQLITE_OK) {
      Fail("cannot read the journal");
    }
    return statement_;
  }

  [[noreturn]] void Fail(const std::string& what) {
    const int code = db_ ? sqlite3_errcode(db_) : SQLITE_CANTOPEN;
    std::string reason = what + ": ";
    if (code == SQLITE_BUSY || code == SQLITE_LOCKED) {
      reason += "it is locked by its writer; try again later";
    } else {
      reason += db_ ? sqlite3_errmsg(db_) : "out of memory";
    }
    throw ToolError(Exit::kUnknownError, reason);
  }

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* statement_ = nullptr;
};

// The framing the journal puts around an object: a quote before, a quote
// and a semicolon after.
void Unframe(const std::string& framed, std::string* object) {
  const std::size_t length = framed.size();
  if (length >= 3 && framed[0] == '"' && framed[length - 2] == '"' &&
      framed[length - 1] == ';') {
    object->assign(framed, 1, length - 3);
  } else {
    object->assign(framed);
  }
}

bool Text(sqlite3_stmt* statement, int column, std::string* out) {
  const unsigned char* text = sqlite3_column_text(statement, column);
  if (text == nullptr) return false;
  out->assign(reinterpret_cast<const char*>(text),
              sqlite3_column_bytes(statement, column));
  return true;
}

}  // namespace

const std::string& JournalPath() {
  static const std::string path = "/opt/korvex/var/log/audit_logs.db";
  return path;
}

std::int64_t ParseJournalTime(const std::string& option,
                              const std::string& value) {
  errno = 0;
  char* end = nullptr;
  const long long seconds = std::strtoll(value.c_str(), &end, 10);
  if (value.empty() || *end != '\0' || errno != 0 || seconds < 0) {
    throw ToolError(
        Exit::kInvalidDateTime,
        option + " takes whole seconds since the epoch, not '" + value + "'");
  }
  return seconds;
}

namespace {

struct IdRange {
  std::int64_t first = 0;  // ids from first
  std::int64_t last = 0;   // to last, both included
};

void RequireJournal(const std::string& path) {
  struct stat status;
  if (::stat(path.c_str(), &status) != 0) {
    throw ToolError(Exit::kConfigMissing,
                    "the journal " + path + " does not exist");
  }
}

JournalScan ScanRange(const std::string& path, const JournalFilter& filter,
                      const std::optional<IdRange>& ids,
                      const std::function<void(const JournalRow&)>& on_row) {
  std::string sql =
      "SELECT event_id, date_time, app, object_name, username, groupname, "
      "success FROM logs WHERE event_id IN (";
  for (std::size_t i = 0; i < filter.event_ids.size(); ++i) {
    sql += (i ? "," : "") + std::to_string(filter.event_ids[i]);
  }
  sql += ")";
  if (filter.denied_only) sql += " AND success = 0";
  if (filter.since) sql += " AND date_time >= ?1";
  if (filter.until) sql += " AND date_time < ?2";
  if (filter.user) sql += " AND username = ?3";
  if (filter.group) sql += " AND groupname = ?4";
  if (ids) sql += " AND id >= ?5 AND id <= ?6";
  sql += " ORDER BY id";

  Connection connection(path);
  sqlite3_stmt* statement = connection.Prepare(sql);
  if (filter.since) sqlite3_bind_int64(statement, 1, *filter.since);
  if (filter.until) sqlite3_bind_int64(statement, 2, *filter.until);
  if (filter.user) {
    sqlite3_bind_text(statement, 3, filter.user->c_str(), -1, SQLITE_STATIC);
  }
  if (filter.group) {
    sqlite3_bind_text(statement, 4, filter.group->c_str(), -1, SQLITE_STATIC);
  }
  if (ids) {
    sqlite3_bind_int64(statement, 5, ids->first);
    sqlite3_bind_int64(statement, 6, ids->last);
  }
  JournalScan scan;
  JournalRow row;
  std::string framed;
  for (;;) {
    const int rc = sqlite3_step(statement);
    if (rc == SQLITE_DONE) break;
    if (rc != SQLITE_ROW) connection.Fail("cannot read the journal");
    row.event_id = sqlite3_column_int(statement, 0);
    row.date_time = sqlite3_column_int64(statement, 1);
    row.success = sqlite3_column_int(statement, 6);
    const bool complete =
        Text(statement, 2, &row.app) && Text(statement, 3, &framed) &&
        Text(statement, 4, &row.username) && !row.app.empty() &&
        !framed.empty() && !row.username.empty();
    if (!complete) {
      ++scan.incomplete;
      continue;
    }
    Unframe(framed, &row.object);
    if (!Text(statement, 5, &row.groupname)) row.groupname.clear();
    ++scan.rows;
    on_row(row);
  }
  return scan;
}

}  // namespace

// Each bound its own query: SQLite answers a lone min() or max() of the
// key from one end of the table, but both in one query by reading it all.
const char* const kIdBoundsSql =
    "SELECT (SELECT min(id) FROM logs), (SELECT max(id) FROM logs)";

namespace {

// The ids the journal holds, cut into at most `parts` successive ranges
// of about the same width; none when it holds no rows.
std::vector<IdRange> IdRanges(const std::string& path, std::size_t parts) {
  Connection connection(path);
  sqlite3_stmt* statement = connection.Prepare(kIdBoundsSql);
  if (sqlite3_step(statement) != SQLITE_ROW) {
    connection.Fail("cannot read the journal");
  }
  std::vector<IdRange> ranges;
  if (sqlite3_column_type(statement, 0) == SQLITE_NULL) return ranges;
  const std::int64_t first = sqlite3_column_int64(statement, 0);
  const std::int64_t last = sqlite3_column_int64(statement, 1);
  // Offsets from `first` in unsigned arithmetic: ids may span the whole
  // int64 range.
  const std::uint64_t widest =
      static_cast<std::uint64_t>(last) - static_cast<std::uint64_t>(first);
  const std::uint64_t count = widest < parts - 1 ? widest + 1 : parts;
  const std::uint64_t step = widest / count + 1;
  for (std::uint64_t offset = 0; offset <= widest; offset += step) {
    IdRange range;
    range.first =
        static_cast<std::int64_t>(static_cast<std::uint64_t>(first) + offset);
    range.last = widest - offset < step
                     ? last
                     : static_cast<std::int64_t>(
                           static_cast<std::uint64_t>(range.first) + step - 1);
    ranges.push_back(range);
    if (range.last == last) break;
  }
  return ranges;
}

}  // namespace

JournalScan ScanJournal(const std::string& path, const JournalFilter& filter,
                        const std::function<void(const JournalRow&)>& on_row) {
  RequireJournal(path);
  return ScanRange(path, filter, std::nullopt, on_row);
}

JournalScan ScanJournalInParts(
    const std::string& path, const JournalFilter& filter,
    const std::function<void(std::size_t, const JournalRow&)>& on_row) {
  RequireJournal(path);
  const std::vector<IdRange> ranges = IdRanges(
      path,
      aec::WorkerCount(std::numeric_limits<std::size_t>::max(), kToolThreads));
  std::vector<JournalScan> scans(ranges.size());
  aec::ForEachInParallel(ranges.size(), kToolThreads, [&](std::size_t part) {
    scans[part] = ScanRange(path, filter, ranges[part],
                            [&](const JournalRow& row) { on_row(part, row); });
  });
  JournalScan total;
  for (const auto& scan : scans) {
    total.rows += scan.rows;
    total.incomplete += scan.incomplete;
  }
  return total;
}

}  // namespace aectool
