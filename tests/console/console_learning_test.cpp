// Learned rules through the console: the service runs the tool, the
// console turns its report into proposals, and accepting one is an add.
#include <string>

#include "console_fixture.h"
#include "json.h"

namespace consoletest {
namespace {

using kxconsole::JsonValue;
using kxconsole::ParseJson;

bool Ran(const std::vector<std::string>& wanted) {
  for (const auto& call : kxtest::FakeToolCalls("kxaecctl")) {
    std::size_t found = 0;
    for (const auto& word : call) {
      if (found < wanted.size() && word == wanted[found]) ++found;
    }
    if (found == wanted.size()) return true;
  }
  return false;
}

TEST_F(ConsoleTest, ProposalsComeFromTheToolsReportAndAcceptingOneAddsIt) {
  kxtest::FakeBehaviour tool;
  tool.lines = {"{",
                "    \"name\": \"learned-make\",",
                "    \"all_allowed\": \"false\",",
                "    \"user_list\": [ \"alice\", \"<b>\" ],",
                "    \"group_list\": \"\",",
                "    \"resource_list\": [ \"\\/usr\\/bin\\/make\" ]",
                "}"};
  kxtest::InstallFakeTool("kxaecctl", tool);
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const Session session = LogIn(console, service.socket());

  const HttpReply reply =
      Get(console, session, "/api/learning/proposals?since=100&until=200");
  ASSERT_EQ(reply.status, 200) << reply.body;
  EXPECT_TRUE(Ran({"propose", "--since", "100", "--until", "200"}));
  const JsonValue proposals = ParseJson(reply.body);
  ASSERT_EQ(proposals.Find("proposals")->items.size(), 1u) << reply.body;
  const JsonValue& rule = proposals.Find("proposals")->items[0];
  EXPECT_EQ(rule.GetString("name"), "learned-make");
  EXPECT_EQ(rule.GetStrings("users"),
            (std::vector<std::string>{"alice", "<b>"}));
  EXPECT_EQ(rule.GetStrings("groups"), std::vector<std::string>{});
  EXPECT_EQ(rule.GetStrings("resources"),
            std::vector<std::string>{"/usr/bin/make"});
  EXPECT_NE(rule.GetString("document").find("\"learned-make\""),
            std::string::npos);

  const HttpReply accepted = Post(
      console, session, "/api/learning/accept",
      R"({"name":"learned-make","users":["alice"],"groups":[],"resources":["/usr/bin/make"]})");
  EXPECT_EQ(accepted.status, 200) << accepted.body;
  EXPECT_TRUE(
      Ran({"add", "-n", "learned-make", "-u", "alice", "-r", "/usr/bin/make"}));

  EXPECT_EQ(Get(console, session, "/api/learning/proposals?since=soon").status,
            400);
}

TEST_F(ConsoleTest, WhatIfSaysWhetherHardModeWouldDeny) {
  kxtest::FakeBehaviour tool;
  tool.exit_code = 26;
  tool.lines = {"/usr/local/bin/backup", "  alice: 3 denied"};
  kxtest::InstallFakeTool("kxaecctl", tool);
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const Session session = LogIn(console, service.socket());
  const HttpReply reply =
      Get(console, session, "/api/learning/whatif?since=100");
  ASSERT_EQ(reply.status, 200) << reply.body;
  const JsonValue whatif = ParseJson(reply.body);
  EXPECT_TRUE(whatif.GetBool("would_deny", false));
  EXPECT_NE(whatif.GetString("report").find("alice: 3 denied"),
            std::string::npos);
  EXPECT_TRUE(Ran({"simulate", "--mode", "hard", "--since", "100"}));
}

}  // namespace
}  // namespace consoletest
