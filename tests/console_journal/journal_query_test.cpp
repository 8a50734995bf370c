// Filtered, paged reads of the journal: what each filter selects, the order,
// the pages, what NULL and framed columns read as, and how a missing, foreign
// or busy journal is met.
#include <sqlite3.h>

#include <chrono>
#include <fstream>
#include <sstream>

#include "console_journal_fixture.h"
#include "journal_connection.h"
#include "journal_writer.h"
#include "support/kxtest.h"

namespace console_journal_test {
namespace {

using kxconsole::JournalFilter;
using kxconsole::JournalPage;
using Ids64 = std::vector<int64_t>;

void Exec(const std::string& path, const std::string& sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  char* message = nullptr;
  const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message);
  const std::string text = message != nullptr ? message : "";
  sqlite3_free(message);
  sqlite3_close(db);
  ASSERT_EQ(rc, SQLITE_OK) << sql << ": " << text;
}

class QueryTest : public ConsoleJournalTest {
 protected:
  // Ids 1..8; 7 is not an execution-control event.
  void BuildSample() {
    Build(
        {Row(1050, 1000, "/usr/bin/make", "/usr/bin/make", "alice", "staff", 1),
         Row(1051, 1010, "/usr/bin/ssh", "/usr/bin/ssh", "bob", "users", 0),
         Row(1052, 1020, "/usr/bin/make", "/lib/libc.so.6", "alice", "staff",
             1),
         Row(1053, 1030, "/usr/bin/ssh", "/lib/libcrypto.so", "bob", "staff",
             0),
         Row(1054, 1040, "/usr/bin/vi", "/etc/passwd", "carol", "users", 1),
         Row(1055, 1050, "/usr/bin/vi", "/etc/shadow", "carol", "wheel", 0),
         Row(1060, 1060, "/usr/bin/vi", "/etc/hosts", "carol", "wheel", 0),
         Row(1051, 1070, "/usr/bin/make", "/usr/bin/make", "alice", "users",
             0)});
  }
};

TEST_F(QueryTest, WithoutFiltersEveryExecutionControlEventNewestFirst) {
  BuildSample();
  const JournalPage page = Query({});
  EXPECT_FALSE(page.missing);
  EXPECT_EQ(page.total, 7);
  EXPECT_EQ(Ids(page), (Ids64{8, 6, 5, 4, 3, 2, 1}));
}

TEST_F(QueryTest, EachEventWordSelectsItsPermittedAndDeniedEvents) {
  BuildSample();
  JournalFilter filter;
  filter.event = "exec";
  EXPECT_EQ(MatchingIds(filter), (Ids64{8, 2, 1}));
  filter.event = "library";
  EXPECT_EQ(MatchingIds(filter), (Ids64{4, 3}));
  filter.event = "file";
  EXPECT_EQ(MatchingIds(filter), (Ids64{6, 5}));
}

TEST_F(QueryTest, OutcomeSelectsBySuccess) {
  BuildSample();
  JournalFilter filter;
  filter.outcome = "denied";
  EXPECT_EQ(MatchingIds(filter), (Ids64{8, 6, 4, 2}));
  filter.outcome = "allowed";
  EXPECT_EQ(MatchingIds(filter), (Ids64{5, 3, 1}));
}

TEST_F(QueryTest, UserGroupAndProgramMatchExactly) {
  BuildSample();
  JournalFilter filter;
  filter.user = "alice";
  EXPECT_EQ(MatchingIds(filter), (Ids64{8, 3, 1}));
  filter.user = "ALICE";
  EXPECT_EQ(MatchingIds(filter), Ids64{});
  filter.user = "";
  filter.group = "staff";
  EXPECT_EQ(MatchingIds(filter), (Ids64{4, 3, 1}));
  filter.group = "";
  filter.program = "/usr/bin/vi";
  EXPECT_EQ(MatchingIds(filter), (Ids64{6, 5}));
  filter.program = "/usr/bin/v";
  EXPECT_EQ(MatchingIds(filter), Ids64{});
}

TEST_F(QueryTest, CombinedFiltersMustAllMatch) {
  BuildSample();
  JournalFilter filter;
  filter.user = "alice";
  filter.outcome = "denied";
  EXPECT_EQ(MatchingIds(filter), (Ids64{8}));
  filter = {};
  filter.user = "bob";
  filter.group = "staff";
  filter.event = "library";
  filter.program = "/usr/bin/ssh";
  filter.outcome = "denied";
  filter.since = 1030;
  filter.until = 1031;
  EXPECT_EQ(MatchingIds(filter), (Ids64{4}));
  filter.outcome = "allowed";
  EXPECT_EQ(MatchingIds(filter), Ids64{});
}

TEST_F(QueryTest, SinceIsIncludedAndUntilIsNot) {
  BuildSample();
  JournalFilter filter;
  filter.since = 1020;
  filter.until = 1050;
  EXPECT_EQ(MatchingIds(filter), (Ids64{5, 4, 3}));
  filter.until = 1020;
  EXPECT_EQ(MatchingIds(filter), Ids64{});
  filter.until.reset();
  filter.since = 1050;
  EXPECT_EQ(MatchingIds(filter), (Ids64{8, 6}));
  filter.since.reset();
  filter.until = 1010;
  EXPECT_EQ(MatchingIds(filter), (Ids64{1}));
}

TEST_F(QueryTest, RowsOfTheSameSecondComeInReverseJournalOrder) {
  Build({Row(1050, 500), Row(1050, 600), Row(1050, 500), Row(1050, 600)});
  EXPECT_EQ(MatchingIds({}), (Ids64{4, 2, 3, 1}));
}

TEST_F(QueryTest, PagesSplitTheRowsWithoutOverlapAndEachCarriesTheTotal) {
  std::vector<kxjournal::JournalRow> rows;
  // Pairs of rows share a second, so that pages cut through ties.
  for (int i = 0; i < 23; ++i) rows.push_back(Row(1051, 100 + i / 2));
  Build(rows);
  JournalFilter filter;
  filter.per_page = 5;
  Ids64 all;
  for (int page = 1; page <= 5; ++page) {
    filter.page = page;
    const JournalPage result = Query(filter);
    EXPECT_EQ(result.total, 23);
    EXPECT_EQ(result.rows.size(), page < 5 ? 5u : 3u) << "page " << page;
    const Ids64 ids = Ids(result);
    all.insert(all.end(), ids.begin(), ids.end());
  }
  Ids64 expected;
  for (int64_t id = 23; id >= 1; --id) expected.push_back(id);
  // Newest second first and the later row first within a second: the ids
  // from 23 down to 1.
  EXPECT_EQ(all, expected);
  filter.page = 6;
  const JournalPage beyond = Query(filter);
  EXPECT_EQ(beyond.total, 23);
  EXPECT_TRUE(beyond.rows.empty());
}

TEST_F(QueryTest, EveryColumnOfARowIsRead) {
  BuildSample();
  JournalFilter filter;
  filter.since = 1030;
  filter.until = 1031;
  const JournalPage page = Query(filter);
  ASSERT_EQ(page.rows.size(), 1u);
  const kxconsole::JournalRow& row = page.rows[0];
  EXPECT_EQ(row.id, 4);
  EXPECT_EQ(row.time, 1030);
  EXPECT_EQ(row.event_id, 1053);
  EXPECT_EQ(row.event, "library");
  EXPECT_EQ(row.outcome, "denied");
  EXPECT_EQ(row.program, "/usr/bin/ssh");
  EXPECT_EQ(row.object, "/lib/libcrypto.so");
  EXPECT_EQ(row.user, "bob");
  EXPECT_EQ(row.group, "staff");
}

TEST_F(QueryTest, NullColumnsReadAsEmptyTextAndZero) {
  kxjournal::JournalRow row;
  row.event_id = 1052;  // every text column NULL
  Build({row, Row(1050, 10)});
  Exec(journal_, "UPDATE logs SET success = NULL WHERE id = 1");
  const JournalPage page = Query({});
  ASSERT_EQ(page.rows.size(), 2u);
  // NULL sorts below every time, so the row without one comes last.
  const kxconsole::JournalRow& empty = page.rows[1];
  EXPECT_EQ(empty.id, 1);
  EXPECT_EQ(empty.time, 0);
  EXPECT_EQ(empty.event, "library");
  EXPECT_EQ(empty.outcome, "");
  EXPECT_EQ(empty.program, "");
  EXPECT_EQ(empty.object, "");
  EXPECT_EQ(empty.user, "");
  EXPECT_EQ(empty.group, "");
}

TEST_F(QueryTest, TheWritersFramingIsRemovedAndOtherObjectsShowAsStored) {
  std::vector<kxjournal::JournalRow> rows;
  for (const char* object :
       {"\"/lib/a.so\";", "\"/tmp/a\"b\";", "\"\";", "plain", "x", "\"/open"}) {
    kxjournal::JournalRow row = Row(1052, 1);
    row.object_name = object;
    rows.push_back(row);
  }
  Build(rows);
  std::vector<std::string> objects;
  for (const auto& row : Query({}).rows) objects.push_back(row.object);
  EXPECT_EQ(objects, (std::vector<std::string>{"\"/open", "x", "plain", "",
                                               "/tmp/a\"b", "/lib/a.so"}));
}

TEST_F(QueryTest, RowsWrittenByTheEnginesWriterReadBack) {
  {
    aec::engine::JournalWriter::Options options;
    options.path = journal_;
    options.flush_interval = std::chrono::milliseconds(5);
    options.log = [](int, const std::string&) {};
    aec::engine::JournalWriter writer(options);
    ASSERT_TRUE(writer.Submit(
        {2000, 1051, 0, "/usr/bin/curl", "/usr/bin/curl", "dave", "staff"}));
    ASSERT_TRUE(writer.Submit({2001, 1052, 1, "", "/lib/x.so", "", ""}));
  }  // the writer drains before it stops
  const JournalPage page = Query({});
  ASSERT_EQ(page.rows.size(), 2u);
  EXPECT_EQ(page.rows[0].program, "");
  EXPECT_EQ(page.rows[0].object, "/lib/x.so");
  EXPECT_EQ(page.rows[0].user, "");
  EXPECT_EQ(page.rows[0].group, "");
  EXPECT_EQ(page.rows[0].outcome, "allowed");
  EXPECT_EQ(page.rows[1].program, "/usr/bin/curl");
  EXPECT_EQ(page.rows[1].object, "/usr/bin/curl");
  EXPECT_EQ(page.rows[1].user, "dave");
  EXPECT_EQ(page.rows[1].outcome, "denied");
  EXPECT_EQ(page.rows[1].event, "exec");
}

TEST_F(QueryTest, AMissingJournalIsReportedAndNotCreated) {
  JournalFilter filter;
  filter.user = "alice";
  const JournalPage page = Query(filter);
  EXPECT_TRUE(page.missing);
  EXPECT_EQ(page.total, 0);
  EXPECT_TRUE(page.rows.empty());
  EXPECT_FALSE(kxtest::Exists(journal_));
  const JournalPage in_missing_dir =
      kxconsole::QueryJournal(dir_ + "/no/such/dir/audit_logs.db", filter);
  EXPECT_TRUE(in_missing_dir.missing);
  EXPECT_FALSE(kxtest::Exists(dir_ + "/no"));
}

TEST_F(QueryTest, AnEmptyFileIsAJournalNotSetUpYetAndStaysEmpty) {
  kxtest::WriteFile(journal_, "");
  EXPECT_TRUE(Query({}).missing);
  EXPECT_EQ(kxtest::ReadFile(journal_), "");
}

TEST_F(QueryTest, AFileThatIsNoDatabaseIsAnErrorNamingIt) {
  kxtest::WriteFile(journal_, std::string(4096, 'x'));
  const std::string error = QueryError({});
  EXPECT_NE(error.find(journal_), std::string::npos) << error;
  EXPECT_NE(error.find("not a database"), std::string::npos) << error;
}

TEST_F(QueryTest, ReadingLeavesTheJournalFileAsItWas) {
  BuildSample();
  const std::string before = kxtest::ReadFile(journal_);
  JournalFilter filter;
  filter.user = "alice";
  Query(filter);
  std::ostringstream csv;
  kxconsole::WriteJournalCsv(journal_, filter, csv);
  kxconsole::DenialChart(journal_, filter, 10, nullptr);
  kxconsole::CountDenials(journal_, 0, 5000);
  EXPECT_EQ(kxtest::ReadFile(journal_), before);
}

TEST_F(QueryTest, AJournalInTheMiddleOfAWriteStillReadsItsLastCommit) {
  BuildSample();
  Exec(journal_, "PRAGMA journal_mode=WAL");
  sqlite3* writer = nullptr;
  ASSERT_EQ(sqlite3_open(journal_.c_str(), &writer), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(writer,
                         "BEGIN IMMEDIATE; INSERT INTO logs (event_id, "
                         "date_time, success) VALUES (1051, 9000, 0)",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  const auto start = std::chrono::steady_clock::now();
  const JournalPage during = Query({});
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(during.total, 7);
  // Waiting for the writer would have taken the busy timeout (2 s).
  EXPECT_LT(waited, std::chrono::seconds(1));
  ASSERT_EQ(sqlite3_exec(writer, "COMMIT", nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(writer);
  const JournalPage after = Query({});
  EXPECT_EQ(after.total, 8);
  ASSERT_FALSE(after.rows.empty());
  EXPECT_EQ(after.rows[0].time, 9000);
}

TEST_F(QueryTest, InvalidFiltersAreRefusedWithTheReason) {
  BuildSample();
  JournalFilter filter;
  filter.event = "execs";
  EXPECT_NE(QueryError(filter).find("unknown event \"execs\""),
            std::string::npos);
  filter = {};
  filter.outcome = "success";
  EXPECT_NE(QueryError(filter).find("unknown outcome \"success\""),
            std::string::npos);
  filter = {};
  filter.page = 0;
  EXPECT_NE(QueryError(filter).find("page must be 1 or more"),
            std::string::npos);
  for (const int per_page : {0, -1, 501}) {
    filter = {};
    filter.per_page = per_page;
    EXPECT_NE(QueryError(filter).find("per_page must be between 1 and 500"),
              std::string::npos)
        << per_page;
  }
  filter = {};
  filter.since = 2000;
  filter.until = 1999;
  EXPECT_NE(QueryError(filter).find("since (2000) is after until (1999)"),
            std::string::npos);
  filter = {};
  filter.since = -1;
  EXPECT_NE(QueryError(filter).find("since must be a time between 0"),
            std::string::npos);
  filter = {};
  filter.until = 253402300800;
  EXPECT_NE(QueryError(filter).find("until must be a time between 0"),
            std::string::npos);
}

TEST_F(QueryTest, TheLimitsOfPagingAreAccepted) {
  BuildSample();
  JournalFilter filter;
  filter.per_page = 1;
  EXPECT_EQ(Ids(Query(filter)), (Ids64{8}));
  filter.per_page = 500;
  filter.page = 2147483647;
  const JournalPage far = Query(filter);
  EXPECT_EQ(far.total, 7);
  EXPECT_TRUE(far.rows.empty());
}

TEST_F(QueryTest, AValueThatLooksLikeSqlMatchesOnlyItselfAsText) {
  BuildSample();
  JournalFilter filter;
  filter.user = "x' OR 1=1 --";
  EXPECT_EQ(Query(filter).total, 0);
  filter.user = "";
  filter.program = "' OR ''='";
  EXPECT_EQ(Query(filter).total, 0);
  Build({Row(1051, 5, "/usr/bin/make", "/usr/bin/make", "x' OR 1=1 --"),
         Row(1051, 6)});
  filter = {};
  filter.user = "x' OR 1=1 --";
  EXPECT_EQ(MatchingIds(filter), (Ids64{1}));
}

TEST_F(QueryTest, AReadPastItsBudgetIsStoppedWithTheReason) {
  BuildSample();
  kxconsole::detail::JournalConnection connection(journal_,
                                                  std::chrono::milliseconds(0));
  kxconsole::detail::Statement endless = connection.Prepare(
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) "
      "SELECT count(*) FROM n",
      {});
  try {
    endless.Step();
    ADD_FAILURE() << "the statement was not stopped";
  } catch (const kxconsole::JournalError& e) {
    EXPECT_NE(std::string(e.what()).find("took longer than 0 ms"),
              std::string::npos)
        << e.what();
  }
}

}  // namespace
}  // namespace console_journal_test
