// The console under TLS, with a self-signed certificate made for the test.
#include <string>

#include "console_fixture.h"
#include "json.h"

namespace consoletest {
namespace {

TEST_F(ConsoleTest, WithACertificateTheConsoleSpeaksHttpsAndTheCookieIsSecure) {
  const std::string dir = root_.dir() + "/etc";
  const auto made = kxtest::RunProgram(
      {"/usr/bin/openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes",
       "-subj", "/CN=127.0.0.1", "-days", "1", "-keyout", dir + "/console.key",
       "-out", dir + "/console.pem"});
  ASSERT_EQ(made.exit_code, 0) << made.err;
  ConfigureConsole("certificate = " + dir +
                   "/console.pem\nprivate_key = " + dir + "/console.key\n");
  servicetest::Service service(root_.dir());
  Console console(root_.dir());
  ASSERT_TRUE(console.tls()) << console.url();
  EXPECT_EQ(console.url(),
            "https://127.0.0.1:" + std::to_string(console.port()) + "/");

  const HttpReply login =
      Fetch(console, "GET", "/login?token=" + LoginToken(service.socket()));
  EXPECT_EQ(login.status, 303);
  const std::string cookie = login.Header("set-cookie");
  EXPECT_NE(cookie.find("; Secure"), std::string::npos) << cookie;
  EXPECT_NE(cookie.find("; HttpOnly"), std::string::npos) << cookie;
  const HttpReply page =
      Fetch(console, "GET", "/rules", "",
            {{"Cookie", cookie.substr(0, cookie.find(';'))}});
  EXPECT_EQ(page.status, 200);
  EXPECT_EQ(page.body, "<!DOCTYPE html><p>page rules</p>\n");
}

TEST_F(ConsoleTest, AKeyThatCannotBeReadIsExitCodeOne) {
  ConfigureConsole(
      "certificate = /nonexistent.pem\nprivate_key = /nonexistent.key\n");
  const auto run = kxtest::RunProgram(
      {KX_KXCONSOLE_PATH, "--root", root_.dir(), "--port", "0"});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_NE(run.err.find("cannot use the certificate /nonexistent.pem"),
            std::string::npos)
      << run.err;
}

}  // namespace
}  // namespace consoletest
