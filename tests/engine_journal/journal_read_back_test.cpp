// What the writer writes is what the plug-in's "log" and "loglist" answer,
// through kxhost in the sandboxed root, while the writer goes on writing;
// and the fixed SQL of those commands is served by the writer's indexes.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "writer_fixture.h"

namespace engine_journal_test {
namespace {

using journal_test::kJournalPath;
using journal_test::PlainQuery;
using journal_test::Values;

std::set<std::string> AsSet(const std::vector<std::string>& values) {
  return {values.begin(), values.end()};
}

class ReadBackTest : public WriterTest {
 protected:
  boost::property_tree::ptree Exec(const std::string& request) {
    return journal_test::ExecThroughKxhost(root_.dir(), request);
  }
};

TEST_F(ReadBackTest, LogAndLoglistReadWhatTheWriterWroteWhileItWrites) {
  JournalWriter writer(OptionsFor(kJournalPath));
  ASSERT_TRUE(writer.Submit(
      Event(1050, "/usr/bin/make", "/usr/bin/make", "alice", "staff", 0, 100)));
  ASSERT_TRUE(writer.Submit(Event(1051, "/usr/bin/make", "/lib/libc.so.6",
                                  "alice", "staff", 0, 110)));
  ASSERT_TRUE(writer.Submit(Event(1054, "/usr/bin/make", "/etc/make.conf",
                                  "alice", "staff", 0, 120)));
  ASSERT_TRUE(writer.Submit(
      Event(1050, "/usr/bin/ssh", "/usr/bin/ssh", "bob", "adm", 1, 130)));
  ASSERT_TRUE(WaitUntil([&] { return writer.GetStats().written == 4; }));

  // Rows keep coming (later times, another program) while the commands read.
  std::atomic<bool> stop{false};
  std::thread filler([&] {
    int64_t time = 10000;
    while (!stop.load()) {
      writer.Submit(Event(1050, "/usr/bin/filler", "/usr/bin/filler", "carol",
                          "ops", 0, time++));
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });
  const uint64_t written_before = writer.GetStats().written;

  const auto log_reply = Exec(
      "<request command=\"log\"><execfile>/usr/bin/make</execfile>"
      "<openfiles>1</openfiles><inittime>100</inittime>"
      "<finaltime>200</finaltime></request>");
  const auto loglist_reply = Exec(
      "<request command=\"loglist\"><users>1</users><execfiles>1</execfiles>"
      "<inittime>0</inittime><finaltime>1000</finaltime>"
      "<operationresult>all</operationresult></request>");
  const auto denied_reply = Exec(
      "<request command=\"loglist\"><execfiles>1</execfiles>"
      "<inittime>0</inittime><finaltime>1000</finaltime></request>");
  stop.store(true);
  filler.join();

  EXPECT_GT(writer.GetStats().written, written_before)
      << "the writer did not write while the commands read";
  const auto& log = log_reply.get_child("log");
  EXPECT_EQ(log.get<std::string>("result"), "1");
  EXPECT_EQ(AsSet(Values(log.get_child("resources"), "r")),
            (std::set<std::string>{"/usr/bin/make", "/lib/libc.so.6",
                                   "/etc/make.conf"}));
  const auto& list = loglist_reply.get_child("loglist");
  EXPECT_EQ(AsSet(Values(list.get_child("users"), "u")),
            (std::set<std::string>{"alice", "bob"}));
  EXPECT_EQ(AsSet(Values(list.get_child("execfiles"), "r")),
            (std::set<std::string>{"/usr/bin/make", "/usr/bin/ssh"}));
  EXPECT_EQ(AsSet(Values(
                denied_reply.get_child("loglist").get_child("execfiles"), "r")),
            (std::set<std::string>{"/usr/bin/make"}));
}

// The query plan of `sql` on the journal, one detail per line.
std::string PlanOf(const std::string& sql) {
  std::string plan;
  for (const auto& row :
       PlainQuery(kJournalPath, "EXPLAIN QUERY PLAN " + sql)) {
    plan += row.back() + "\n";
  }
  return plan;
}

constexpr const char* kLoglistHour =
    "SELECT DISTINCT username FROM logs WHERE event_id >= 1050 AND "
    "event_id <= 1055 AND date_time >= 1793494800 AND date_time < 1793498400";
constexpr const char* kLogByApp =
    "SELECT app, object_name FROM logs WHERE event_id >= 1050 AND "
    "event_id <= 1053 AND success=0 AND date_time >= 1793494800 AND "
    "date_time < 1793498400 AND app = '/usr/bin/make'";
constexpr const char* kLogByUser =
    "SELECT app, object_name FROM logs WHERE event_id >= 1050 AND "
    "event_id <= 1053 AND username = 'alice'";

constexpr const char* kLogByGroup =
    "SELECT app, object_name FROM logs WHERE event_id >= 1050 AND "
    "event_id <= 1053 AND groupname = 'staff'";

TEST_F(ReadBackTest, TheQueryCommandsFiltersUseTheWritersIndexes) {
  {
    JournalWriter writer(OptionsFor(kJournalPath));
    for (int i = 0; i < 3000; ++i) {
      ASSERT_TRUE(writer.Submit(Event(
          1050 + i % 6, "/bin/p" + std::to_string(i % 40), "/o",
          "u" + std::to_string(i % 30), "g", i % 2, 1793491200 + i * 60)));
    }
  }
  // The list is read from the time index alone, never from the table.
  EXPECT_NE(PlanOf(kLoglistHour).find("COVERING INDEX logs_time"),
            std::string::npos)
      << PlanOf(kLoglistHour);
  EXPECT_NE(PlanOf(kLogByApp).find("INDEX logs_app_time"), std::string::npos)
      << PlanOf(kLogByApp);
  EXPECT_NE(PlanOf(kLogByUser).find("INDEX logs_user_time"), std::string::npos)
      << PlanOf(kLogByUser);
  EXPECT_NE(PlanOf(kLogByGroup).find("INDEX logs_group_time"),
            std::string::npos)
      << PlanOf(kLogByGroup);
}

// A journal made before the writer had its indexes gains them on open.
TEST_F(ReadBackTest, AnOlderJournalGainsTheIndexesWhenTheWriterOpensIt) {
  kxjournal::WriteJournal(kJournalPath,
                        {journal_test::Row(1050, "/bin/a", "\"/bin/a\";")});
  EXPECT_EQ(PlanOf(kLogByUser).find("logs_user_time"), std::string::npos);
  EXPECT_EQ(PlanOf(kLogByGroup).find("logs_group_time"), std::string::npos);
  {
    JournalWriter writer(OptionsFor(kJournalPath));
    ASSERT_TRUE(writer.Submit(Event(1050, "/bin/b", "/bin/b")));
  }
  EXPECT_NE(PlanOf(kLogByUser).find("INDEX logs_user_time"), std::string::npos);
  EXPECT_NE(PlanOf(kLogByGroup).find("INDEX logs_group_time"),
            std::string::npos);
  EXPECT_EQ(CountRows(kJournalPath), 2);
}

// The columns of index `name`, in order, separated by commas.
std::string IndexColumns(const std::string& name) {
  std::string columns;
  for (const auto& row :
       PlainQuery(kJournalPath, "SELECT name FROM pragma_index_info('" + name +
                                    "') ORDER BY seqno")) {
    columns += (columns.empty() ? "" : ",") + row.front();
  }
  return columns;
}

// A journal whose time index does not cover the listed columns gets the
// covering one in its place, keeping its rows and its other indexes.
TEST_F(ReadBackTest, AnOlderTimeIndexIsReplacedByTheCoveringOne) {
  kxjournal::WriteJournal(
      kJournalPath, {journal_test::Row(1050, "/bin/a", "\"/bin/a\";"),
                     journal_test::Row(1051, "/bin/a", "\"/lib/x.so\";")});
  PlainQuery(kJournalPath,
             "CREATE INDEX logs_time ON logs(date_time, event_id, success);"
             "CREATE INDEX logs_user_time ON logs(username, date_time);");
  ASSERT_EQ(IndexColumns("logs_time"), "date_time,event_id,success");
  EXPECT_EQ(PlanOf(kLoglistHour).find("COVERING INDEX logs_time"),
            std::string::npos)
      << PlanOf(kLoglistHour);
  {
    JournalWriter writer(OptionsFor(kJournalPath));
    ASSERT_TRUE(writer.Submit(Event(1050, "/bin/b", "/bin/b")));
  }
  EXPECT_EQ(IndexColumns("logs_time"),
            "date_time,event_id,success,username,groupname,app");
  EXPECT_EQ(IndexColumns("logs_user_time"), "username,date_time");
  EXPECT_NE(PlanOf(kLoglistHour).find("COVERING INDEX logs_time"),
            std::string::npos)
      << PlanOf(kLoglistHour);
  EXPECT_EQ(CountRows(kJournalPath), 3);
  EXPECT_EQ(QueryOne(kJournalPath, "PRAGMA integrity_check"), "ok");
  // Opening it again changes no part of the schema (any DDL would move the
  // schema version): the index is rebuilt once, not at every open.
  const std::string before = QueryOne(kJournalPath, "PRAGMA schema_version");
  { JournalWriter writer(OptionsFor(kJournalPath)); }
  EXPECT_EQ(QueryOne(kJournalPath, "PRAGMA schema_version"), before);
}

}  // namespace
}  // namespace engine_journal_test
