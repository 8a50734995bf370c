#include "host/kxldap.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>

#include "whitelist_env.h"

namespace {

constexpr const char* kPort = "3268";

std::string Bytes(std::initializer_list<int> values) {
  std::string bytes;
  for (int v : values) bytes += static_cast<char>(v);
  return bytes;
}

TEST(KXLdapSidTest, ASidBecomesTheDirectorysBinaryLayout) {
  EXPECT_EQ(Bytes({0x01, 0x05, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x15, 0x00,
                   0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00,
                   0x03, 0x00, 0x00, 0x00, 0xe9, 0x03, 0x00, 0x00}),
            KXLdap::SidToBinary("S-1-5-21-1-2-3-1001"));
  // The largest authority and sub-authority; no sub-authority at all.
  EXPECT_EQ(Bytes({0x01, 0x01, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                   0xff, 0xff}),
            KXLdap::SidToBinary("S-1-281474976710655-4294967295"));
  EXPECT_EQ(Bytes({0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05}),
            KXLdap::SidToBinary("S-1-5"));
}

TEST(KXLdapSidTest, AMalformedSidIsRejected) {
  for (const char* sid :
       {"", "S", "S-", "S-1", "X-1-5-21", "S-1-5-", "S-1--5", "S-1-5-x",
        "S-1-5-21 ", " S-1-5", "S-256-5-1", "S-1-281474976710656-1",
        "S-1-5-4294967296", "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16",
        "S-1-5-+1", "S-1-5-99999999999999999999999"}) {
    EXPECT_THROW(KXLdap::SidToBinary(sid), std::invalid_argument) << sid;
  }
  EXPECT_NO_THROW(
      KXLdap::SidToBinary("S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15"));
}

TEST(KXLdapSidTest, EveryByteIsEscapedForAFilter) {
  EXPECT_EQ(
      "\\01\\05\\00\\ff\\2a\\28\\29\\5c",
      KXLdap::EscapeFilterBytes(Bytes({1, 5, 0, 0xff, '*', '(', ')', '\\'})));
  EXPECT_EQ("", KXLdap::EscapeFilterBytes(""));
}

TEST(KXLdapTest, LookupsBeforeConnectRaise) {
  KXLdap directory(wltest::kBindDn, wltest::kBindPassword, 1, kPort);
  EXPECT_THROW(directory.GetDomainNameStr(), std::runtime_error);
  EXPECT_THROW(directory.GetSAMAccountNameBySid(wltest::kAliceSid),
               std::runtime_error);
}

TEST(KXLdapTest, AServerNameThatWouldChangeTheAddressIsRejected) {
  for (const char* server :
       {"", "dc1/x", "a b", "dc1:389", "user@dc1", "dc?1"}) {
    KXLdap directory(wltest::kBindDn, wltest::kBindPassword, 1, kPort);
    EXPECT_THROW(directory.Connect(server, false), std::runtime_error)
        << server;
  }
  KXLdap bad_port(wltest::kBindDn, wltest::kBindPassword, 1, "3268x");
  EXPECT_THROW(bad_port.Connect("127.0.0.1", false), std::runtime_error);
  KXLdap other_storage(wltest::kBindDn, wltest::kBindPassword, 2, kPort);
  EXPECT_THROW(other_storage.Connect("127.0.0.1", false), std::runtime_error);
}

class KXLdapDirectoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string failure = wltest::StartDirectory();
    if (!failure.empty()) GTEST_SKIP() << "no test directory: " << failure;
  }
};

TEST_F(KXLdapDirectoryTest, BindsAndNamesTheDomainOfTheNamingContext) {
  KXLdap directory(wltest::kBindDn, wltest::kBindPassword, 1, kPort);
  directory.Connect(wltest::kDirectoryServer, false);
  EXPECT_EQ("corp.example", directory.GetDomainNameStr());
}

TEST_F(KXLdapDirectoryTest, AUserSidNamesItsAccountAndNoGroup) {
  KXLdap directory(wltest::kBindDn, wltest::kBindPassword, 1, kPort);
  directory.Connect(wltest::kDirectoryServer, false);
  EXPECT_EQ("alice", directory.GetSAMAccountNameBySid(wltest::kAliceSid));
  EXPECT_EQ("carol", directory.GetSAMAccountNameBySid(wltest::kCarolSid));
  EXPECT_EQ("", directory.GetGroupNameBySid(wltest::kAliceSid));
}

TEST_F(KXLdapDirectoryTest, AGroupSidNamesItsGroupAndNoAccount) {
  KXLdap directory(wltest::kBindDn, wltest::kBindPassword, 1, kPort);
  directory.Connect(wltest::kDirectoryServer, false);
  EXPECT_EQ("devs", directory.GetGroupNameBySid(wltest::kDevsSid));
  EXPECT_EQ("", directory.GetSAMAccountNameBySid(wltest::kDevsSid));
}

TEST_F(KXLdapDirectoryTest, UnknownSidsAndEntriesOfAnotherKindAnswerEmpty) {
  KXLdap directory(wltest::kBindDn, wltest::kBindPassword, 1, kPort);
  directory.Connect(wltest::kDirectoryServer, false);
  EXPECT_EQ("", directory.GetSAMAccountNameBySid(wltest::kUnknownSid));
  EXPECT_EQ("", directory.GetGroupNameBySid(wltest::kUnknownSid));
  EXPECT_EQ("", directory.GetSAMAccountNameBySid(wltest::kPrinterSid));
  EXPECT_EQ("", directory.GetGroupNameBySid(wltest::kPrinterSid));
}

TEST_F(KXLdapDirectoryTest, AMalformedSidRaisesBeforeAnySearch) {
  KXLdap directory(wltest::kBindDn, wltest::kBindPassword, 1, kPort);
  directory.Connect(wltest::kDirectoryServer, false);
  EXPECT_THROW(directory.GetSAMAccountNameBySid("S-1-5-*"),
               std::invalid_argument);
}

TEST_F(KXLdapDirectoryTest, AWrongPasswordFailsTheBind) {
  KXLdap directory(wltest::kBindDn, "wrong", 1, kPort);
  try {
    directory.Connect(wltest::kDirectoryServer, false);
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string::npos,
              std::string(e.what()).find("Invalid credentials"))
        << e.what();
  }
}

TEST_F(KXLdapDirectoryTest, ANameWithoutPasswordIsNeverBoundAnonymously) {
  KXLdap directory(wltest::kBindDn, "", 1, kPort);
  try {
    directory.Connect(wltest::kDirectoryServer, false);
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string::npos,
              std::string(e.what()).find("without a password"))
        << e.what();
  }
}

TEST_F(KXLdapDirectoryTest, StartTlsWithAPlainDirectoryFails) {
  KXLdap directory(wltest::kBindDn, wltest::kBindPassword, 1, kPort);
  EXPECT_THROW(directory.Connect(wltest::kDirectoryServer, true),
               std::runtime_error);
}

class KXLdapNetworkTest : public ::testing::Test {
 protected:
  void SetUp() override { wltest::EnterPrivateNetwork(); }
};

TEST_F(KXLdapNetworkTest, AClosedPortIsReportedAsUnreachable) {
  // Nothing listens on 127.0.0.2 (slapd, when running, on 127.0.0.1 only).
  KXLdap directory(wltest::kBindDn, wltest::kBindPassword, 1, kPort);
  try {
    directory.Connect("127.0.0.2", false);
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string::npos,
              std::string(e.what()).find("cannot be reached"))
        << e.what();
  }
}

TEST_F(KXLdapNetworkTest, AMuteServerCostsSecondsNotAHang) {
  // A listener that accepts connections and never answers.
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(listener, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(3268);
  address.sin_addr.s_addr = inet_addr("127.0.0.3");
  ASSERT_EQ(
      0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
  ASSERT_EQ(0, listen(listener, 4));
  const auto start = std::chrono::steady_clock::now();
  KXLdap directory(wltest::kBindDn, wltest::kBindPassword, 1, kPort);
  EXPECT_THROW(directory.Connect("127.0.0.3", false), std::runtime_error);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
                           std::chrono::steady_clock::now() - start)
                           .count();
  close(listener);
  EXPECT_LE(seconds, 15);
}

}  // namespace
