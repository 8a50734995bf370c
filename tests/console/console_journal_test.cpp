// The journal routes over HTTP: filters, paging, CSV, chart, a missing
// journal, and names holding markup.
#include <string>

#include "console_fixture.h"
#include "journal_generator.h"
#include "json.h"

namespace consoletest {
namespace {

using kxconsole::JsonValue;
using kxconsole::ParseJson;

const std::string kJournal = "/opt/korvex/var/log/audit_logs.db";

kxjournal::JournalRow Row(int event, std::int64_t time, const std::string& app,
                          const std::string& object, const std::string& user,
                          int success) {
  return kxjournal::WriterRow(event, time, app, object, user, user, success);
}

class ConsoleJournalTest : public ConsoleTest {
 protected:
  void SetUp() override {
    ConsoleTest::SetUp();
    now_ = static_cast<std::int64_t>(std::time(nullptr));
    kxjournal::WriteJournal(
        kJournal,
        {Row(1051, now_ - 7200, "/usr/bin/make", "/usr/bin/make", "alice", 0),
         Row(1050, now_ - 600, "/usr/bin/ls", "/usr/bin/ls", "bob", 1),
         Row(1053, now_ - 60, "<script>alert(1)</script>", "/tmp/<img>",
             "alice", 0)});
  }
  std::int64_t now_ = 0;
};

TEST_F(ConsoleJournalTest, RowsAreFilteredPagedAndEscaped) {
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const Session session = LogIn(console, service.socket());
  const HttpReply all = Get(console, session, "/api/journal");
  ASSERT_EQ(all.status, 200) << all.body;
  EXPECT_EQ(all.body.find('<'), std::string::npos) << all.body;
  JsonValue page = ParseJson(all.body);
  EXPECT_EQ(page.GetInt("total", -1), 3);
  ASSERT_EQ(page.Find("rows")->items.size(), 3u);
  const JsonValue& newest = page.Find("rows")->items[0];
  EXPECT_EQ(newest.GetString("program"), "<script>alert(1)</script>");
  EXPECT_EQ(newest.GetString("object"), "/tmp/<img>");
  EXPECT_EQ(newest.GetString("outcome"), "denied");

  page =
      ParseJson(Get(console, session,
                    "/api/journal?user=alice&outcome=denied&per_page=1&page=2")
                    .body);
  EXPECT_EQ(page.GetInt("total", -1), 2);
  EXPECT_EQ(page.GetInt("page", -1), 2);
  ASSERT_EQ(page.Find("rows")->items.size(), 1u);
  EXPECT_EQ(page.Find("rows")->items[0].GetString("program"), "/usr/bin/make");

  EXPECT_EQ(Get(console, session, "/api/journal?since=20&until=10").status,
            400);
  EXPECT_EQ(Get(console, session, "/api/journal?until=999999999999").status,
            400);
  EXPECT_EQ(Get(console, session, "/api/journal?event=open").status, 400);

  page = ParseJson(
      Get(console, session,
          "/api/journal?since=" + std::to_string(now_ - 1000) + "&event=exec")
          .body);
  EXPECT_EQ(page.GetInt("total", -1), 1);
}

TEST_F(ConsoleJournalTest, CsvAndChartAnswerTheSameFilters) {
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const Session session = LogIn(console, service.socket());
  const HttpReply csv = Get(console, session, "/api/journal.csv?user=alice");
  ASSERT_EQ(csv.status, 200) << csv.body;
  EXPECT_EQ(csv.Header("content-type"), "text/csv; charset=utf-8");
  EXPECT_EQ(csv.Header("content-disposition"),
            "attachment; filename=\"journal.csv\"");
  EXPECT_EQ(csv.body.find("time,event,outcome,program,object,user,group\r\n"),
            0u)
      << csv.body;
  EXPECT_NE(csv.body.find("/usr/bin/make"), std::string::npos);
  EXPECT_EQ(csv.body.find("/usr/bin/ls"), std::string::npos);

  const HttpReply chart =
      Get(console, session,
          "/api/journal/chart?buckets=2&since=" + std::to_string(now_ - 10000) +
              "&until=" + std::to_string(now_));
  ASSERT_EQ(chart.status, 200) << chart.body;
  const JsonValue counts = ParseJson(chart.body);
  EXPECT_EQ(counts.GetInt("bucket_seconds", -1), 5000);
  ASSERT_EQ(counts.Find("denied")->items.size(), 2u);
  EXPECT_EQ(counts.Find("denied")->items[0].number, 1);
  EXPECT_EQ(counts.Find("denied")->items[1].number, 1);

  const JsonValue overview =
      ParseJson(Get(console, session, "/api/overview").body);
  EXPECT_EQ(overview.GetInt("denials_hour", -1), 1);
  EXPECT_EQ(overview.GetInt("denials_day", -1), 2);
}

TEST_F(ConsoleTest, AMissingJournalIsAnEmptyPageMarkedMissing) {
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const Session session = LogIn(console, service.socket());
  const HttpReply reply = Get(console, session, "/api/journal");
  ASSERT_EQ(reply.status, 200) << reply.body;
  const JsonValue page = ParseJson(reply.body);
  EXPECT_EQ(page.GetInt("total", -1), 0);
  EXPECT_EQ(page.GetString("journal"), "missing");
  EXPECT_TRUE(page.Find("rows")->items.empty());
}

}  // namespace
}  // namespace consoletest
