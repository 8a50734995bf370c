// Request values are put into the journal's SQL unescaped. Whatever a value
// makes of the SQL, the journal connection only reads: the journal stays
// byte for byte the same and no file appears anywhere in the install root or
// the working directory.
#include <gtest/gtest.h>
#include <unistd.h>

#include <sqlite3.h>

#include <boost/filesystem.hpp>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "aec_audit_journal.h"
#include "aec_commands.h"
#include "journal_fixture.h"

namespace journal_test {
namespace {

using kxjournal::FrameObjectName;
using namespace std::string_literals;

const char* const kReadError = "failed to read audit database";

struct Hostile {
  const char* name;  // what the value tries
  std::string value;
};

std::vector<Hostile> HostileNames() {
  return {
      {"stacked delete", "x'; DELETE FROM logs; --"},
      {"stacked drop", "x'; DROP TABLE logs; --"},
      {"stacked update", "x'; UPDATE logs SET success = 1; --"},
      {"stacked insert",
       "x'; INSERT INTO logs (event_id, app) VALUES (1050, 'evil'); --"},
      {"stacked create", "x'; CREATE TABLE evil (a); --"},
      {"stacked temp create", "x'; CREATE TEMP TABLE evil (a); --"},
      {"create index", "x'; CREATE INDEX evil ON logs (app); --"},
      {"attach new file",
       "x'; ATTACH DATABASE '/opt/korvex/var/log/evil.db' AS evil; CREATE "
       "TABLE evil.t (a); --"},
      {"attach in working dir", "x'; ATTACH 'evil-attached.db' AS e; --"},
      {"detach", "x'; DETACH DATABASE main; --"},
      {"writable schema", "x'; PRAGMA writable_schema=1; --"},
      {"journal mode", "x'; PRAGMA journal_mode=WAL; --"},
      {"user version", "x'; PRAGMA user_version=7; --"},
      {"pragma function", "x' UNION SELECT name, type FROM "
                          "pragma_table_info('logs') --"},
      {"vacuum into", "x'; VACUUM INTO '/opt/korvex/var/log/copy.db'; --"},
      {"vacuum into working dir", "x'; VACUUM INTO 'evil-copy.db'; --"},
      {"vacuum", "x'; VACUUM; --"},
      {"reindex", "x'; REINDEX; --"},
      {"analyze", "x'; ANALYZE; --"},
      {"transaction", "x'; BEGIN EXCLUSIVE; --"},
      {"savepoint", "x'; SAVEPOINT s; --"},
      {"schema read", "x' UNION SELECT sql, name FROM sqlite_master --"},
      {"extension", "x' OR load_extension('/tmp/evil.so') OR 'a'='"},
      {"recursion",
       "x' OR EXISTS (WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n + 1 "
       "FROM c) SELECT n FROM c) OR 'a'='"},
      {"shell writefile", "x'; SELECT writefile('/opt/korvex/var/log/w', 'x'); --"},
      {"quotes", "'''"},
      {"lone quote", "'"},
      {"comment", "x' --"},
      {"block comment", "x' /*"},
      {"stacked delete after NUL", "x\0'; DELETE FROM logs; --"s},
      {"NUL then quote", "\0'"s},
  };
}

std::vector<Hostile> HostileTimes() {
  return {
      {"stacked delete", "0; DELETE FROM logs"},
      {"stacked drop", "0; DROP TABLE logs; --"},
      {"attach", "0; ATTACH '/opt/korvex/var/log/t.db' AS t"},
      {"vacuum into", "0; VACUUM INTO '/opt/korvex/var/log/t.db'"},
      {"pragma", "0; PRAGMA writable_schema=1"},
      {"schema union", "0 UNION SELECT sql, sql FROM sqlite_master"},
      {"comment", "0 --"},
      {"empty", ""},
  };
}

class JournalSafetyTest : public JournalTest {
 protected:
  void SetUp() override {
    kxjournal::WriteJournal(
        kJournalPath,
        {Row(1050, "/bin/a", FrameObjectName("/bin/a"), "alice", "staff", 0),
         Row(1051, "/bin/a", FrameObjectName("/lib/x.so"), "bob", "adm", 1),
         Row(1054, "/bin/b", FrameObjectName("/etc/y"), "carol", "users", 0)});
    // A working directory of the test's own, so that a file made relative
    // to it would be seen and nothing else changes it meanwhile.
    char here[4096];
    ASSERT_NE(getcwd(here, sizeof here), nullptr);
    previous_cwd_ = here;
    char pattern[] = "/tmp/kxjournal-cwd-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    cwd_ = pattern;
    ASSERT_EQ(chdir(cwd_.c_str()), 0);
    before_ = StateOf(kJournalPath);
    root_files_ = ListTree("/opt/korvex");
    cwd_files_ = ListTree(cwd_);
  }

  void TearDown() override {
    if (!previous_cwd_.empty()) {
      EXPECT_EQ(chdir(previous_cwd_.c_str()), 0);
    }
    if (!cwd_.empty()) {
      boost::system::error_code ignored;
      boost::filesystem::remove_all(cwd_, ignored);
    }
  }

  // The reply is a success or the read error, nothing else; the journal and
  // both directory trees are as they were.
  void ExpectHarmless(const Reply& reply, const std::string& command,
                      const std::string& what) {
    const auto& result = reply.Result(command);
    const std::string outcome = result.get<std::string>("result", "");
    if (outcome == "0") {
      EXPECT_EQ(result.get<std::string>("error_desc", ""), kReadError) << what;
    } else {
      EXPECT_EQ(outcome, "1") << what;
    }
    EXPECT_TRUE(StateOf(kJournalPath) == before_) << what << ": journal changed";
    EXPECT_EQ(ListTree("/opt/korvex"), root_files_) << what;
    EXPECT_EQ(ListTree(cwd_), cwd_files_) << what;
  }

  std::string previous_cwd_;
  std::string cwd_;
  FileState before_;
  std::set<std::string> root_files_;
  std::set<std::string> cwd_files_;
};

TEST_F(JournalSafetyTest, HostileNamesNeverChangeTheJournalOrCreateFiles) {
  for (const auto& hostile : HostileNames()) {
    for (const char* field : {"execfile", "user", "group"}) {
      const std::string what = std::string(hostile.name) + " in " + field;
      ExpectHarmless(RunCommand(aec::HandleLog, "log",
                         {{field, hostile.value}, {"openfiles", "1"}}),
                     "log", what);
    }
  }
}

TEST_F(JournalSafetyTest, HostileTimeBoundsNeverChangeTheJournalOrCreateFiles) {
  for (const auto& hostile : HostileTimes()) {
    for (const char* field : {"inittime", "finaltime"}) {
      const std::string what = std::string(hostile.name) + " in " + field;
      ExpectHarmless(RunCommand(aec::HandleLog, "log", {{field, hostile.value}}),
                     "log", what);
      ExpectHarmless(RunCommand(aec::HandleLogList, "loglist",
                         {{field, hostile.value},
                          {"users", "1"},
                          {"groups", "1"},
                          {"execfiles", "1"}}),
                     "loglist", what);
    }
  }
}

TEST_F(JournalSafetyTest, HostileOutcomeChoiceIsOnlyEverACondition) {
  ExpectHarmless(RunCommand(aec::HandleLog, "log",
                     {{"operationresult", "all'; DELETE FROM logs; --"}}),
                 "log", "outcome");
}

TEST_F(JournalSafetyTest, StackedDeleteFailsWithReadErrorAndKeepsEveryRow) {
  const Reply reply =
      RunCommand(aec::HandleLog, "log", {{"execfile", "x'; DELETE FROM logs; --"}});
  EXPECT_EQ(reply.Result("log").get<std::string>("error_desc", ""), kReadError);
  EXPECT_EQ(PlainQuery(kJournalPath, "SELECT count(*) FROM logs")[0][0], "3");
  EXPECT_TRUE(log_.Contains("not authorized"));
}

TEST_F(JournalSafetyTest, VacuumIntoIsRefusedThoughTheAuthorizerIsNotAsked) {
  const Reply reply = RunCommand(
      aec::HandleLog, "log",
      {{"user", "x'; VACUUM INTO '/opt/korvex/var/log/copy.db'; --"}});
  EXPECT_EQ(reply.Result("log").get<std::string>("error_desc", ""), kReadError);
  EXPECT_FALSE(kxtest::Exists("/opt/korvex/var/log/copy.db"));
}

TEST_F(JournalSafetyTest, AttachIsRefusedAndCreatesNothing) {
  const Reply reply =
      RunCommand(aec::HandleLog, "log",
          {{"group", "x'; ATTACH '/opt/korvex/var/log/evil.db' AS e; --"}});
  EXPECT_EQ(reply.Result("log").get<std::string>("error_desc", ""), kReadError);
  EXPECT_FALSE(kxtest::Exists("/opt/korvex/var/log/evil.db"));
}

// The guard must not be a blanket refusal: reading `logs` through a crafted
// value still reads.
TEST_F(JournalSafetyTest, UnionOverTheJournalItselfStillReads) {
  const Reply reply =
      RunCommand(aec::HandleLog, "log",
          {{"execfile", "nothing' UNION SELECT username, groupname FROM logs --"},
           {"openfiles", "1"}});
  const auto& result = reply.Result("log");
  ASSERT_EQ(result.get<std::string>("result", ""), "1");
  // The union's rows pass through the object framing cut like any other.
  EXPECT_EQ(ValueSet(result.get_child("resources"), "r"),
            (std::multiset<std::string>{"alice", "bob", "carol", "ta", "", "se"}));
  EXPECT_TRUE(StateOf(kJournalPath) == before_);
}

TEST_F(JournalSafetyTest, SchemaTableIsNotReadable) {
  const Reply reply = RunCommand(
      aec::HandleLog, "log",
      {{"execfile", "x' UNION SELECT sql, name FROM sqlite_master --"}});
  EXPECT_EQ(reply.Result("log").get<std::string>("error_desc", ""), kReadError);
}

// A WAL journal whose last writer left without a checkpoint: the reader is
// then the last connection, and closing it must not fold the log into the
// journal file.
TEST_F(JournalTest, ReadingAWalJournalNeverCheckpointsIt) {
  kxjournal::WriteJournal(kJournalPath,
                        {Row(1050, "/bin/old", FrameObjectName("/bin/old"))});
  {
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open(kJournalPath, &raw), SQLITE_OK);
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> writer(raw, sqlite3_close);
    ASSERT_EQ(sqlite3_db_config(raw, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1,
                                nullptr),
              SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(raw,
                           "PRAGMA journal_mode=WAL; PRAGMA "
                           "wal_autocheckpoint=0; INSERT INTO logs (event_id, "
                           "app, success) VALUES (1050, '/bin/new', 0);",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
  }
  const std::string wal = std::string(kJournalPath) + "-wal";
  ASSERT_TRUE(kxtest::Exists(wal));
  const FileState journal_before = StateOf(kJournalPath);
  const FileState wal_before = StateOf(wal);

  const Reply reply = RunCommand(aec::HandleLog, "log", {});
  EXPECT_EQ(ValueSet(reply.Result("log").get_child("resources"), "r"),
            (std::multiset<std::string>{"/bin/old", "/bin/new"}));
  EXPECT_TRUE(StateOf(kJournalPath) == journal_before);
  EXPECT_TRUE(StateOf(wal) == wal_before);
}

// Proof that the hostile texts are real attacks: the very SQL the handler
// builds, run over a plain connection on a copy, does the damage.
TEST_F(JournalSafetyTest, SameTextOverAPlainConnectionWouldDoTheDamage) {
  const std::string copy = "/opt/korvex/var/log/copy-of-journal.db";
  kxtest::WriteFile(copy, kxtest::ReadFile(kJournalPath));
  aec::LogFilter filter;
  filter.execfile = "x'; DELETE FROM logs; --";
  PlainQuery(copy, aec::LogObjectsQuery(aec::LogConditions(filter)));
  EXPECT_EQ(PlainQuery(copy, "SELECT count(*) FROM logs")[0][0], "0");

  filter.execfile = "x'; VACUUM INTO '/opt/korvex/var/log/vacuumed.db'; --";
  PlainQuery(copy, aec::LogObjectsQuery(aec::LogConditions(filter)));
  EXPECT_TRUE(kxtest::Exists("/opt/korvex/var/log/vacuumed.db"));
}

}  // namespace
}  // namespace journal_test
