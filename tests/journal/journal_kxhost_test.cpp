// "log" and "loglist" end to end: the built plug-in loaded by kxhost, a
// journal in the sandboxed install root, requests as a client sends them.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "journal_fixture.h"

namespace journal_test {
namespace {

using kxjournal::FrameObjectName;

class JournalKxhostTest : public JournalTest {
 protected:
  void SetUp() override {
    kxjournal::WriteJournal(
        kJournalPath,
        {Row(1050, "/usr/bin/make", FrameObjectName("/usr/bin/make"), "alice",
             "staff", 0, 100),
         Row(1051, "/usr/bin/make", FrameObjectName("/lib/libc.so.6"), "alice",
             "staff", 0, 110),
         Row(1054, "/usr/bin/make", FrameObjectName("/etc/make.conf"), "alice",
             "staff", 0, 120),
         Row(1050, "/usr/bin/ssh", FrameObjectName("/usr/bin/ssh"), "bob",
             "adm", 1, 130)});
  }

  boost::property_tree::ptree Exec(const std::string& request) {
    return ExecThroughKxhost(root_.dir(), request);
  }
};

std::set<std::string> AsSet(const std::vector<std::string>& values) {
  return {values.begin(), values.end()};
}

TEST_F(JournalKxhostTest, LogAnswersProgramsLibrariesAndOpenedFiles) {
  const auto reply = Exec(
      "<request command=\"log\"><execfile>/usr/bin/make</execfile>"
      "<openfiles>1</openfiles><inittime>100</inittime>"
      "<finaltime>200</finaltime></request>");
  const auto& log = reply.get_child("log");
  EXPECT_EQ(log.get<std::string>("result"), "1");
  EXPECT_EQ(AsSet(Values(log.get_child("resources"), "r")),
            (std::set<std::string>{"/usr/bin/make", "/lib/libc.so.6",
                                   "/etc/make.conf"}));
}

TEST_F(JournalKxhostTest, LogListAnswersTheAskedLists) {
  const auto reply = Exec(
      "<request command=\"loglist\"><users>1</users><execfiles>1</execfiles>"
      "<operationresult>all</operationresult></request>");
  const auto& list = reply.get_child("loglist");
  EXPECT_EQ(ChildNames(list),
            (std::vector<std::string>{"result", "users", "execfiles"}));
  EXPECT_EQ(AsSet(Values(list.get_child("users"), "u")),
            (std::set<std::string>{"alice", "bob"}));
  EXPECT_EQ(AsSet(Values(list.get_child("execfiles"), "r")),
            (std::set<std::string>{"/usr/bin/make", "/usr/bin/ssh"}));
}

TEST_F(JournalKxhostTest, QuoteInUserNameAnswersReadError) {
  const auto reply =
      Exec("<request command=\"log\"><user>o'brien</user></request>");
  const auto& log = reply.get_child("log");
  EXPECT_EQ(log.get<std::string>("result"), "0");
  EXPECT_EQ(log.get<std::string>("error_desc"), "failed to read audit database");
}

TEST_F(JournalKxhostTest, StackedDeleteLeavesTheJournalAsItWas) {
  const FileState before = StateOf(kJournalPath);
  const auto reply = Exec(
      "<request command=\"log\"><execfile>x'; DELETE FROM logs; --</execfile>"
      "</request>");
  EXPECT_EQ(reply.get<std::string>("log.error_desc", ""),
            "failed to read audit database");
  EXPECT_TRUE(StateOf(kJournalPath) == before);
}

}  // namespace
}  // namespace journal_test
