// Reading the audit journal for the learning commands, whole and in parts
// read at the same time.
#include "kxaecctl/journal_reader.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdint>
#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "kxaecctl/tool_error.h"
#include "kxtest.h"

namespace {

using aectool::JournalFilter;
using aectool::JournalRow;

// A journal of the columns the reader asks for. Each row's date_time is its
// id, so a test can tell which rows it got.
class Journal {
 public:
  explicit Journal(const std::string& path) {
    EXPECT_EQ(sqlite3_open(path.c_str(), &db_), SQLITE_OK);
    Exec(
        "CREATE TABLE logs (id INTEGER PRIMARY KEY, event_id INTEGER, "
        "date_time INTEGER, app TEXT, object_name TEXT, username TEXT, "
        "groupname TEXT, success INTEGER)");
  }
  ~Journal() { sqlite3_close(db_); }

  void Add(std::int64_t id, int event_id, int success) {
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db_,
                                 "INSERT INTO logs VALUES (?1, ?2, ?1, "
                                 "'/bin/app', '\"/lib/x\";', 'root', 'root', "
                                 "?3)",
                                 -1, &statement, nullptr),
              SQLITE_OK);
    sqlite3_bind_int64(statement, 1, id);
    sqlite3_bind_int(statement, 2, event_id);
    sqlite3_bind_int(statement, 3, success);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE);
    sqlite3_finalize(statement);
  }

  void Exec(const std::string& sql) {
    ASSERT_EQ(sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr),
              SQLITE_OK);
  }

 private:
  sqlite3* db_ = nullptr;
};

JournalFilter DeniedStarts() {
  JournalFilter filter;
  filter.event_ids = {1051};
  filter.denied_only = true;
  return filter;
}

// The ids each part handed over, in the order it handed them over.
std::map<std::size_t, std::vector<std::int64_t>> ScanParts(
    const std::string& path, const JournalFilter& filter,
    aectool::JournalScan* scan) {
  std::mutex mutex;
  std::map<std::size_t, std::vector<std::int64_t>> parts;
  *scan = aectool::ScanJournalInParts(
      path, filter, [&](std::size_t part, const JournalRow& row) {
        EXPECT_EQ(row.object, "/lib/x");  // the framing cut off
        std::lock_guard<std::mutex> lock(mutex);
        parts[part].push_back(row.date_time);
      });
  return parts;
}

class JournalReaderTest : public ::testing::Test {
 protected:
  void TearDown() override { boost::filesystem::remove_all(dir_); }

  std::string dir_ = kxtest::MakeTempDir("journal-reader");
  std::string path_ = dir_ + "/audit_logs.db";
};

}  // namespace

TEST_F(JournalReaderTest, PartsHandOverEveryMatchingRowOnceAndInOrderWithin) {
  std::vector<std::int64_t> wanted;
  {
    Journal journal(path_);
    journal.Exec("BEGIN");
    for (std::int64_t id = 1; id <= 3000; id += 1 + id % 3) {  // with gaps
      const bool match = id % 5 != 0;
      journal.Add(id, match ? 1051 : 1053, 0);
      if (match) wanted.push_back(id);
    }
    journal.Exec("COMMIT");
  }
  aectool::JournalScan scan;
  const auto parts = ScanParts(path_, DeniedStarts(), &scan);

  std::vector<std::int64_t> whole;
  aectool::ScanJournal(path_, DeniedStarts(), [&](const JournalRow& row) {
    whole.push_back(row.date_time);
  });
  EXPECT_EQ(whole, wanted);

  // Parts follow each other: within a part in journal order, and every id
  // of a part below every id of the next.
  std::vector<std::int64_t> joined;
  for (const auto& [part, ids] : parts) {
    ASSERT_FALSE(ids.empty());
    if (!joined.empty()) {
      EXPECT_LT(joined.back(), ids.front());
    }
    joined.insert(joined.end(), ids.begin(), ids.end());
  }
  EXPECT_EQ(joined, wanted);
  EXPECT_EQ(scan.rows, wanted.size());
  EXPECT_EQ(scan.incomplete, 0u);
}

TEST_F(JournalReaderTest, PartsOfAnEmptyJournalHandOverNothing) {
  { Journal journal(path_); }
  aectool::JournalScan scan;
  EXPECT_TRUE(ScanParts(path_, DeniedStarts(), &scan).empty());
  EXPECT_EQ(scan.rows, 0u);
}

TEST_F(JournalReaderTest, PartsReachIdsAtBothEndsOfTheirRange) {
  const std::vector<std::int64_t> ids = {
      std::numeric_limits<std::int64_t>::min(), -1, 0, 1,
      std::numeric_limits<std::int64_t>::max()};
  {
    Journal journal(path_);
    for (std::int64_t id : ids) journal.Add(id, 1051, 0);
  }
  aectool::JournalScan scan;
  std::vector<std::int64_t> joined;
  for (const auto& [part, got] : ScanParts(path_, DeniedStarts(), &scan)) {
    joined.insert(joined.end(), got.begin(), got.end());
  }
  EXPECT_EQ(joined, ids);
}

TEST_F(JournalReaderTest, ASingleRowIsHandedOverOnce) {
  {
    Journal journal(path_);
    journal.Add(42, 1051, 0);
  }
  aectool::JournalScan scan;
  const auto parts = ScanParts(path_, DeniedStarts(), &scan);
  ASSERT_EQ(parts.size(), 1u);
  EXPECT_EQ(parts.begin()->second, std::vector<std::int64_t>{42});
}

TEST_F(JournalReaderTest, PartsOfAMissingJournalAreRefusedAsMissing) {
  try {
    aectool::ScanJournalInParts(path_, DeniedStarts(),
                                [](std::size_t, const JournalRow&) {});
    FAIL() << "a missing journal was read";
  } catch (const aectool::ToolError& error) {
    EXPECT_EQ(error.code(), aectool::Exit::kConfigMissing);
  }
  EXPECT_NE(access(path_.c_str(), F_OK), 0);  // and not created
}

TEST_F(JournalReaderTest, FindingWhereToCutReadsNoTable) {
  Journal journal(path_);
  journal.Exec("CREATE INDEX logs_date_time ON logs(date_time)");
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path_.c_str(), &db), SQLITE_OK);
  sqlite3_stmt* plan = nullptr;
  ASSERT_EQ(
      sqlite3_prepare_v2(
          db,
          (std::string("EXPLAIN QUERY PLAN ") + aectool::kIdBoundsSql).c_str(),
          -1, &plan, nullptr),
      SQLITE_OK);
  int steps = 0;
  while (sqlite3_step(plan) == SQLITE_ROW) {
    const std::string detail =
        reinterpret_cast<const char*>(sqlite3_column_text(plan, 3));
    EXPECT_EQ(detail.find("SCAN logs"), std::string::npos) << detail;
    ++steps;
  }
  EXPECT_GT(steps, 0);
  sqlite3_finalize(plan);
  sqlite3_close(db);
}
