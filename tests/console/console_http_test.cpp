// The console over HTTP: login links, sessions, pages, headers, CSRF,
// limits, and a service that goes away and comes back.
#include <set>
#include <string>

#include "config_files.h"
#include "console_fixture.h"
#include "json.h"

namespace consoletest {
namespace {

const char kCsp[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; "
    "img-src 'self'; connect-src 'self'; form-action 'self'; "
    "frame-ancestors 'none'; base-uri 'none'";

void ExpectSecurityHeaders(const HttpReply& reply) {
  EXPECT_EQ(reply.Header("content-security-policy"), kCsp);
  EXPECT_EQ(reply.Header("x-content-type-options"), "nosniff");
  EXPECT_EQ(reply.Header("referrer-policy"), "no-referrer");
  EXPECT_EQ(reply.Header("cache-control"), "no-store");
}

std::set<std::string> RuleFiles() { return kxtest::RuleFiles(); }

TEST_F(ConsoleTest, ALoginLinkOpensASessionOnceAndIsRefusedTheSecondTime) {
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const std::string token = LoginToken(service.socket());
  ASSERT_EQ(token.size(), 64u);

  const HttpReply first = Fetch(console, "GET", "/login?token=" + token);
  EXPECT_EQ(first.status, 303);
  EXPECT_EQ(first.Header("location"), "/");
  const std::string cookie = first.Header("set-cookie");
  EXPECT_EQ(cookie.compare(0, 10, "kxsession="), 0) << cookie;
  EXPECT_NE(cookie.find("; HttpOnly"), std::string::npos) << cookie;
  EXPECT_NE(cookie.find("; SameSite=Strict"), std::string::npos) << cookie;
  EXPECT_NE(cookie.find("; Path=/"), std::string::npos) << cookie;
  EXPECT_NE(cookie.find("; Max-Age=1800"), std::string::npos) << cookie;
  EXPECT_EQ(cookie.find("Secure"), std::string::npos) << cookie;
  const std::string session = cookie.substr(0, cookie.find(';'));
  EXPECT_EQ(Fetch(console, "GET", "/", "", {{"Cookie", session}}).body,
            "<!DOCTYPE html><p>page overview</p>\n");

  const HttpReply again = Fetch(console, "GET", "/login?token=" + token);
  EXPECT_EQ(again.status, 403);
  EXPECT_NE(again.body.find("This login link is not valid"), std::string::npos)
      << again.body;
  EXPECT_EQ(again.Header("set-cookie"), "");
}

TEST_F(ConsoleTest, AMadeUpTokenIsRefusedWithoutASession) {
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const HttpReply reply =
      Fetch(console, "GET", "/login?token=" + std::string(64, 'a'));
  EXPECT_EQ(reply.status, 403);
  EXPECT_EQ(reply.Header("set-cookie"), "");
  EXPECT_EQ(Fetch(console, "GET", "/login?token=%3Cx%3E").status, 403);
}

TEST_F(ConsoleTest, APageWithoutASessionRedirectsToTheWelcomePage) {
  Console console(root_.dir());
  for (const char* page :
       {"/", "/rules", "/lists", "/control", "/journal", "/learning"}) {
    const HttpReply reply = Fetch(console, "GET", page);
    EXPECT_EQ(reply.status, 303) << page;
    EXPECT_EQ(reply.Header("location"), "/welcome") << page;
    ExpectSecurityHeaders(reply);
  }
  const HttpReply welcome = Fetch(console, "GET", "/welcome");
  EXPECT_EQ(welcome.status, 200);
  EXPECT_EQ(welcome.body, "<!DOCTYPE html><p>page welcome</p>\n");
  EXPECT_EQ(welcome.Header("content-type"), "text/html; charset=utf-8");
  const HttpReply forged =
      Fetch(console, "GET", "/rules", "",
            {{"Cookie", "kxsession=" + std::string(64, '0')}});
  EXPECT_EQ(forged.status, 303);
}

TEST_F(ConsoleTest, EveryPageIsServedWithASession) {
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const Session session = LogIn(console, service.socket());
  const std::map<std::string, std::string> pages = {
      {"/", "overview"},       {"/rules", "rules"},
      {"/lists", "lists"},     {"/control", "control"},
      {"/journal", "journal"}, {"/learning", "learning"}};
  for (const auto& page : pages) {
    const HttpReply reply = Get(console, session, page.first);
    EXPECT_EQ(reply.status, 200) << page.first;
    EXPECT_EQ(reply.body, "<!DOCTYPE html><p>page " + page.second + "</p>\n");
    EXPECT_EQ(reply.Header("set-cookie")
                  .compare(0, session.cookie.size() + 1, session.cookie + ";"),
              0);
    ExpectSecurityHeaders(reply);
  }
}

TEST_F(ConsoleTest, AssetsArePublicAndOnlyKnownNamesAreServed) {
  kxtest::WriteFile("/opt/korvex/share/secret.js", "secret\n");
  Console console(root_.dir());
  const HttpReply script = Fetch(console, "GET", "/assets/app.js");
  EXPECT_EQ(script.status, 200);
  EXPECT_EQ(script.body, "'use strict';\n");
  EXPECT_EQ(script.Header("content-type"), "text/javascript; charset=utf-8");
  ExpectSecurityHeaders(script);
  for (const char* target : {"/assets/../secret.js", "/assets/..%2Fsecret.js",
                             "/assets/%2e%2e/secret.js", "/assets/missing.js",
                             "/assets/", "/assets/overview.html"}) {
    const HttpReply reply = Fetch(console, "GET", target);
    EXPECT_EQ(reply.status, 404) << target;
    EXPECT_EQ(reply.body.find("secret"), std::string::npos) << target;
  }
}

TEST_F(ConsoleTest, UnknownRoutesAreNotFound) {
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const HttpReply page = Fetch(console, "GET", "/nothing-here");
  EXPECT_EQ(page.status, 404);
  ExpectSecurityHeaders(page);
  const Session session = LogIn(console, service.socket());
  const HttpReply api = Get(console, session, "/api/nothing");
  EXPECT_EQ(api.status, 404);
  EXPECT_EQ(kxconsole::ParseJson(api.body).GetString("error"), "not_found");
  EXPECT_EQ(api.Header("content-type"), "application/json");
  ExpectSecurityHeaders(api);
}

TEST_F(ConsoleTest, TheApiWithoutASessionAnswersNotLoggedIn) {
  Console console(root_.dir());
  const HttpReply reply = Fetch(console, "GET", "/api/rules");
  EXPECT_EQ(reply.status, 401);
  EXPECT_EQ(kxconsole::ParseJson(reply.body).GetString("error"),
            "not_logged_in");
  ExpectSecurityHeaders(reply);
}

TEST_F(ConsoleTest,
       APostWithoutOrWithAWrongCsrfTokenIsRefusedAndChangesNothing) {
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const Session session = LogIn(console, service.socket());
  ASSERT_EQ(session.csrf.size(), 64u);
  const std::string body =
      R"({"name":"r1","users":["root"],"resources":["/bin/sh"]})";
  const auto calls_before = kxtest::FakeToolCalls("kxaecctl").size();
  const auto files_before = RuleFiles();

  const HttpReply missing = Fetch(console, "POST", "/api/rules/add", body,
                                  {{"Cookie", session.cookie}});
  EXPECT_EQ(missing.status, 403);
  EXPECT_EQ(kxconsole::ParseJson(missing.body).GetString("error"), "csrf");
  std::string wrong = session.csrf;
  wrong[0] = wrong[0] == 'a' ? 'b' : 'a';
  const HttpReply forged =
      Fetch(console, "POST", "/api/rules/add", body,
            {{"Cookie", session.cookie}, {"X-CSRF-Token", wrong}});
  EXPECT_EQ(forged.status, 403);
  const HttpReply other = Fetch(console, "POST", "/api/control",
                                R"({"state":1})", {{"Cookie", session.cookie}});
  EXPECT_EQ(other.status, 403);

  EXPECT_EQ(kxtest::FakeToolCalls("kxaecctl").size(), calls_before);
  EXPECT_EQ(RuleFiles(), files_before);
  const std::string state =
      servicetest::Ask(service.socket(), "<kxserv command=\"policies\"/>");
  EXPECT_NE(state.find("<type>0</type>"), std::string::npos);
}

TEST_F(ConsoleTest, MalformedJsonIsABadRequest) {
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const Session session = LogIn(console, service.socket());
  for (const char* body :
       {"{", "{\"name\":}", "[1,2]", "{\"name\":\"a\"} x", "{\"name\":1}",
        "{\"name\":\"a\",\"users\":\"root\"}",
        "{\"name\":\"a\",\"all\":\"yes\"}", "{\"users\":[\"root\"]}"}) {
    const HttpReply reply = Post(console, session, "/api/rules/add", body);
    EXPECT_EQ(reply.status, 400) << body;
    EXPECT_EQ(kxconsole::ParseJson(reply.body).GetString("error"),
              "bad_request")
        << body;
  }
  EXPECT_EQ(Post(console, session, "/api/control", R"({"state":2})").status,
            400);
  EXPECT_EQ(Get(console, session, "/api/journal?per_page=501").status, 400);
  EXPECT_EQ(Get(console, session, "/api/journal?since=yesterday").status, 400);
  EXPECT_EQ(Get(console, session, "/api/journal?user=%zz").status, 400);
  EXPECT_TRUE(kxtest::FakeToolCalls("kxaecctl").empty());
}

TEST_F(ConsoleTest, ABodyAboveTheLimitIsRefusedBeforeTheServiceHearsOfIt) {
  ConfigureConsole("max_body = 1024\n");
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const Session session = LogIn(console, service.socket());
  const std::string requests_before = servicetest::Field(
      servicetest::Ask(service.socket(), "<kxserv command=\"state\"/>"),
      "requests");
  const std::string body =
      "{\"name\":\"big\",\"resources\":[\"" + std::string(2000, 'x') + "\"]}";
  const HttpReply reply = Post(console, session, "/api/rules/add", body);
  EXPECT_EQ(reply.status, 413);
  EXPECT_EQ(kxconsole::ParseJson(reply.body).GetString("error"), "too_large");
  ExpectSecurityHeaders(reply);
  const std::string requests_after = servicetest::Field(
      servicetest::Ask(service.socket(), "<kxserv command=\"state\"/>"),
      "requests");
  // Only the two state requests of this test reached the service.
  EXPECT_EQ(std::stoi(requests_after), std::stoi(requests_before) + 1);
  EXPECT_TRUE(kxtest::FakeToolCalls("kxaecctl").empty());
}

TEST_F(ConsoleTest, AStoppedServiceIsReportedAndTheNextRequestReachesItAgain) {
  auto service = std::make_unique<servicetest::Service>(root_.dir());
  Console console(root_.dir());
  const Session session = LogIn(console, service->socket());
  EXPECT_EQ(Get(console, session, "/api/control").status, 200);
  service->Stop();
  service.reset();

  const HttpReply login =
      Fetch(console, "GET", "/login?token=" + std::string(64, 'a'));
  EXPECT_EQ(login.status, 503);
  EXPECT_NE(login.body.find("not reachable"), std::string::npos) << login.body;
  const HttpReply down = Get(console, session, "/api/control");
  EXPECT_EQ(down.status, 503);
  const kxconsole::JsonValue error = kxconsole::ParseJson(down.body);
  EXPECT_EQ(error.GetString("error"), "service_unreachable");
  EXPECT_NE(error.GetString("message").find(
                "The service kxserv is not reachable at " + root_.dir() +
                "/var/run/kxserv.sock"),
            std::string::npos)
      << down.body;

  service = std::make_unique<servicetest::Service>(root_.dir());
  const HttpReply up = Get(console, session, "/api/control");
  EXPECT_EQ(up.status, 200) << up.body;
  EXPECT_EQ(kxconsole::ParseJson(up.body).GetInt("state", -1), 0);
}

TEST_F(ConsoleTest, LogoutEndsTheSession) {
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  const Session session = LogIn(console, service.socket());
  EXPECT_EQ(Post(console, session, "/api/logout", "").status, 200);
  EXPECT_EQ(Get(console, session, "/api/control").status, 401);
  EXPECT_EQ(Get(console, session, "/rules").status, 303);
}

TEST_F(ConsoleTest, SigtermStopsTheConsoleWithExitCodeZero) {
  Console console(root_.dir());
  EXPECT_EQ(console.Stop(), 0);
}

TEST_F(ConsoleTest, APortInUseIsExitCodeOneAndABadConfigurationTwo) {
  Console first(root_.dir());
  const auto busy =
      kxtest::RunProgram({KX_KXCONSOLE_PATH, "--root", root_.dir(), "--port",
                          std::to_string(first.port())});
  EXPECT_EQ(busy.exit_code, 1) << busy.err;
  EXPECT_NE(busy.err.find("cannot listen"), std::string::npos) << busy.err;
  ConfigureConsole("port = many\n");
  const auto broken =
      kxtest::RunProgram({KX_KXCONSOLE_PATH, "--root", root_.dir()});
  EXPECT_EQ(broken.exit_code, 2);
  EXPECT_NE(broken.err.find("kxconsole.conf:1"), std::string::npos)
      << broken.err;
  EXPECT_EQ(kxtest::RunProgram({KX_KXCONSOLE_PATH, "--bogus"}).exit_code, 2);
  const auto help = kxtest::RunProgram({KX_KXCONSOLE_PATH, "--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("Usage: kxconsole"), std::string::npos);
}

}  // namespace
}  // namespace consoletest
