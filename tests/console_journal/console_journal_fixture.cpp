#include "console_journal_fixture.h"

#include <sqlite3.h>

#include <boost/filesystem.hpp>

#include "journal_schema.h"
#include "support/kxtest.h"

namespace console_journal_test {

kxjournal::JournalRow Row(int event_id, int64_t time,
                          const std::string& program, const std::string& object,
                          const std::string& user, const std::string& group,
                          int success) {
  return kxjournal::WriterRow(event_id, time, program, object, user, group,
                              success);
}

std::vector<int64_t> Ids(const kxconsole::JournalPage& page) {
  std::vector<int64_t> ids;
  for (const kxconsole::JournalRow& row : page.rows) ids.push_back(row.id);
  return ids;
}

void ConsoleJournalTest::SetUp() {
  dir_ = kxtest::MakeTempDir("kx-console-journal-");
  journal_ = dir_ + "/audit_logs.db";
}

void ConsoleJournalTest::TearDown() {
  boost::system::error_code ignored;
  boost::filesystem::remove_all(dir_, ignored);
}

void ConsoleJournalTest::Build(const std::vector<kxjournal::JournalRow>& rows) {
  kxjournal::WriteJournal(journal_, rows);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(journal_.c_str(), &db), SQLITE_OK);
  // The sample builder adds an index of its own; the journal under test
  // holds the writer's indexes and no others.
  std::string error = "cannot drop the sample index";
  const bool ok = sqlite3_exec(db, "DROP INDEX logs_date_time", nullptr,
                               nullptr, nullptr) == SQLITE_OK &&
                  aec::engine::EnsureJournalSchema(db, &error);
  sqlite3_close(db);
  ASSERT_TRUE(ok) << error;
}

kxconsole::JournalPage ConsoleJournalTest::Query(
    const kxconsole::JournalFilter& filter) {
  try {
    return kxconsole::QueryJournal(journal_, filter);
  } catch (const kxconsole::JournalError& e) {
    ADD_FAILURE() << "QueryJournal: " << e.what();
    return {};
  }
}

std::vector<int64_t> ConsoleJournalTest::MatchingIds(
    kxconsole::JournalFilter filter) {
  filter.page = 1;
  filter.per_page = 500;
  return Ids(Query(filter));
}

std::string ConsoleJournalTest::QueryError(
    const kxconsole::JournalFilter& filter) {
  try {
    kxconsole::QueryJournal(journal_, filter);
  } catch (const kxconsole::JournalError& e) {
    return e.what();
  }
  return "";
}

}  // namespace console_journal_test
