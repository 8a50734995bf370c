// The CSV export: its header and time form, quoting, text that a browser or
// a spreadsheet would otherwise interpret, the filters and the row cap.
#include "journal_csv.h"

#include <sstream>

#include "console_journal_fixture.h"

namespace console_journal_test {
namespace {

using kxconsole::JournalFilter;

constexpr const char* kHeader =
    "time,event,outcome,program,object,user,group\r\n";

class CsvTest : public ConsoleJournalTest {
 protected:
  std::string Csv(const JournalFilter& filter = {}) {
    std::ostringstream out;
    kxconsole::WriteJournalCsv(journal_, filter, out);
    return out.str();
  }
};

TEST_F(CsvTest, RowsFollowTheHeaderNewestFirstWithUtcTimes) {
  Build(
      {Row(1050, 1795256130, "/usr/bin/make", "/usr/bin/make", "alice", "staff",
           1),
       Row(1053, 1795256131, "/usr/bin/ssh", "/lib/x.so", "bob", "users", 0)});
  EXPECT_EQ(Csv(), std::string(kHeader) +
                       "2026-11-21T10:15:31Z,library,denied,/usr/bin/ssh,"
                       "/lib/x.so,bob,users\r\n"
                       "2026-11-21T10:15:30Z,exec,allowed,/usr/bin/make,"
                       "/usr/bin/make,alice,staff\r\n");
}

TEST_F(CsvTest, CommasQuotesAndLineBreaksAreQuoted) {
  Build({Row(1050, 0, "/opt/a,b", "/opt/say \"hi\"", "line\nbreak", "cr\rhere",
             1)});
  EXPECT_EQ(Csv(), std::string(kHeader) +
                       "1970-01-01T00:00:00Z,exec,allowed,\"/opt/a,b\","
                       "\"/opt/say \"\"hi\"\"\",\"line\nbreak\",\"cr\rhere\""
                       "\r\n");
}

TEST_F(CsvTest, MarkupIsWrittenAsItIs) {
  Build({Row(1050, 0, "<script>alert(1)</script>", "/x&amp;<b>", "a", "g", 1)});
  EXPECT_EQ(Csv(), std::string(kHeader) +
                       "1970-01-01T00:00:00Z,exec,allowed,"
                       "<script>alert(1)</script>,/x&amp;<b>,a,g\r\n");
}

TEST_F(CsvTest, FieldsThatASpreadsheetWouldRunAsFormulasAreMadeText) {
  Build({Row(1050, 0, "=HYPERLINK(\"http://x\")", "+1", "-2", "@sum", 1),
         Row(1050, 1, "\tcmd", "/ok", "u", "g", 1)});
  EXPECT_EQ(Csv(), std::string(kHeader) +
                       "1970-01-01T00:00:01Z,exec,allowed,'\tcmd,/ok,u,g\r\n"
                       "1970-01-01T00:00:00Z,exec,allowed,"
                       "\"'=HYPERLINK(\"\"http://x\"\")\",'+1,'-2,'@sum\r\n");
}

TEST_F(CsvTest, FiltersApplyAndPagingDoesNot) {
  std::vector<kxjournal::JournalRow> rows;
  for (int i = 0; i < 120; ++i) {
    rows.push_back(Row(1051, 1000 + i, "/usr/bin/p" + std::to_string(i % 3),
                       "/o", i % 2 ? "alice" : "bob"));
  }
  Build(rows);
  JournalFilter filter;
  filter.user = "alice";
  filter.program = "/usr/bin/p1";
  filter.page = 3;
  filter.per_page = 5;
  const std::string csv = Csv(filter);
  std::istringstream lines(csv);
  std::string line;
  int count = 0;
  std::getline(lines, line);
  while (std::getline(lines, line)) {
    ++count;
    EXPECT_NE(line.find(",/usr/bin/p1,/o,alice,staff\r"), std::string::npos)
        << line;
  }
  // i odd and i % 3 == 1: i = 1, 7, 13, ... below 120.
  EXPECT_EQ(count, 20);
}

TEST_F(CsvTest, AMissingJournalGivesTheHeaderAlone) {
  EXPECT_EQ(Csv(), kHeader);
}

TEST_F(CsvTest, AnInvalidFilterIsRefusedBeforeAnythingIsWritten) {
  Build({Row(1050, 0)});
  JournalFilter filter;
  filter.outcome = "maybe";
  std::ostringstream out;
  EXPECT_THROW(kxconsole::WriteJournalCsv(journal_, filter, out),
               kxconsole::JournalError);
  EXPECT_EQ(out.str(), "");
}

TEST_F(CsvTest, TheExportStopsAtTheRowCapNewestFirst) {
  Build({Row(1050, 1), Row(1050, 2), Row(1050, 3), Row(1050, 4)});
  std::ostringstream out;
  kxconsole::detail::WriteCsv(journal_, {}, out, 2, std::chrono::seconds(5));
  EXPECT_EQ(out.str(), std::string(kHeader) +
                           "1970-01-01T00:00:04Z,exec,denied,/usr/bin/make,"
                           "/usr/bin/make,alice,staff\r\n"
                           "1970-01-01T00:00:03Z,exec,denied,/usr/bin/make,"
                           "/usr/bin/make,alice,staff\r\n");
}

TEST_F(CsvTest, AStreamThatFailsStopsTheExport) {
  Build({Row(1050, 1), Row(1050, 2)});
  std::ostringstream out;
  out.setstate(std::ios::badbit);
  EXPECT_THROW(kxconsole::WriteJournalCsv(journal_, {}, out),
               kxconsole::JournalError);
  JournalFilter none;
  none.user = "nobody";
  EXPECT_THROW(kxconsole::WriteJournalCsv(journal_, none, out),
               kxconsole::JournalError);
}

TEST_F(CsvTest, ARowWithoutATimeShowsAnEmptyTime) {
  kxjournal::JournalRow row = Row(1051, 0);
  row.date_time.reset();
  Build({row});
  EXPECT_EQ(Csv(), std::string(kHeader) +
                       ",exec,denied,/usr/bin/make,/usr/bin/make,alice,staff"
                       "\r\n");
}

}  // namespace
}  // namespace console_journal_test
