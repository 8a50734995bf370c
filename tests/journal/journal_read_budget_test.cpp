// What one journal read may cost. Request values reach the journal's SQL
// unescaped; the read-only policy keeps the journal safe, and these bounds
// keep the process safe: a value that makes SQLite build a 900 MB text took
// 5.4 GB and 68 s, a busy writer made reads fail at once, and a control
// byte in a program name made a reply no XML parser accepts.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "aec_audit_journal.h"
#include "aec_commands.h"
#include "journal_fixture.h"
#include "support/well_formed_xml.h"

namespace journal_test {
namespace {

using kxjournal::FrameObjectName;
using kxjournal::WriteJournal;

const char* const kReadError = "failed to read audit database";

// Under AddressSanitizer freed memory stays in its quarantine and every
// block has red zones, so the resident size says little about what a read
// kept; the memory checks run in the plain builds only.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kMeasureMemory = false;
#else
constexpr bool kMeasureMemory = true;
#endif

long MaxRssKib() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start)
      .count();
}

std::string ErrorOf(const Reply& reply, const std::string& command) {
  return reply.Result(command).get<std::string>("error_desc", "");
}

// Denied executions of `count` programs named by their number, each
// `padding` bytes long.
std::vector<kxjournal::JournalRow> Programs(int count, std::size_t padding = 0) {
  std::vector<kxjournal::JournalRow> rows;
  for (int i = 0; i < count; ++i) {
    std::string app = "/usr/bin/p" + std::to_string(i);
    if (app.size() < padding) app += std::string(padding - app.size(), 'x');
    rows.push_back(Row(1054, app, FrameObjectName(app)));
  }
  return rows;
}

class JournalReadBudget : public JournalTest {};

TEST_F(JournalReadBudget, AHugeGeneratedValueFailsFastWithBoundedMemory) {
  WriteJournal(kJournalPath, Programs(3));
  const long rss_before = MaxRssKib();
  const auto start = std::chrono::steady_clock::now();
  const Reply reply = RunCommand(
      aec::HandleLog, "log",
      {{"execfile", "x' UNION SELECT printf('%.*c',900000000,'x'),1 --"}});
  EXPECT_EQ(ErrorOf(reply, "log"), kReadError);
  EXPECT_LT(SecondsSince(start), 5.0);
  if (kMeasureMemory) {
    EXPECT_LT(MaxRssKib() - rss_before, 64 * 1024);
  }
  EXPECT_TRUE(log_.Contains(
      "journal read stopped: the function printf() is not allowed"));
}

TEST_F(JournalReadBudget, FunctionsThatMakeLongValuesAreRefused) {
  WriteJournal(kJournalPath, Programs(3));
  for (const std::string call :
       {"zeroblob(1000000000)", "randomblob(1000000000)", "char(65,66)",
        "replace(app,'/','//')", "hex(app)", "quote(app)", "format('%s',app)",
        "group_concat(app)", "substr(app,1,1)||printf('%s',app)"}) {
    log_.Clear();
    const Reply reply = RunCommand(
        aec::HandleLog, "log",
        {{"execfile", "x' UNION SELECT " + call + ",1 FROM logs --"}});
    EXPECT_EQ(ErrorOf(reply, "log"), kReadError) << call;
    EXPECT_TRUE(log_.Contains("is not allowed")) << call;
  }
}

TEST_F(JournalReadBudget, FunctionsThatCannotGrowAValueStillWork) {
  WriteJournal(kJournalPath, Programs(3));
  const Reply reply = RunCommand(
      aec::HandleLog, "log",
      {{"execfile", "x' OR length(lower(app)) > 0 AND substr(app,1,1)='/"}});
  const auto& result = reply.Result("log");
  EXPECT_EQ(result.get<std::string>("result", ""), "1");
  EXPECT_EQ(ValueSet(result.get_child("resources"), "r").size(), 3u);
}

TEST_F(JournalReadBudget, AValueLongerThanTheLengthLimitFails) {
  // 600 KB paths joined to themselves pass the 1 MiB value limit.
  WriteJournal(kJournalPath, Programs(2, 600 * 1024));
  const Reply reply =
      RunCommand(aec::HandleLog, "log",
                 {{"execfile", "x' UNION SELECT app || app, 1 FROM logs --"}});
  EXPECT_EQ(ErrorOf(reply, "log"), kReadError);
  EXPECT_TRUE(
      log_.Contains("journal read stopped: a value or the statement "
                    "is longer than 1048576 bytes"));
}

TEST_F(JournalReadBudget, AReplyLargerThanItsBoundFails) {
  // 300 programs of 1,000 bytes, paired: 90,000 distinct texts of 2,000
  // bytes, 180 MB, beyond the 64 MiB a reply may collect.
  WriteJournal(kJournalPath, Programs(300, 1000));
  const long rss_before = MaxRssKib();
  const Reply reply = RunCommand(
      aec::HandleLog, "log",
      {{"execfile",
        "x' UNION ALL SELECT a.app || b.app, 1 FROM logs a, logs b --"}});
  EXPECT_EQ(ErrorOf(reply, "log"), kReadError);
  EXPECT_TRUE(
      log_.Contains("journal read stopped: the reply would be longer "
                    "than 67108864 bytes"));
  if (kMeasureMemory) {
    EXPECT_LT(MaxRssKib() - rss_before, 256 * 1024);
  }
}

TEST_F(JournalReadBudget, AStatementOverItsTimeBudgetIsInterrupted) {
  // 200^4 rows to walk: hours without a budget.
  WriteJournal(kJournalPath, Programs(200));
  const auto start = std::chrono::steady_clock::now();
  const Reply reply =
      RunCommand(aec::HandleLogList, "loglist",
                 {{"execfiles", "1"},
                  {"finaltime",
                   "0 OR EXISTS (SELECT 1 FROM logs a, logs b, logs c, "
                   "logs d WHERE a.app || b.app || c.app || d.app = 'z')"}});
  EXPECT_EQ(ErrorOf(reply, "loglist"), kReadError);
  EXPECT_LT(SecondsSince(start), 30.0);
  EXPECT_TRUE(
      log_.Contains("journal read stopped: the statement ran longer "
                    "than 10000 ms"));
}

TEST_F(JournalReadBudget, ReadsWaitWhileAWriterHoldsTheJournal) {
  kxjournal::JournalShape shape;
  shape.rows = 20000;
  kxjournal::GenerateJournal(kJournalPath, shape);
  // A writer in rollback-journal mode, about 100 inserts a second, each its
  // own transaction.
  std::atomic<bool> stop{false};
  std::atomic<int> inserts{0};
  std::thread writer([&] {
    sqlite3* db = nullptr;
    if (sqlite3_open(kJournalPath, &db) != SQLITE_OK) return;
    sqlite3_busy_timeout(db, 5000);
    sqlite3_exec(db, "PRAGMA journal_mode=DELETE", nullptr, nullptr, nullptr);
    while (!stop) {
      if (sqlite3_exec(db,
                       "INSERT INTO logs (event_id, app, object_name, "
                       "username, groupname, success, date_time) VALUES "
                       "(1054, '/usr/bin/w', '\"/usr/bin/w\"\n', 'w', 'w', 0, "
                       "1000)",
                       nullptr, nullptr, nullptr) == SQLITE_OK) {
        ++inserts;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    sqlite3_close(db);
  });
  int failures = 0;
  for (int i = 0; i < 30; ++i) {
    const Reply reply = RunCommand(aec::HandleLogList, "loglist",
                                   {{"users", "1"},
                                    {"groups", "1"},
                                    {"execfiles", "1"},
                                    {"operationresult", "all"}});
    if (reply.Result("loglist").get<std::string>("result", "") != "1") {
      ++failures;
      ADD_FAILURE() << ErrorOf(reply, "loglist") << "\n"
                    << (log_.Lines().empty() ? "" : log_.Lines().back());
    }
  }
  stop = true;
  writer.join();
  EXPECT_GT(inserts.load(), 10);
  EXPECT_EQ(failures, 0);
}

TEST_F(JournalReadBudget, ControlBytesInTheJournalGiveWellFormedReplies) {
  std::vector<kxjournal::JournalRow> rows = {
      Row(1054,
          std::string("/tmp/a\x01"
                      "b"),
          FrameObjectName("/tmp/o\x1b")),
      Row(1050, std::string("/tmp/\xff\xfe"), FrameObjectName("/lib/\xc3")),
  };
  rows[0].username = std::string("eve\x02");
  WriteJournal(kJournalPath, rows);
  const Reply log = RunCommand(
      aec::HandleLog, "log", {{"operationresult", "all"}, {"openfiles", "1"}});
  const std::string log_text = log.doc->ToString("reply");
  EXPECT_EQ(kxtest::XmlWellFormednessError(log_text), "") << log_text;
  EXPECT_NE(log_text.find("/tmp/a\xef\xbf\xbd"
                          "b"),
            std::string::npos)
      << log_text;
  const Reply list = RunCommand(
      aec::HandleLogList, "loglist",
      {{"users", "1"}, {"execfiles", "1"}, {"operationresult", "all"}});
  const std::string list_text = list.doc->ToString("reply");
  EXPECT_EQ(kxtest::XmlWellFormednessError(list_text), "") << list_text;
  EXPECT_NE(list_text.find("eve\xef\xbf\xbd"), std::string::npos) << list_text;
}

}  // namespace
}  // namespace journal_test
