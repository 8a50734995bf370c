// The SQL texts of "log" and "loglist", to the character, and proof that the
// handlers run exactly these texts (seen in the log line of a failing query).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "aec_audit_journal.h"
#include "aec_commands.h"
#include "journal_fixture.h"

namespace journal_test {
namespace {

using aec::LogConditions;
using aec::LogFilesQuery;
using aec::LogFilter;
using aec::LogListWhere;
using aec::LogObjectsQuery;
using aec::ResultFilter;

TEST(ResultFilterTest, AbsentChoiceSelectsDeniedEventsOnly) {
  EXPECT_EQ(ResultFilter(nullptr), " AND success=0");
}

TEST(ResultFilterTest, AllSelectsBothOutcomes) {
  EXPECT_EQ(ResultFilter("all"), "");
}

TEST(ResultFilterTest, SuccessSelectsPermittedEvents) {
  EXPECT_EQ(ResultFilter("success"), " AND success=1");
}

TEST(ResultFilterTest, AnyOtherChoiceSelectsDeniedEvents) {
  EXPECT_EQ(ResultFilter("denied"), " AND success=0");
  EXPECT_EQ(ResultFilter("ALL"), " AND success=0");
  EXPECT_EQ(ResultFilter(""), " AND success=0");
  EXPECT_EQ(ResultFilter("success "), " AND success=0");
}

// Every combination of present and absent values of loglist.
TEST(LogListSqlTest, WhereClauseForEachCombinationOfValues) {
  const std::string base = "WHERE event_id >= 1050 AND event_id <= 1055";
  EXPECT_EQ(LogListWhere(nullptr, nullptr, nullptr), base + " AND success=0");
  EXPECT_EQ(LogListWhere("100", nullptr, nullptr),
            "WHERE event_id >= 1050 AND event_id <= 1055 AND success=0 AND "
            "date_time >= 100");
  EXPECT_EQ(LogListWhere(nullptr, "200", nullptr),
            "WHERE event_id >= 1050 AND event_id <= 1055 AND success=0 AND "
            "date_time < 200");
  EXPECT_EQ(LogListWhere("100", "200", nullptr),
            "WHERE event_id >= 1050 AND event_id <= 1055 AND success=0 AND "
            "date_time >= 100 AND date_time < 200");
  EXPECT_EQ(LogListWhere(nullptr, nullptr, "all"),
            "WHERE event_id >= 1050 AND event_id <= 1055");
  EXPECT_EQ(LogListWhere("100", nullptr, "all"),
            "WHERE event_id >= 1050 AND event_id <= 1055 AND date_time >= 100");
  EXPECT_EQ(LogListWhere(nullptr, "200", "success"),
            "WHERE event_id >= 1050 AND event_id <= 1055 AND success=1 AND "
            "date_time < 200");
  EXPECT_EQ(LogListWhere("100", "200", "success"),
            "WHERE event_id >= 1050 AND event_id <= 1055 AND success=1 AND "
            "date_time >= 100 AND date_time < 200");
  EXPECT_EQ(LogListWhere("'2026-11-21 10:00:00'", "'2026-11-22'", "all"),
            "WHERE event_id >= 1050 AND event_id <= 1055 AND date_time >= "
            "'2026-11-21 10:00:00' AND date_time < '2026-11-22'");
}

TEST(LogListSqlTest, EmptyTimeBoundStillAddsItsCondition) {
  EXPECT_EQ(LogListWhere("", "", "all"),
            "WHERE event_id >= 1050 AND event_id <= 1055 AND date_time >=  AND "
            "date_time < ");
}

// The five optional conditions of log, in all 32 combinations: each present
// value adds its own fragment, always in the same order.
TEST(LogSqlTest, ConditionsForEachCombinationOfValues) {
  const char* const kValues[] = {"100", "200", "/usr/bin/make", "alice",
                                 "staff"};
  const char* const kFragments[] = {
      " AND date_time >= 100", " AND date_time < 200",
      " AND app = '/usr/bin/make'", " AND username = 'alice'",
      " AND groupname = 'staff'"};
  for (int mask = 0; mask < 32; ++mask) {
    LogFilter filter;
    const char** fields[] = {&filter.inittime, &filter.finaltime,
                             &filter.execfile, &filter.user, &filter.group};
    std::string expected = " AND success=0";
    for (int bit = 0; bit < 5; ++bit) {
      if (mask & (1 << bit)) {
        *fields[bit] = kValues[bit];
        expected += kFragments[bit];
      }
    }
    EXPECT_EQ(LogConditions(filter), expected) << "combination " << mask;
  }
}

TEST(LogSqlTest, OutcomeChoiceComesFirst) {
  LogFilter filter;
  filter.operationresult = "all";
  filter.user = "bob";
  EXPECT_EQ(LogConditions(filter), " AND username = 'bob'");
  filter.operationresult = "success";
  EXPECT_EQ(LogConditions(filter), " AND success=1 AND username = 'bob'");
}

TEST(LogSqlTest, NamesAreQuotedButNeverEscaped) {
  LogFilter filter;
  filter.operationresult = "all";
  filter.user = "o'brien";
  filter.group = "";
  EXPECT_EQ(LogConditions(filter),
            " AND username = 'o'brien' AND groupname = ''");
}

TEST(LogSqlTest, QueriesOfBothEventRanges) {
  EXPECT_EQ(LogObjectsQuery(" AND success=0"),
            "SELECT app, object_name FROM logs WHERE event_id >= 1050 AND "
            "event_id <= 1053 AND success=0");
  EXPECT_EQ(LogFilesQuery(" AND success=0", false),
            "SELECT app FROM logs WHERE event_id >= 1054 AND event_id <= 1055 "
            "AND success=0");
  EXPECT_EQ(LogFilesQuery(" AND success=0", true),
            "SELECT app, object_name FROM logs WHERE event_id >= 1054 AND "
            "event_id <= 1055 AND success=0");
  EXPECT_EQ(LogObjectsQuery(""),
            "SELECT app, object_name FROM logs WHERE event_id >= 1050 AND "
            "event_id <= 1053");
}

// The handlers' own texts, as the failure log line shows them.

class HandlerSqlTest : public JournalTest {
 protected:
  // An existing journal without the logs table: every query fails at once.
  void SetUp() override { kxtest::WriteFile(kJournalPath, ""); }

  std::string FailedQuery() const {
    const std::string marker = "(query: ";
    std::string found;
    int count = 0;
    for (const auto& line : log_.Lines()) {
      const auto at = line.find(marker);
      if (at == std::string::npos) continue;
      found = line.substr(at + marker.size());
      ++count;
    }
    EXPECT_EQ(count, 1) << "one failing query expected";
    return found;
  }
};

TEST_F(HandlerSqlTest, LogRunsTheObjectsQueryWithAllConditions) {
  RunCommand(aec::HandleLog, "log",
      {{"inittime", "100"},
       {"finaltime", "200"},
       {"execfile", "/usr/bin/make"},
       {"user", "alice"},
       {"group", "staff"},
       {"operationresult", "success"}});
  EXPECT_EQ(FailedQuery(),
            "SELECT app, object_name FROM logs WHERE event_id >= 1050 AND "
            "event_id <= 1053 AND success=1 AND date_time >= 100 AND date_time "
            "< 200 AND app = '/usr/bin/make' AND username = 'alice' AND "
            "groupname = 'staff'");
}

TEST_F(HandlerSqlTest, LogWithoutValuesRunsTheDeniedObjectsQuery) {
  RunCommand(aec::HandleLog, "log", {});
  EXPECT_EQ(FailedQuery(),
            "SELECT app, object_name FROM logs WHERE event_id >= 1050 AND "
            "event_id <= 1053 AND success=0");
}

TEST_F(HandlerSqlTest, LogWithSomeValuesLeavesTheAbsentOnesOut) {
  RunCommand(aec::HandleLog, "log",
      {{"user", "alice"}, {"finaltime", "200"}, {"operationresult", "all"}});
  EXPECT_EQ(FailedQuery(),
            "SELECT app, object_name FROM logs WHERE event_id >= 1050 AND "
            "event_id <= 1053 AND date_time < 200 AND username = 'alice'");
}

TEST_F(HandlerSqlTest, LogListUsersQuery) {
  RunCommand(aec::HandleLogList, "loglist",
      {{"users", "1"}, {"groups", "1"}, {"inittime", "5"}});
  EXPECT_EQ(FailedQuery(),
            "SELECT DISTINCT username FROM logs WHERE event_id >= 1050 AND "
            "event_id <= 1055 AND success=0 AND date_time >= 5");
}

TEST_F(HandlerSqlTest, LogListGroupsQuery) {
  RunCommand(aec::HandleLogList, "loglist",
      {{"groups", "1"}, {"finaltime", "9"}, {"operationresult", "all"}});
  EXPECT_EQ(FailedQuery(),
            "SELECT DISTINCT groupname FROM logs WHERE event_id >= 1050 AND "
            "event_id <= 1055 AND date_time < 9");
}

TEST_F(HandlerSqlTest, LogListProgramsQuery) {
  RunCommand(aec::HandleLogList, "loglist",
      {{"execfiles", "1"}, {"operationresult", "success"}});
  EXPECT_EQ(FailedQuery(),
            "SELECT DISTINCT app FROM logs WHERE event_id >= 1050 AND "
            "event_id <= 1055 AND success=1");
}

// The second query of log: `logs` is a view whose program column fails for
// file-opening events only, so the first query passes and the second fails.
class SecondQuerySqlTest : public JournalTest {
 protected:
  void SetUp() override {
    kxtest::WriteFile(kJournalPath, "");
    PlainQuery(kJournalPath,
               "CREATE TABLE raw_logs (event_id INTEGER, date_time INTEGER, app "
               "TEXT, object_name TEXT, username TEXT, groupname TEXT, success "
               "INTEGER);"
               "INSERT INTO raw_logs VALUES (1051, 10, '/bin/a', '\"/lib/x\";', "
               "'alice', 'staff', 0);"
               "INSERT INTO raw_logs VALUES (1054, 10, '/bin/b', '\"/etc/y\";', "
               "'alice', 'staff', 0);"
               "CREATE VIEW logs AS SELECT event_id, date_time, CASE WHEN "
               "event_id >= 1054 THEN abs(-9223372036854775807 - 1) ELSE app "
               "END AS app, object_name, username, groupname, success FROM "
               "raw_logs;");
  }

  std::string FailedQuery() const {
    const std::string marker = "(query: ";
    for (const auto& line : log_.Lines()) {
      const auto at = line.find(marker);
      if (at != std::string::npos) return line.substr(at + marker.size());
    }
    ADD_FAILURE() << "no failing query logged";
    return "";
  }
};

TEST_F(SecondQuerySqlTest, LogWithoutOpenFilesAsksOnlyForPrograms) {
  const Reply reply = RunCommand(aec::HandleLog, "log", {{"inittime", "1"}});
  EXPECT_EQ(reply.Result("log").get<std::string>("error_desc", ""),
            "failed to read audit database");
  EXPECT_EQ(FailedQuery(),
            "SELECT app FROM logs WHERE event_id >= 1054 AND event_id <= 1055 "
            "AND success=0 AND date_time >= 1");
}

TEST_F(SecondQuerySqlTest, LogWithOpenFilesAsksForProgramsAndFiles) {
  RunCommand(aec::HandleLog, "log",
      {{"openfiles", "1"}, {"group", "staff"}, {"operationresult", "all"}});
  EXPECT_EQ(FailedQuery(),
            "SELECT app, object_name FROM logs WHERE event_id >= 1054 AND "
            "event_id <= 1055 AND groupname = 'staff'");
}

}  // namespace
}  // namespace journal_test
