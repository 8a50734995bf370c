// What "log" and "loglist" answer for a journal in the sandbox.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "aec_audit_journal.h"
#include "aec_commands.h"
#include "host/errors.h"
#include "journal_fixture.h"

namespace journal_test {
namespace {

using kxjournal::FrameObjectName;
using kxjournal::JournalRow;
using kxjournal::WriteJournal;
using Set = std::multiset<std::string>;

const char* const kReadError = "failed to read audit database";
const char* const kOpenError = "failed to open audit database";

class LogListTest : public JournalTest {};
class LogTest : public JournalTest {};

// A journal with a denied and a permitted event for each of two people.
std::vector<JournalRow> TwoOutcomes() {
  return {
      Row(1050, "/usr/bin/vim", FrameObjectName("/usr/bin/vim"), "alice",
          "staff", 0),
      Row(1051, "/usr/bin/vim", FrameObjectName("/lib/libdenied.so"), "alice",
          "staff", 0),
      Row(1050, "/usr/bin/ls", FrameObjectName("/usr/bin/ls"), "bob", "adm",
          1),
      Row(1052, "/usr/bin/ls", FrameObjectName("/lib/libok.so"), "bob", "adm",
          1),
  };
}

void ExpectError(const Reply& reply, const std::string& command,
                 const std::string& text) {
  const auto& tree = reply.Tree();
  EXPECT_EQ(ChildNames(tree), std::vector<std::string>{command});
  const auto& result = reply.Result(command);
  EXPECT_EQ(ChildNames(result),
            (std::vector<std::string>{"result", "error_desc"}));
  EXPECT_EQ(result.get<std::string>("result", ""), "0");
  EXPECT_EQ(result.get<std::string>("error_desc", ""), text);
}

Set Resources(const Reply& reply) {
  const auto& result = reply.Result("log");
  EXPECT_EQ(result.get<std::string>("result", ""), "1");
  auto found = result.find("resources");
  if (found == result.not_found()) {
    ADD_FAILURE() << "no resources in the reply";
    return {};
  }
  return ValueSet(found->second, "r");
}

Set ListOf(const Reply& reply, const std::string& list,
           const std::string& value) {
  const auto& result = reply.Result("loglist");
  auto found = result.find(list);
  if (found == result.not_found()) {
    ADD_FAILURE() << "no " << list << " in the reply";
    return {};
  }
  return ValueSet(found->second, value);
}

// --- loglist ---------------------------------------------------------------

TEST_F(LogListTest, WithoutAnyListAnswersOnlyResultAndNeverOpensTheJournal) {
  ASSERT_FALSE(kxtest::Exists(kJournalPath));
  const Reply reply = RunCommand(aec::HandleLogList, "loglist",
                          {{"users", "0"}, {"groups", "yes"},
                           {"execfiles", ""}, {"inittime", "x"}});
  const auto& result = reply.Result("loglist");
  EXPECT_EQ(ChildNames(result), std::vector<std::string>{"result"});
  EXPECT_EQ(result.get<std::string>("result", ""), "1");
  // Opening would have created the missing file.
  EXPECT_FALSE(kxtest::Exists(kJournalPath));
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(LogListTest, WithoutOperationResultListsOnlyDeniedEvents) {
  WriteJournal(kJournalPath, TwoOutcomes());
  const Reply reply = RunCommand(aec::HandleLogList, "loglist",
                          {{"users", "1"}, {"groups", "1"}, {"execfiles", "1"}});
  EXPECT_EQ(ListOf(reply, "users", "u"), Set{"alice"});
  EXPECT_EQ(ListOf(reply, "groups", "g"), Set{"staff"});
  EXPECT_EQ(ListOf(reply, "execfiles", "r"), Set{"/usr/bin/vim"});
}

TEST_F(LogListTest, WithAllListsBothOutcomes) {
  WriteJournal(kJournalPath, TwoOutcomes());
  const Reply reply =
      RunCommand(aec::HandleLogList, "loglist",
          {{"users", "1"}, {"execfiles", "1"}, {"operationresult", "all"}});
  EXPECT_EQ(ListOf(reply, "users", "u"), (Set{"alice", "bob"}));
  EXPECT_EQ(ListOf(reply, "execfiles", "r"), (Set{"/usr/bin/ls", "/usr/bin/vim"}));
}

TEST_F(LogListTest, WithSuccessListsOnlyPermittedEvents) {
  WriteJournal(kJournalPath, TwoOutcomes());
  const Reply reply = RunCommand(aec::HandleLogList, "loglist",
                          {{"users", "1"}, {"operationresult", "success"}});
  EXPECT_EQ(ListOf(reply, "users", "u"), Set{"bob"});
}

TEST_F(LogListTest, ListsComeInFixedOrderAndOnlyWhenAsked) {
  WriteJournal(kJournalPath, TwoOutcomes());
  const Reply reply =
      RunCommand(aec::HandleLogList, "loglist",
          {{"execfiles", "1"}, {"users", "1"}, {"operationresult", "all"}});
  EXPECT_EQ(ChildNames(reply.Result("loglist")),
            (std::vector<std::string>{"result", "users", "execfiles"}));
  const Reply all = RunCommand(aec::HandleLogList, "loglist",
                        {{"execfiles", "1"}, {"groups", "1"}, {"users", "1"}});
  EXPECT_EQ(ChildNames(all.Result("loglist")),
            (std::vector<std::string>{"result", "users", "groups", "execfiles"}));
}

TEST_F(LogListTest, ValuesAreDistinctInSqliteOrderAndNullsAreLeftOut) {
  std::vector<JournalRow> rows;
  for (const char* user : {"zed", "amy", "zed", "kim", "amy"}) {
    rows.push_back(Row(1050, "/bin/true", std::nullopt, user));
  }
  JournalRow nobody = Row(1050, "/bin/true", std::nullopt);
  nobody.username.reset();
  rows.push_back(nobody);
  WriteJournal(kJournalPath, rows);
  const Reply reply = RunCommand(aec::HandleLogList, "loglist", {{"users", "1"}});
  const auto users = reply.Result("loglist").get_child("users");
  const auto direct = PlainQuery(
      kJournalPath,
      "SELECT DISTINCT username FROM logs WHERE event_id >= 1050 AND event_id "
      "<= 1055 AND success=0");
  std::vector<std::string> expected;
  for (const auto& row : direct) {
    if (row[0] != "<null>") expected.push_back(row[0]);
  }
  EXPECT_EQ(expected.size(), 3u);
  EXPECT_EQ(Values(users, "u"), expected);
}

TEST_F(LogListTest, OnlyExecutionControlEventsCount) {
  WriteJournal(kJournalPath,
               {Row(1049, "/bin/before", std::nullopt, "early"),
                Row(1050, "/bin/first", std::nullopt, "first"),
                Row(1055, "/bin/last", std::nullopt, "last"),
                Row(1056, "/bin/after", std::nullopt, "late")});
  const Reply reply =
      RunCommand(aec::HandleLogList, "loglist", {{"users", "1"}, {"execfiles", "1"}});
  EXPECT_EQ(ListOf(reply, "users", "u"), (Set{"first", "last"}));
  EXPECT_EQ(ListOf(reply, "execfiles", "r"), (Set{"/bin/first", "/bin/last"}));
}

TEST_F(LogListTest, TimeBoundsIncludeTheStartAndExcludeTheEnd) {
  WriteJournal(kJournalPath,
               {Row(1050, "/bin/a", std::nullopt, "t99", "g", 0, 99),
                Row(1050, "/bin/a", std::nullopt, "t100", "g", 0, 100),
                Row(1050, "/bin/a", std::nullopt, "t199", "g", 0, 199),
                Row(1050, "/bin/a", std::nullopt, "t200", "g", 0, 200)});
  const Reply reply = RunCommand(aec::HandleLogList, "loglist",
                          {{"users", "1"}, {"inittime", "100"},
                           {"finaltime", "200"}});
  EXPECT_EQ(ListOf(reply, "users", "u"), (Set{"t100", "t199"}));
}

TEST_F(LogListTest, TextTimesCompareWithQuotedBoundsAsGiven) {
  std::vector<JournalRow> rows = {
      Row(1050, "/bin/a", std::nullopt, "before"),
      Row(1050, "/bin/a", std::nullopt, "inside"),
      Row(1050, "/bin/a", std::nullopt, "after")};
  rows[0].date_time = "2026-11-20 23:59:59";
  rows[1].date_time = "2026-11-21 10:15:30";
  rows[2].date_time = "2026-11-22 00:00:00";
  WriteJournal(kJournalPath, rows);
  const Reply reply = RunCommand(aec::HandleLogList, "loglist",
                          {{"users", "1"},
                           {"inittime", "'2026-11-21 00:00:00'"},
                           {"finaltime", "'2026-11-22 00:00:00'"}});
  EXPECT_EQ(ListOf(reply, "users", "u"), Set{"inside"});
}

TEST_F(LogListTest, EmptyTimeBoundGivesReadError) {
  WriteJournal(kJournalPath, TwoOutcomes());
  ExpectError(RunCommand(aec::HandleLogList, "loglist",
                  {{"users", "1"}, {"finaltime", ""}}),
              "loglist", kReadError);
}

TEST_F(LogListTest, MissingJournalIsCreatedEmptyAndGivesReadError) {
  ASSERT_FALSE(kxtest::Exists(kJournalPath));
  ExpectError(RunCommand(aec::HandleLogList, "loglist", {{"groups", "1"}}), "loglist",
              kReadError);
  ASSERT_TRUE(kxtest::Exists(kJournalPath));
  EXPECT_EQ(StateOf(kJournalPath).size, 0);
  EXPECT_TRUE(log_.Contains("error from sqllite: no such table: logs (query: "
                            "SELECT DISTINCT groupname FROM logs"));
}

TEST_F(LogListTest, LaterFailingListDiscardsTheListsBuiltBefore) {
  // No groupname column: the users list succeeds, the groups list fails.
  kxtest::WriteFile(kJournalPath, "");
  PlainQuery(kJournalPath,
             "CREATE TABLE logs (event_id INTEGER, date_time INTEGER, app "
             "TEXT, username TEXT, success INTEGER);"
             "INSERT INTO logs VALUES (1050, 1, '/bin/a', 'alice', 0);");
  ExpectError(RunCommand(aec::HandleLogList, "loglist",
                  {{"users", "1"}, {"groups", "1"}}),
              "loglist", kReadError);
  EXPECT_TRUE(log_.Contains("no such column: groupname"));
}

// --- log -------------------------------------------------------------------

TEST_F(LogTest, WithoutOperationResultReturnsOnlyDeniedEvents) {
  WriteJournal(kJournalPath, TwoOutcomes());
  EXPECT_EQ(Resources(RunCommand(aec::HandleLog, "log", {})),
            (Set{"/usr/bin/vim", "/lib/libdenied.so"}));
}

TEST_F(LogTest, WithAllReturnsBothOutcomes) {
  WriteJournal(kJournalPath, TwoOutcomes());
  EXPECT_EQ(
      Resources(RunCommand(aec::HandleLog, "log", {{"operationresult", "all"}})),
      (Set{"/usr/bin/vim", "/lib/libdenied.so", "/usr/bin/ls", "/lib/libok.so"}));
}

TEST_F(LogTest, WithSuccessReturnsPermittedEvents) {
  WriteJournal(kJournalPath, TwoOutcomes());
  EXPECT_EQ(
      Resources(RunCommand(aec::HandleLog, "log", {{"operationresult", "success"}})),
      (Set{"/usr/bin/ls", "/lib/libok.so"}));
}

TEST_F(LogTest, ReplyShape) {
  WriteJournal(kJournalPath, TwoOutcomes());
  const Reply reply = RunCommand(aec::HandleLog, "log", {});
  EXPECT_EQ(ChildNames(reply.Tree()), std::vector<std::string>{"log"});
  EXPECT_EQ(ChildNames(reply.Result("log")),
            (std::vector<std::string>{"result", "resources"}));
}

TEST_F(LogTest, NothingFoundStillAnswersWithEmptyResources) {
  WriteJournal(kJournalPath, TwoOutcomes());
  const Reply reply = RunCommand(aec::HandleLog, "log", {{"user", "nobody"}});
  EXPECT_EQ(Resources(reply), Set{});
  EXPECT_EQ(ChildNames(reply.Result("log")),
            (std::vector<std::string>{"result", "resources"}));
}

TEST_F(LogTest, RowWithNullObjectContributesOnlyItsProgram) {
  WriteJournal(kJournalPath, {Row(1051, "/usr/bin/app", std::nullopt)});
  EXPECT_EQ(Resources(RunCommand(aec::HandleLog, "log", {})), Set{"/usr/bin/app"});
}

TEST_F(LogTest, OneCharacterObjectBecomesTheEmptyText) {
  WriteJournal(kJournalPath, {Row(1051, "/usr/bin/app", std::string("x"))});
  EXPECT_EQ(Resources(RunCommand(aec::HandleLog, "log", {})),
            (Set{"/usr/bin/app", ""}));
}

TEST_F(LogTest, ObjectFramingIsCutOneBeforeAndTwoAfter) {
  WriteJournal(kJournalPath,
               {Row(1052, "/bin/p", FrameObjectName("/lib/libz.so.1")),
                Row(1053, "/bin/p", std::string("ab")),
                Row(1053, "/bin/p", std::string("abc")),
                Row(1053, "/bin/p", std::string("")),
                Row(1053, "/bin/p", std::string("[/x/y]\n"))});
  EXPECT_EQ(Resources(RunCommand(aec::HandleLog, "log", {})),
            (Set{"/bin/p", "/lib/libz.so.1", "b", "", "/x/y"}));
}

TEST_F(LogTest, RowWithoutProgramContributesOnlyItsObject) {
  WriteJournal(kJournalPath,
               {Row(1051, std::nullopt, FrameObjectName("/lib/orphan.so"))});
  EXPECT_EQ(Resources(RunCommand(aec::HandleLog, "log", {})), Set{"/lib/orphan.so"});
}

TEST_F(LogTest, RepeatedProgramsAndObjectsAppearOnce) {
  std::vector<JournalRow> rows;
  for (int i = 0; i < 50; ++i) {
    rows.push_back(Row(1051, "/bin/p", FrameObjectName("/lib/a.so")));
    rows.push_back(Row(1050, "/bin/p", FrameObjectName("/bin/p")));
  }
  WriteJournal(kJournalPath, rows);
  const Reply reply = RunCommand(aec::HandleLog, "log", {});
  EXPECT_EQ(Resources(reply), (Set{"/bin/p", "/lib/a.so"}));
}

TEST_F(LogTest, OpenedFilesOnlyWhenOpenFilesIsOne) {
  WriteJournal(kJournalPath,
               {Row(1051, "/bin/ed", FrameObjectName("/lib/libc.so")),
                Row(1054, "/bin/ed", FrameObjectName("/etc/passwd")),
                Row(1055, "/bin/cat", FrameObjectName("/etc/shadow"))});
  // The programs of file-opening events are always part of the answer.
  EXPECT_EQ(Resources(RunCommand(aec::HandleLog, "log", {})),
            (Set{"/bin/ed", "/lib/libc.so", "/bin/cat"}));
  EXPECT_EQ(Resources(RunCommand(aec::HandleLog, "log", {{"openfiles", "true"}})),
            (Set{"/bin/ed", "/lib/libc.so", "/bin/cat"}));
  EXPECT_EQ(Resources(RunCommand(aec::HandleLog, "log", {{"openfiles", "1"}})),
            (Set{"/bin/ed", "/lib/libc.so", "/bin/cat", "/etc/passwd",
                 "/etc/shadow"}));
}

TEST_F(LogTest, ProgramUserAndGroupNarrowTheAnswer) {
  WriteJournal(kJournalPath,
               {Row(1051, "/bin/a", FrameObjectName("/lib/1"), "alice", "staff"),
                Row(1051, "/bin/a", FrameObjectName("/lib/2"), "bob", "staff"),
                Row(1051, "/bin/a", FrameObjectName("/lib/3"), "alice", "adm"),
                Row(1051, "/bin/b", FrameObjectName("/lib/4"), "alice", "staff")});
  EXPECT_EQ(Resources(RunCommand(aec::HandleLog, "log",
                          {{"execfile", "/bin/a"},
                           {"user", "alice"},
                           {"group", "staff"}})),
            (Set{"/bin/a", "/lib/1"}));
}

TEST_F(LogTest, OnlyExecutionControlEventsCount) {
  WriteJournal(kJournalPath,
               {Row(1049, "/bin/x", FrameObjectName("/lib/before")),
                Row(1053, "/bin/y", FrameObjectName("/lib/in")),
                Row(1056, "/bin/z", FrameObjectName("/lib/after"))});
  EXPECT_EQ(Resources(RunCommand(aec::HandleLog, "log", {{"openfiles", "1"}})),
            (Set{"/bin/y", "/lib/in"}));
}

TEST_F(LogTest, QuoteInUserNameGivesReadError) {
  WriteJournal(kJournalPath, TwoOutcomes());
  ExpectError(RunCommand(aec::HandleLog, "log", {{"user", "o'brien"}}), "log",
              kReadError);
  EXPECT_TRUE(log_.Contains("error from sqllite: "));
  EXPECT_TRUE(log_.Contains("AND username = 'o'brien'"));
}

TEST_F(LogTest, EmptyTimeBoundGivesReadError) {
  WriteJournal(kJournalPath, TwoOutcomes());
  ExpectError(RunCommand(aec::HandleLog, "log", {{"inittime", ""}}), "log",
              kReadError);
}

TEST_F(LogTest, EmptyNameIsStillACondition) {
  WriteJournal(kJournalPath, TwoOutcomes());
  EXPECT_EQ(Resources(RunCommand(aec::HandleLog, "log", {{"execfile", ""}})), Set{});
}

TEST_F(LogTest, MissingJournalIsCreatedEmptyAndGivesReadError) {
  ASSERT_FALSE(kxtest::Exists(kJournalPath));
  ExpectError(RunCommand(aec::HandleLog, "log", {}), "log", kReadError);
  ASSERT_TRUE(kxtest::Exists(kJournalPath));
  EXPECT_EQ(StateOf(kJournalPath).size, 0);
  EXPECT_TRUE(log_.Contains("no such table: logs"));
}

TEST_F(LogTest, UnopenableJournalGivesOpenError) {
  ASSERT_EQ(rmdir("/opt/korvex/var/log"), 0);
  ExpectError(RunCommand(aec::HandleLog, "log", {}), "log", kOpenError);
  EXPECT_TRUE(log_.Contains(
      "[268435459] aec: can`t open sqllite db file "
      "/opt/korvex/var/log/audit_logs.db, unable to open database file"));
}

TEST_F(LogListTest, UnopenableJournalGivesOpenError) {
  ASSERT_EQ(rmdir("/opt/korvex/var/log"), 0);
  ExpectError(RunCommand(aec::HandleLogList, "loglist", {{"execfiles", "1"}}),
              "loglist", kOpenError);
}

TEST_F(LogTest, FailureIsLoggedAsPluginCoreErrorWithTheQuery) {
  kxtest::WriteFile(kJournalPath, "");
  RunCommand(aec::HandleLog, "log", {{"operationresult", "all"}});
  const auto lines = log_.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].substr(0, lines[0].find(':')), "aec_plugin");
  EXPECT_NE(lines[0].find(
                ": [268435459] aec: error from sqllite: no such table: logs "
                "(query: SELECT app, object_name FROM logs WHERE event_id >= "
                "1050 AND event_id <= 1053"),
            std::string::npos)
      << lines[0];
  // The closing parenthesis stays missing.
  EXPECT_NE(lines[0].back(), ')');
}

TEST_F(LogTest, EachQueryClosesItsConnection) {
  WriteJournal(kJournalPath, TwoOutcomes());
  auto journal_open = [] {
    const auto files = OpenFiles();
    return std::count_if(files.begin(), files.end(), [](const std::string& f) {
      return f.find("audit_logs.db") != std::string::npos;
    });
  };
  RunCommand(aec::HandleLog, "log", {{"openfiles", "1"}});
  EXPECT_EQ(journal_open(), 0);
  RunCommand(aec::HandleLogList, "loglist",
      {{"users", "1"}, {"groups", "1"}, {"execfiles", "1"}});
  EXPECT_EQ(journal_open(), 0);
  RunCommand(aec::HandleLog, "log", {{"user", "'"}});
  EXPECT_EQ(journal_open(), 0);
}

// --- the reader ------------------------------------------------------------

TEST_F(LogTest, ReaderRunsEveryStatementOfTheText) {
  WriteJournal(kJournalPath, TwoOutcomes());
  std::vector<std::string> seen;
  aec::QueryAuditDb(
      "SELECT username FROM logs WHERE success=0 LIMIT 1; ; -- note\n"
      "SELECT username FROM logs WHERE success=1 LIMIT 1",
      [&seen](const aec::AuditRow& row) { seen.emplace_back(*row.Text(0)); });
  EXPECT_EQ(seen, (std::vector<std::string>{"alice", "bob"}));
}

TEST_F(LogTest, ReaderRefusesStatementsOfDifferentWidths) {
  WriteJournal(kJournalPath, TwoOutcomes());
  int rows = 0;
  EXPECT_THROW(aec::QueryAuditDb("SELECT app FROM logs; SELECT app, app FROM "
                                 "logs",
                                 [&rows](const aec::AuditRow&) { ++rows; }),
               PluginException);
  EXPECT_EQ(rows, 4);  // the first statement's rows came before the failure
}

TEST_F(LogTest, ReaderReportsAnErrorInALaterStatement) {
  WriteJournal(kJournalPath, TwoOutcomes());
  try {
    aec::QueryAuditDb("SELECT app FROM logs; SELECT nonsense FROM logs",
                      [](const aec::AuditRow&) {});
    FAIL() << "no exception";
  } catch (const PluginException& e) {
    EXPECT_STREQ(e.what(), kReadError);
  }
  EXPECT_TRUE(log_.Contains("no such column: nonsense"));
}

TEST_F(LogTest, ReaderCutsValuesAtTheirFirstNulByte) {
  kxtest::WriteFile(kJournalPath, "");
  PlainQuery(kJournalPath,
             "CREATE TABLE logs (app TEXT);"
             "INSERT INTO logs VALUES (CAST(x'2f62696e0078' AS TEXT));");
  std::string seen = "unset";
  aec::QueryAuditDb("SELECT app FROM logs", [&seen](const aec::AuditRow& row) {
    seen = std::string(*row.Text(0));
    EXPECT_FALSE(row.Text(1).has_value());
  });
  EXPECT_EQ(seen, "/bin");
}

TEST_F(LogTest, EmptyBlobObjectIsTheEmptyText) {
  kxtest::WriteFile(kJournalPath, "");
  PlainQuery(kJournalPath,
             "CREATE TABLE logs (event_id INTEGER, date_time INTEGER, app "
             "TEXT, object_name, username TEXT, groupname TEXT, success "
             "INTEGER);"
             "INSERT INTO logs VALUES (1051, 1, '/bin/a', x'', 'u', 'g', 0);");
  EXPECT_EQ(Resources(RunCommand(aec::HandleLog, "log", {})),
            (Set{"/bin/a", ""}));
}

TEST(UnframeObjectNameTest, CutsOneLeadingAndTwoTrailingCharacters) {
  EXPECT_EQ(aec::UnframeObjectName("\"/lib/a.so\";"), "/lib/a.so");
  EXPECT_EQ(aec::UnframeObjectName("abcd"), "b");
  EXPECT_EQ(aec::UnframeObjectName("abc"), "");
  EXPECT_EQ(aec::UnframeObjectName("ab"), "b");
  EXPECT_EQ(aec::UnframeObjectName("a"), "");
  EXPECT_EQ(aec::UnframeObjectName(""), "");
}

}  // namespace
}  // namespace journal_test
