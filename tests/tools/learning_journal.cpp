#include "learning_journal.h"

#include <filesystem>
#include <stdexcept>

#include "journal_schema.h"

namespace toolstest {
namespace {

void Exec(sqlite3* db, const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    const std::string reason = message ? message : "?";
    sqlite3_free(message);
    throw std::runtime_error(std::string(sql) + ": " + reason);
  }
}

void Bind(sqlite3_stmt* statement, int index,
          const std::optional<std::string>& value) {
  if (value) {
    sqlite3_bind_text(statement, index, value->c_str(), -1, SQLITE_TRANSIENT);
  } else {
    sqlite3_bind_null(statement, index);
  }
}

}  // namespace

TestJournal::TestJournal() {
  std::filesystem::create_directories(
      std::filesystem::path(kJournal).parent_path());
  if (sqlite3_open(kJournal.c_str(), &db_) != SQLITE_OK) {
    throw std::runtime_error("cannot create " + kJournal);
  }
  std::string error;
  if (!aec::engine::EnsureJournalSchema(db_, &error)) {
    throw std::runtime_error(error);
  }
}

TestJournal::~TestJournal() { sqlite3_close(db_); }

void TestJournal::Add(const Row& row) {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(db_,
                     "INSERT INTO logs (event_id, date_time, app, object_name,"
                     " username, groupname, success)"
                     " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)",
                     -1, &statement, nullptr);
  sqlite3_bind_int(statement, 1, row.event_id);
  sqlite3_bind_int64(statement, 2, row.date_time);
  Bind(statement, 3, row.app);
  std::optional<std::string> framed;
  if (row.object) framed = "\"" + *row.object + "\";";
  Bind(statement, 4, framed);
  Bind(statement, 5, row.username);
  Bind(statement, 6, row.groupname);
  sqlite3_bind_int(statement, 7, row.success);
  const int rc = sqlite3_step(statement);
  sqlite3_finalize(statement);
  if (rc != SQLITE_DONE) throw std::runtime_error("insert into the journal");
}

void TestJournal::Lock() { Exec(db_, "BEGIN EXCLUSIVE"); }
void TestJournal::Unlock() { Exec(db_, "COMMIT"); }

void LearningTest::SetUp() {
  ToolsTest::SetUp();
  Seal();
  res_ = kResourceDir;
  tool_ = res_ + "tool";
  lib_ = res_ + "libx.so.1";
  // Real files, so the ELF headers and dependencies are the toolchain's.
  std::filesystem::copy_file("/bin/true", tool_);
  std::filesystem::copy_file(
      std::filesystem::canonical("/lib/x86_64-linux-gnu/libc.so.6"), lib_);
}

}  // namespace toolstest
