#include "journal_connection.h"

#include <sys/stat.h>

#include <cerrno>

namespace kxconsole::detail {

namespace {

// Long enough for the writer's checkpoint or a WAL recovery, short against
// the query budget.
constexpr int kBusyTimeoutMs = 2000;
// Virtual machine steps between two looks at the clock: often enough to stop
// within milliseconds, rarely enough to cost nothing measurable.
constexpr int kProgressSteps = 10000;

bool FileAbsent(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) != 0 &&
         (errno == ENOENT || errno == ENOTDIR);
}

}  // namespace

JournalConnection::JournalConnection(const std::string& path,
                                     std::chrono::milliseconds budget)
    : path_(path),
      deadline_(std::chrono::steady_clock::now() + budget),
      budget_(budget) {
  if (FileAbsent(path)) return;
  sqlite3* raw_db = nullptr;
  const int rc =
      sqlite3_open_v2(path.c_str(), &raw_db,
                      SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
  db_.reset(raw_db);  // a failed open still hands over a handle to close
  if (rc != SQLITE_OK) {
    // Removed between the look and the open: as missing as before.
    if (FileAbsent(path)) {
      db_.reset();
      return;
    }
    Fail("cannot open");
  }
  sqlite3_busy_timeout(db_.get(), kBusyTimeoutMs);
  sqlite3_progress_handler(db_.get(), kProgressSteps,
                           &JournalConnection::OnProgress, this);
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db_.get(),
                         "SELECT 1 FROM sqlite_master WHERE type = 'table' "
                         "AND name = 'logs'",
                         -1, &raw, nullptr) != SQLITE_OK) {
    Fail("cannot read");
  }
  const int step = sqlite3_step(raw);
  sqlite3_finalize(raw);
  if (step == SQLITE_DONE) {
    db_.reset();
  } else if (step != SQLITE_ROW) {
    Fail("cannot read");
  }
}

int JournalConnection::OnProgress(void* self) {
  auto* connection = static_cast<JournalConnection*>(self);
  if (std::chrono::steady_clock::now() < connection->deadline_) return 0;
  connection->timed_out_ = true;
  return 1;
}

void JournalConnection::Fail(const std::string& what) const {
  if (timed_out_) {
    throw JournalError(
        "reading the journal " + path_ + " took longer than " +
        std::to_string(budget_.count()) +
        " ms and was stopped; narrow the filter (a shorter time span, a "
        "user, a group or a program)");
  }
  const std::string reason = db_ ? sqlite3_errmsg(db_.get()) : "out of memory";
  throw JournalError(what + " the journal " + path_ + ": " + reason);
}

void JournalConnection::BeginRead() {
  if (sqlite3_exec(db_.get(), "BEGIN", nullptr, nullptr, nullptr) !=
      SQLITE_OK) {
    Fail("cannot read");
  }
}

Statement JournalConnection::Prepare(const std::string& sql,
                                     const std::vector<SqlValue>& values) {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db_.get(), sql.c_str(), static_cast<int>(sql.size()),
                         &raw, nullptr) != SQLITE_OK) {
    Fail("cannot read");
  }
  Statement statement(this, raw);
  if (sqlite3_bind_parameter_count(raw) != static_cast<int>(values.size())) {
    throw JournalError("journal query with " +
                       std::to_string(sqlite3_bind_parameter_count(raw)) +
                       " parameters given " + std::to_string(values.size()) +
                       " values");
  }
  int index = 1;
  for (const SqlValue& value : values) {
    int rc;
    if (const auto* number = std::get_if<int64_t>(&value)) {
      rc = sqlite3_bind_int64(raw, index, *number);
    } else {
      const std::string& text = std::get<std::string>(value);
      rc = sqlite3_bind_text64(raw, index, text.data(), text.size(),
                               SQLITE_TRANSIENT, SQLITE_UTF8);
    }
    if (rc != SQLITE_OK) Fail("cannot read");
    ++index;
  }
  return statement;
}

bool Statement::Step() {
  const int rc = sqlite3_step(statement_.get());
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  connection_->Fail("cannot read");
}

int64_t Statement::Int(int column) const {
  return sqlite3_column_int64(statement_.get(), column);
}

bool Statement::IsNull(int column) const {
  return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL;
}

std::string Statement::Text(int column) const {
  const auto* text = reinterpret_cast<const char*>(
      sqlite3_column_text(statement_.get(), column));
  if (text == nullptr) return std::string();
  return std::string(text, static_cast<size_t>(
                               sqlite3_column_bytes(statement_.get(), column)));
}

JournalRow ReadRow(const Statement& statement) {
  JournalRow row;
  row.id = statement.Int(0);
  row.time = statement.Int(1);
  row.event_id = statement.Int(2);
  row.event = EventWord(row.event_id);
  row.program = statement.Text(3);
  row.object = Unframe(statement.Text(4));
  row.user = statement.Text(5);
  row.group = statement.Text(6);
  if (!statement.IsNull(7)) {
    const int64_t success = statement.Int(7);
    row.outcome = success == 0 ? "denied" : success == 1 ? "allowed" : "";
  }
  return row;
}

std::string Unframe(std::string object) {
  const size_t n = object.size();
  if (n >= 3 && object[0] == '"' && object[n - 2] == '"' &&
      object[n - 1] == ';') {
    return object.substr(1, n - 3);
  }
  return object;
}

}  // namespace kxconsole::detail
