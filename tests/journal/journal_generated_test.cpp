// The commands over a generated, realistic journal, checked against answers
// that SQLite computes on its own, and the generator's promises.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "aec_commands.h"
#include "journal_fixture.h"

namespace journal_test {
namespace {

class GeneratedJournalTest : public JournalTest {
 protected:
  void SetUp() override {
    shape_.rows = 20000;
    kxjournal::GenerateJournal(kJournalPath, shape_);
  }

  std::vector<std::string> Column(const std::string& sql) const {
    std::vector<std::string> values;
    for (const auto& row : PlainQuery(kJournalPath, sql)) {
      values.push_back(row.at(0));
    }
    return values;
  }

  kxjournal::JournalShape shape_;
};

TEST_F(GeneratedJournalTest, GeneratorWritesTheDocumentedShape) {
  EXPECT_EQ(Column("SELECT count(*) FROM logs"),
            std::vector<std::string>{"20000"});
  EXPECT_EQ(Column("SELECT count(*) FROM logs WHERE event_id < 1050 OR "
                   "event_id > 1055 OR typeof(date_time) <> 'integer' OR "
                   "date_time < " +
                   std::to_string(kxjournal::FirstTime(shape_)) +
                   " OR date_time >= " +
                   std::to_string(kxjournal::EndTime(shape_)) +
                   " OR object_name NOT LIKE '\"%\";'"),
            std::vector<std::string>{"0"});
  EXPECT_EQ(Column("SELECT count(DISTINCT event_id) FROM logs"),
            std::vector<std::string>{"6"});
  const int users = std::stoi(Column("SELECT count(DISTINCT username) FROM logs")[0]);
  EXPECT_GT(users, 250);
  EXPECT_LE(users, 300);
  const int programs = std::stoi(Column("SELECT count(DISTINCT app) FROM logs")[0]);
  EXPECT_GT(programs, 1000);
  const int denied =
      std::stoi(Column("SELECT count(*) FROM logs WHERE success = 0")[0]);
  EXPECT_GT(denied, 1500);
  EXPECT_LT(denied, 2500);
}

TEST_F(GeneratedJournalTest, LogListMatchesSqliteDistinctInItsOrder) {
  const std::string from = std::to_string(kxjournal::FirstTime(shape_) + 86400);
  const std::string to = std::to_string(kxjournal::FirstTime(shape_) + 5 * 86400);
  const Reply reply = RunCommand(aec::HandleLogList, "loglist",
                          {{"inittime", from},
                           {"finaltime", to},
                           {"users", "1"},
                           {"groups", "1"},
                           {"execfiles", "1"}});
  const auto& result = reply.Result("loglist");
  ASSERT_EQ(result.get<std::string>("result", ""), "1");
  const std::string where =
      " FROM logs WHERE event_id >= 1050 AND event_id <= 1055 AND success=0 "
      "AND date_time >= " + from + " AND date_time < " + to;
  EXPECT_EQ(Values(result.get_child("users"), "u"),
            Column("SELECT DISTINCT username" + where));
  EXPECT_EQ(Values(result.get_child("groups"), "g"),
            Column("SELECT DISTINCT groupname" + where));
  const auto programs = Values(result.get_child("execfiles"), "r");
  EXPECT_EQ(programs, Column("SELECT DISTINCT app" + where));
  EXPECT_GT(programs.size(), 100u);
}

TEST_F(GeneratedJournalTest, LogMatchesSqliteComputedObjects) {
  const Reply reply = RunCommand(aec::HandleLog, "log",
                          {{"operationresult", "all"}, {"openfiles", "1"}});
  const auto& result = reply.Result("log");
  ASSERT_EQ(result.get<std::string>("result", ""), "1");
  const auto got = Values(result.get_child("resources"), "r");
  const std::set<std::string> distinct(got.begin(), got.end());
  EXPECT_EQ(distinct.size(), got.size()) << "the reply repeats a value";
  const auto expected = Column(
      "SELECT app FROM logs WHERE event_id BETWEEN 1050 AND 1055 UNION "
      "SELECT substr(object_name, 2, length(object_name) - 3) FROM logs "
      "WHERE event_id BETWEEN 1050 AND 1055");
  EXPECT_EQ(distinct, std::set<std::string>(expected.begin(), expected.end()));
}

TEST_F(GeneratedJournalTest, LogForOneProgramAndUserMatchesSqlite) {
  const std::string app =
      Column("SELECT app FROM logs GROUP BY app ORDER BY count(*) DESC "
             "LIMIT 1")[0];
  const Reply reply = RunCommand(aec::HandleLog, "log",
                          {{"execfile", app}, {"user", "root"},
                           {"operationresult", "success"}});
  const auto got = Values(reply.Result("log").get_child("resources"), "r");
  const auto expected = Column(
      "SELECT app FROM logs WHERE event_id BETWEEN 1050 AND 1055 AND app = '" +
      app + "' AND username = 'root' AND success = 1 UNION SELECT "
      "substr(object_name, 2, length(object_name) - 3) FROM logs WHERE "
      "event_id BETWEEN 1050 AND 1053 AND app = '" + app +
      "' AND username = 'root' AND success = 1");
  EXPECT_GT(expected.size(), 1u);
  EXPECT_EQ(std::set<std::string>(got.begin(), got.end()),
            std::set<std::string>(expected.begin(), expected.end()));
}

}  // namespace
}  // namespace journal_test
