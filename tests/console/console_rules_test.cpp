// Rules, lists and control through the console's API with the real tools
// behind the plug-in: what the API changes is what lands on disk.
#include <string>

#include "config_files.h"
#include "console_fixture.h"
#include "json.h"

namespace consoletest {
namespace {

using kxconsole::JsonValue;
using kxconsole::ParseJson;

const std::string kRules = "/opt/korvex/etc/aec/rules/";

const JsonValue* FindRule(const JsonValue& list, const std::string& name) {
  const JsonValue* rules = list.Find("rules");
  if (rules == nullptr) return nullptr;
  for (const auto& rule : rules->items) {
    if (rule.GetString("name") == name) return &rule;
  }
  return nullptr;
}

TEST_F(ConsoleToolsTest, ARuleAddedThroughTheApiIsWrittenAndListed) {
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const Session session = LogIn(console, service.socket());
  const HttpReply added =
      Post(console, session, "/api/rules/add",
           R"({"name":"build","users":["root"],"groups":[],"resources":[")" +
               a_ + "\"]}");
  ASSERT_EQ(added.status, 200) << added.body;
  EXPECT_TRUE(kxtest::Exists(kRules + "build.conf"));
  EXPECT_NE(kxtest::ReadFile(kRules + "build.conf").find("\"root\""),
            std::string::npos);

  const HttpReply listed = Get(console, session, "/api/rules");
  ASSERT_EQ(listed.status, 200) << listed.body;
  const JsonValue list = ParseJson(listed.body);
  const JsonValue* rule = FindRule(list, "build");
  ASSERT_NE(rule, nullptr) << listed.body;
  EXPECT_TRUE(rule->GetBool("enabled", false));
  EXPECT_FALSE(rule->GetBool("system", true));
  EXPECT_EQ(rule->GetStrings("users"), std::vector<std::string>{"root"});
  EXPECT_EQ(rule->GetStrings("resources"), std::vector<std::string>{a_});

  const HttpReply again =
      Post(console, session, "/api/rules/add",
           R"({"name":"build","users":["root"],"resources":[")" + a_ + "\"]}");
  EXPECT_EQ(again.status, 422);
  EXPECT_NE(ParseJson(again.body).GetString("message").find("already exist"),
            std::string::npos)
      << again.body;
}

TEST_F(ConsoleToolsTest, ARuleForAllUsersIsAddedAsOne) {
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const Session session = LogIn(console, service.socket());
  const HttpReply added =
      Post(console, session, "/api/rules/add",
           R"({"name":"every","users":["root"],"all":true,"resources":[")" +
               a_ + "\"]}");
  ASSERT_EQ(added.status, 200) << added.body;
  const JsonValue list = ParseJson(Get(console, session, "/api/rules").body);
  const JsonValue* rule = FindRule(list, "every");
  ASSERT_NE(rule, nullptr);
  EXPECT_TRUE(rule->GetBool("all", false));
  EXPECT_EQ(rule->GetStrings("resources"), std::vector<std::string>{a_});
}

TEST_F(ConsoleToolsTest, ARuleIsDisabledRenamedAndRemovedThroughTheApi) {
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const Session session = LogIn(console, service.socket());
  ASSERT_EQ(
      Post(console, session, "/api/rules/add",
           R"({"name":"r1","users":["root"],"resources":[")" + a_ + "\"]}")
          .status,
      200);
  const HttpReply edited =
      Post(console, session, "/api/rules/edit",
           R"({"name":"r1","enabled":false,"rename":"r2"})");
  ASSERT_EQ(edited.status, 200) << edited.body;
  EXPECT_FALSE(kxtest::Exists(kRules + "r1.conf"));
  ASSERT_TRUE(kxtest::Exists(kRules + "r2.conf"));
  const JsonValue list = ParseJson(Get(console, session, "/api/rules").body);
  const JsonValue* rule = FindRule(list, "r2");
  ASSERT_NE(rule, nullptr);
  EXPECT_FALSE(rule->GetBool("enabled", true));

  const HttpReply removed =
      Post(console, session, "/api/rules/remove", R"({"name":"r2"})");
  EXPECT_EQ(removed.status, 200) << removed.body;
  EXPECT_FALSE(kxtest::Exists(kRules + "r2.conf"));
  EXPECT_EQ(Post(console, session, "/api/rules/edit",
                 R"({"name":"nope","enabled":true})")
                .status,
            422);
}

TEST_F(ConsoleToolsTest, MarkupInARuleComesBackAsEscapedJson) {
  const std::string name = "<b>x&\"y'";
  kxtest::RuleSpec spec;
  spec.name = name;
  spec.users = {"root"};
  spec.resources = {"/opt/<script>alert(1)</script>"};
  kxtest::WriteFile(kRules + "markup.conf", kxtest::RuleJson(spec));
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const Session session = LogIn(console, service.socket());
  const HttpReply listed = Get(console, session, "/api/rules");
  ASSERT_EQ(listed.status, 200) << listed.body;
  EXPECT_EQ(listed.body.find('<'), std::string::npos) << listed.body;
  EXPECT_EQ(listed.body.find('>'), std::string::npos) << listed.body;
  EXPECT_NE(listed.body.find(R"("name":"\u003cb\u003ex\u0026\"y'")"),
            std::string::npos)
      << listed.body;
  const JsonValue list = ParseJson(listed.body);
  const JsonValue* rule = FindRule(list, name);
  ASSERT_NE(rule, nullptr) << listed.body;
  EXPECT_EQ(rule->GetStrings("resources"),
            std::vector<std::string>{"/opt/<script>alert(1)</script>"});
}

TEST_F(ConsoleToolsTest, TheWhitelistAndExceptionsAreReplacedAsWholeLists) {
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const Session session = LogIn(console, service.socket());
  ASSERT_EQ(Post(console, session, "/api/whitelist",
                 R"({"users":["root"],"groups":["adm"]})")
                .status,
            200);
  const HttpReply exceptions = Post(console, session, "/api/exceptions",
                                    R"({"resources":[")" + a_ + "\"]}");
  ASSERT_EQ(exceptions.status, 200) << exceptions.body;
  JsonValue lists = ParseJson(Get(console, session, "/api/lists").body);
  const JsonValue* whitelist = lists.Find("whitelist");
  ASSERT_NE(whitelist, nullptr);
  EXPECT_EQ(whitelist->GetStrings("users"), std::vector<std::string>{"root"});
  EXPECT_EQ(whitelist->GetStrings("groups"), std::vector<std::string>{"adm"});
  EXPECT_EQ(lists.GetStrings("exceptions"), std::vector<std::string>{a_});
  EXPECT_NE(
      kxtest::ReadFile("/opt/korvex/etc/aec/white-list.config").find("adm"),
      std::string::npos);

  const HttpReply emptied = Post(console, session, "/api/whitelist",
                                 R"({"users":["root"],"groups":[]})");
  ASSERT_EQ(emptied.status, 200) << emptied.body;
  ASSERT_EQ(
      Post(console, session, "/api/exceptions", R"({"resources":[]})").status,
      200);
  lists = ParseJson(Get(console, session, "/api/lists").body);
  EXPECT_EQ(lists.Find("whitelist")->GetStrings("groups"),
            std::vector<std::string>{});
  EXPECT_EQ(lists.Find("whitelist")->GetStrings("users"),
            std::vector<std::string>{"root"});
  EXPECT_EQ(lists.GetStrings("exceptions"), std::vector<std::string>{});
}

TEST_F(ConsoleToolsTest, SwitchingHardModeOnShowsTheConfirmationFlow) {
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const Session session = LogIn(console, service.socket());
  JsonValue control = ParseJson(Get(console, session, "/api/control").body);
  EXPECT_EQ(control.GetInt("state", -1), 0);
  EXPECT_EQ(control.Find("confirmation")->GetString("phase"), "none");

  const HttpReply on =
      Post(console, session, "/api/control", R"({"state":1,"mode":1})");
  ASSERT_EQ(on.status, 200) << on.body;
  control = ParseJson(on.body);
  EXPECT_EQ(control.GetInt("state", -1), 1);
  EXPECT_EQ(control.GetInt("mode", -1), 1);
  EXPECT_EQ(control.Find("confirmation")->GetInt("state", -1), 1);
  EXPECT_EQ(control.Find("confirmation")->GetString("phase"), "requested");

  const HttpReply confirmed =
      Post(console, session, "/api/control/confirm", "");
  ASSERT_EQ(confirmed.status, 200) << confirmed.body;
  control = ParseJson(confirmed.body);
  EXPECT_EQ(control.Find("confirmation")->GetInt("state", -1), 2);
  EXPECT_EQ(control.Find("confirmation")->GetString("phase"), "confirmed");
  EXPECT_NE(kxtest::ReadFile("/opt/korvex/var/aec_confirm").find("state=2"),
            std::string::npos);

  const JsonValue overview =
      ParseJson(Get(console, session, "/api/overview").body);
  EXPECT_EQ(overview.GetInt("state", -1), 1);
  EXPECT_EQ(overview.GetInt("mode", -1), 1);
  EXPECT_FALSE(overview.Find("engine")->GetBool("running", true));
}

}  // namespace
}  // namespace consoletest
