// One-time console login links: the token store on its own, the console's
// configuration, and the whole dialogue through kxserv and kxctl.
#include "console_login.h"

#include <fstream>
#include <set>
#include <string>

#include "common/console_config.h"
#include "service_fixture.h"

namespace servicetest {
namespace {

TEST(ConsoleLogins, ATokenOpensOnceAndOnlyOnce) {
  kxserv::ConsoleLogins logins;
  const std::string token = logins.Issue(1000, 300);
  EXPECT_EQ(token.size(), 64u);
  EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_TRUE(logins.Redeem(token, 1001));
  EXPECT_FALSE(logins.Redeem(token, 1002));
}

TEST(ConsoleLogins, AnExpiredTokenIsRefusedAndForgotten) {
  kxserv::ConsoleLogins logins;
  const std::string token = logins.Issue(1000, 300);
  EXPECT_FALSE(logins.Redeem(token, 1300));
  EXPECT_EQ(logins.pending(), 0u);
}

TEST(ConsoleLogins, AnUnknownOrEmptyTokenIsRefused) {
  kxserv::ConsoleLogins logins;
  const std::string token = logins.Issue(1000, 300);
  EXPECT_FALSE(logins.Redeem("", 1001));
  EXPECT_FALSE(logins.Redeem(token.substr(1), 1001));
  EXPECT_FALSE(logins.Redeem(token + "0", 1001));
  EXPECT_TRUE(logins.Redeem(token, 1001));
}

TEST(ConsoleLogins, TokensAreNeverRepeated) {
  kxserv::ConsoleLogins logins;
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) seen.insert(logins.Issue(1000, 300));
  EXPECT_EQ(seen.size(), 1000u);
}

TEST(ConsoleLogins, AskingInALoopKeepsOnlyTheNewestTokens) {
  kxserv::ConsoleLogins logins;
  const std::string first = logins.Issue(1000, 300);
  std::string last;
  for (std::size_t i = 0; i < kxserv::ConsoleLogins::kMaxPending; ++i) {
    last = logins.Issue(1000, 300);
  }
  EXPECT_EQ(logins.pending(), kxserv::ConsoleLogins::kMaxPending);
  EXPECT_FALSE(logins.Redeem(first, 1001));
  EXPECT_TRUE(logins.Redeem(last, 1001));
}

class ConsoleConfigTest : public kxtest::SandboxTest {
 protected:
  std::string Write(const std::string& text) {
    const std::string path = root_.dir() + "/kxconsole.conf";
    std::ofstream(path) << text;
    return path;
  }
};

TEST_F(ConsoleConfigTest, AMissingConsoleConfigurationMeansLoopbackHttp) {
  const kxserv::ConsoleConfig config =
      kxserv::ReadConsoleConfig(root_.dir() + "/none.conf");
  EXPECT_EQ(config.listen_address, "127.0.0.1");
  EXPECT_FALSE(config.tls());
  EXPECT_EQ(kxserv::ConsoleLoginUrl(config, "ab"),
            "http://127.0.0.1:8470/login?token=ab");
}

TEST_F(ConsoleConfigTest, ACertificateAndKeyMakeTheLinkHttps) {
  const kxserv::ConsoleConfig config = kxserv::ReadConsoleConfig(
      Write("port = 9443\ncertificate = /c.pem\nprivate_key = /k.pem\n"));
  EXPECT_TRUE(config.tls());
  EXPECT_EQ(kxserv::ConsoleLoginUrl(config, "ab"),
            "https://127.0.0.1:9443/login?token=ab");
}

TEST_F(ConsoleConfigTest, AWildcardOrIpv6AddressGivesALinkThatOpens) {
  kxserv::ConsoleConfig config;
  config.listen_address = "0.0.0.0";
  EXPECT_EQ(kxserv::ConsoleLoginUrl(config, "t"),
            "http://127.0.0.1:8470/login?token=t");
  config.listen_address = "::";
  EXPECT_EQ(kxserv::ConsoleLoginUrl(config, "t"),
            "http://[::1]:8470/login?token=t");
}

TEST_F(ConsoleConfigTest, HalfATlsSettingIsRefused) {
  EXPECT_THROW(kxserv::ReadConsoleConfig(Write("certificate = /c.pem\n")),
               kxserv::ConfigError);
}

TEST_F(ConsoleConfigTest, AnUnknownKeyOrBadPortNamesTheLine) {
  try {
    kxserv::ReadConsoleConfig(Write("# console\nport = 70000\n"));
    FAIL() << "a port above 65535 was taken";
  } catch (const kxserv::ConfigError& e) {
    EXPECT_NE(std::string(e.what()).find("kxconsole.conf:2"), std::string::npos)
        << e.what();
  }
  EXPECT_THROW(kxserv::ReadConsoleConfig(Write("listen = 0.0.0.0\n")),
               kxserv::ConfigError);
}

std::string Redeem(const std::string& socket, const std::string& token) {
  return Ask(socket,
             "<kxserv command=\"console-redeem\" token=\"" + token + "\"/>");
}

TEST_F(ServiceTest, ConsoleLoginTokenIsRedeemedOnceThroughTheService) {
  Service service(root_.dir());
  const std::string issued =
      Ask(service.socket(), "<kxserv command=\"console-login\"/>");
  ASSERT_EQ(Field(issued, "result"), "1") << issued;
  const std::string token = Field(issued, "token");
  ASSERT_EQ(token.size(), 64u);
  EXPECT_FALSE(Field(issued, "expires").empty());
  EXPECT_EQ(Field(Redeem(service.socket(), token), "result"), "1");
  const std::string again = Redeem(service.socket(), token);
  EXPECT_EQ(Field(again, "result"), "0");
  EXPECT_EQ(Field(again, "error_code"), "bad_token");
}

TEST_F(ServiceTest, ConsoleRedeemWithoutATokenIsABadRequest) {
  Service service(root_.dir());
  EXPECT_EQ(Field(Ask(service.socket(), "<kxserv command=\"console-redeem\"/>"),
                  "error_code"),
            "bad_request");
}

TEST_F(ServiceTest, ConsoleLoginTokensExpireAfterTheConfiguredTime) {
  Configure("console_login_seconds = 10\n");
  Service service(root_.dir());
  const std::string issued =
      Ask(service.socket(), "<kxserv command=\"console-login\"/>");
  const long long expires = std::stoll(Field(issued, "expires"));
  const long long now = static_cast<long long>(std::time(nullptr));
  EXPECT_LE(expires - now, 10);
  EXPECT_GE(expires - now, 8);
}

TEST_F(ServiceTest, KxctlConsoleLoginPrintsALinkThatTheServiceRedeems) {
  std::ofstream(root_.dir() + "/etc/kxconsole.conf") << "port = 9123\n";
  Service service(root_.dir());
  const RunResult run = RunShell(std::string(KX_KXCTL_PATH) + " --root " +
                                 root_.dir() + " console-login 2>/dev/null");
  ASSERT_EQ(run.exit_code, 0) << run.output;
  const std::string prefix = "http://127.0.0.1:9123/login?token=";
  ASSERT_EQ(run.output.compare(0, prefix.size(), prefix), 0) << run.output;
  const std::string token =
      run.output.substr(prefix.size(), run.output.find('\n') - prefix.size());
  EXPECT_EQ(Field(Redeem(service.socket(), token), "result"), "1");
  EXPECT_EQ(Field(Redeem(service.socket(), token), "result"), "0");
}

TEST_F(ServiceTest,
       KxctlConsoleLoginWithABrokenConsoleConfigurationAsksNothing) {
  std::ofstream(root_.dir() + "/etc/kxconsole.conf") << "port = many\n";
  Service service(root_.dir());
  const RunResult run = RunShell(std::string(KX_KXCTL_PATH) + " --root " +
                                 root_.dir() + " console-login 2>&1");
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_NE(run.output.find("kxconsole.conf:1"), std::string::npos)
      << run.output;
  EXPECT_EQ(
      Field(Ask(service.socket(), "<kxserv command=\"state\"/>"), "requests"),
      "1");
}

}  // namespace
}  // namespace servicetest
