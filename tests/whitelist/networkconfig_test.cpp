#include "networkconfig.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host/crypto.h"
#include "host/db.h"
#include "kxtest.h"
#include "lib/runtime.h"
#include "whitelist_env.h"

namespace {

using Rows = std::vector<std::vector<std::string>>;

// Runs SQL through the host's database call; the result rows (NULL as
// "<null>"), or throws when the statement failed.
Rows Query(const std::string& sql) {
  db_response_t response;
  db_execute(sql.c_str(), &response);
  if (response.table == nullptr) throw std::runtime_error("failed: " + sql);
  Rows rows;
  for (int r = 1; r <= response.rows; ++r) {
    std::vector<std::string> row;
    for (int c = 0; c < response.columns; ++c) {
      const char* cell = response.table[r * response.columns + c];
      row.push_back(cell == nullptr ? "<null>" : cell);
    }
    rows.push_back(row);
  }
  sqlite3_free_table(response.table);
  return rows;
}

Rows StoredRows() {
  return Query(
      "SELECT name, value FROM conf.network_plugin_config ORDER BY rowid");
}

class NetworkConfigTest : public kxtest::SandboxTest {};

TEST_F(NetworkConfigTest, AFreshTableHoldsExactlyTheFiveDefaults) {
  EXPECT_TRUE(NetworkConfig::Initialize());
  EXPECT_EQ((Rows{{"MaxRowInJournalDBs", "10000"},
                  {"KXEnableNetwork", "0"},
                  {"KXDomainUser", ""},
                  {"KXDomainPassword", ""},
                  {"KXUpdateADTimeout", "60"}}),
            StoredRows());
  EXPECT_TRUE(log_.Contains(
      "[1191182340] network: configuration table does not exist, creating it"));
  EXPECT_EQ("60", NetworkConfig::GetUpdateADTimeout());
  EXPECT_EQ("", NetworkConfig::GetDomainUser());
  EXPECT_EQ("", NetworkConfig::GetDomainPassword());
}

TEST_F(NetworkConfigTest, AnExistingTableIsLeftAsItIs) {
  Query(
      "CREATE TABLE conf.network_plugin_config (name TEXT, value TEXT);"
      "INSERT INTO conf.network_plugin_config VALUES ('KXEnableNetwork', '1')");
  EXPECT_TRUE(NetworkConfig::Initialize());
  EXPECT_EQ((Rows{{"KXEnableNetwork", "1"}}), StoredRows());
  EXPECT_FALSE(log_.Contains("does not exist"));
}

TEST_F(NetworkConfigTest, ATableThatCannotBeCreatedIsLoggedAndGetsNoDefaults) {
  // The database exists but its directory and files become read-only.
  Query("SELECT 1");
  kxhost::ResetState();
  {
    wltest::ReadOnlyDir read_only("/opt/korvex/usr/db");
    EXPECT_FALSE(NetworkConfig::Initialize());
    EXPECT_TRUE(log_.Contains(
        "network: failed to create configuration table. AIDE plugin is not "
        "initialized"));
    kxhost::ResetState();
  }
  EXPECT_THROW(StoredRows(), std::runtime_error);
}

TEST_F(NetworkConfigTest, WritingANameTheFirstTimeInsertsItAndAgainUpdatesIt) {
  ASSERT_TRUE(NetworkConfig::Initialize());
  EXPECT_TRUE(NetworkConfig::settings("KXServerURL", std::string("https://a")));
  EXPECT_TRUE(NetworkConfig::settings("KXServerURL", std::string("https://b")));
  EXPECT_EQ((Rows{{"https://b"}}),
            Query("SELECT value FROM conf.network_plugin_config "
                  "WHERE name='KXServerURL'"));
  EXPECT_EQ("https://b", NetworkConfig::settings("KXServerURL"));
}

TEST_F(NetworkConfigTest, TwoRowsOfOneNameFailEveryReadWhileWritesUpdateBoth) {
  ASSERT_TRUE(NetworkConfig::Initialize());
  Query(
      "INSERT INTO conf.network_plugin_config VALUES ('KXActiveLDS', 'a');"
      "INSERT INTO conf.network_plugin_config VALUES ('KXActiveLDS', 'b')");
  EXPECT_EQ("", NetworkConfig::GetActiveLDS());
  EXPECT_TRUE(log_.Contains(
      "[1191182343] network: cannot load setting KXActiveLDS from DB"));
  EXPECT_TRUE(NetworkConfig::SetActiveLDS("dc1"));
  EXPECT_EQ((Rows{{"dc1"}, {"dc1"}}),
            Query("SELECT value FROM conf.network_plugin_config "
                  "WHERE name='KXActiveLDS'"));
  EXPECT_EQ("", NetworkConfig::GetActiveLDS());
}

TEST_F(NetworkConfigTest, AMissingSettingReadsEmptyAndIsLogged) {
  ASSERT_TRUE(NetworkConfig::Initialize());
  EXPECT_EQ("", NetworkConfig::GetClientOMSSID());
  EXPECT_TRUE(log_.Contains("cannot load setting KXComputerOMSSID from DB"));
}

TEST_F(NetworkConfigTest, EnabledOnlyForExactlyOneOrTrue) {
  ASSERT_TRUE(NetworkConfig::Initialize());
  EXPECT_FALSE(NetworkConfig::IsEnable());  // the default "0"
  const std::vector<std::pair<std::string, bool>> cases = {
      {"1", true},     {"true", true}, {"TRUE", false},
      {"True", false}, {"", false},    {"yes", false},
      {"0", false},    {" 1", false},  {"false", false}};
  for (const auto& c : cases) {
    ASSERT_TRUE(NetworkConfig::settings("KXEnableNetwork", c.first));
    EXPECT_EQ(c.second, NetworkConfig::IsEnable()) << "'" << c.first << "'";
  }
}

TEST_F(NetworkConfigTest, TrustedBootReadsTheTerminalServerKey) {
  ASSERT_TRUE(NetworkConfig::Initialize());
  ASSERT_TRUE(NetworkConfig::settings("KXComputerTerminalServerKX70",
                                      std::string("terminal")));
  ASSERT_TRUE(NetworkConfig::settings("KXComputerTrustedBootKX70",
                                      std::string("trusted")));
  EXPECT_EQ("terminal", NetworkConfig::GetClientTerminalServerKX70());
  EXPECT_EQ(NetworkConfig::GetClientTerminalServerKX70(),
            NetworkConfig::GetClientTrustedBootKX70());
}

TEST_F(NetworkConfigTest, EveryAccessorReadsItsOwnKeyWithItsSpelling) {
  ASSERT_TRUE(NetworkConfig::Initialize());
  const std::vector<std::pair<std::string, std::string (*)()>> accessors = {
      {"KXDomainUser", &NetworkConfig::GetDomainUser},
      {"KXUpdateADTimeout", &NetworkConfig::GetUpdateADTimeout},
      {"KXActiveLDS", &NetworkConfig::GetActiveLDS},
      {"KXComputerAgentFlags", &NetworkConfig::GetClientAgentFlag},
      {"KXComputerClientKX70", &NetworkConfig::GetClientClientKX70},
      {"KXComputerfAgent", &NetworkConfig::GetClientAgent},
      {"KXComputerHttpTransportSettings",
       &NetworkConfig::GetClientHttpTransportSettings},
      {"KXComputerOMSSID", &NetworkConfig::GetClientOMSSID},
      {"KXComputerRegWSDepartement", &NetworkConfig::GetClientRegWSDepartement},
      {"KXComputerRegWSLocation", &NetworkConfig::GetClientRegWSLocation},
      {"KXComputerRegWSNumber", &NetworkConfig::GetClientRegWSNumber},
      {"KXComputerRegWSSystem", &NetworkConfig::GetClientRegWSSystem},
      {"KXComputerShedule", &NetworkConfig::GetClientShedule},
      {"KXComputerTerminalServerKX70",
       &NetworkConfig::GetClientTerminalServerKX70},
      {"KXProductVersionMajor", &NetworkConfig::GetClientVersionMajor},
      {"KXProductVersionMinor", &NetworkConfig::GetClientVersionMinor},
  };
  for (const auto& accessor : accessors) {
    ASSERT_TRUE(NetworkConfig::settings(accessor.first, "v-" + accessor.first));
  }
  for (const auto& accessor : accessors) {
    EXPECT_EQ("v-" + accessor.first, accessor.second()) << accessor.first;
  }
}

TEST_F(NetworkConfigTest, ThePasswordIsStoredEncipheredAndDecipheredOnRead) {
  ASSERT_TRUE(NetworkConfig::Initialize());
  const std::string stored = encrypt_password("s3cret'\"x");
  ASSERT_TRUE(NetworkConfig::settings("KXDomainPassword", stored));
  const Rows raw = Query(
      "SELECT value FROM conf.network_plugin_config "
      "WHERE name='KXDomainPassword'");
  ASSERT_EQ(1u, raw.size());
  EXPECT_EQ(stored, raw[0][0]);
  EXPECT_EQ(std::string::npos, raw[0][0].find("s3cret"));
  EXPECT_EQ("s3cret'\"x", NetworkConfig::GetDomainPassword());
  EXPECT_EQ("s3cret'\"x", NetworkConfig::settings("KXDomainPassword"));
  // Only that key is deciphered.
  ASSERT_TRUE(NetworkConfig::settings("KXDomainUser", stored));
  EXPECT_EQ(stored, NetworkConfig::GetDomainUser());
}

TEST_F(NetworkConfigTest, ADamagedStoredPasswordRaises) {
  ASSERT_TRUE(NetworkConfig::Initialize());
  ASSERT_TRUE(NetworkConfig::settings(
      "KXDomainPassword", std::string("kx1:AAAAAAAAAAAAAAAAAAAAAAAA")));
  EXPECT_THROW(NetworkConfig::GetDomainPassword(), std::runtime_error);
}

TEST_F(NetworkConfigTest, AValueWithASingleQuoteFailsToBeWritten) {
  ASSERT_TRUE(NetworkConfig::Initialize());
  ASSERT_TRUE(NetworkConfig::settings("KXServerURL", std::string("before")));
  log_.Clear();
  EXPECT_FALSE(NetworkConfig::settings("KXServerURL", std::string("it's")));
  EXPECT_TRUE(log_.Contains("[1191182339] network: Error save config"));
  EXPECT_EQ("before", NetworkConfig::settings("KXServerURL"));
}

TEST_F(NetworkConfigTest, WritingWithoutTheTableFails) {
  EXPECT_FALSE(NetworkConfig::settings("KXServerURL", std::string("x")));
  EXPECT_TRUE(log_.Contains("network: Error save config"));
  EXPECT_EQ("", NetworkConfig::settings("KXServerURL"));
}

TEST_F(NetworkConfigTest, ABoolIsStoredAsOneOrZero) {
  ASSERT_TRUE(NetworkConfig::Initialize());
  ASSERT_TRUE(NetworkConfig::settings("KXEnableNetwork", true));
  EXPECT_EQ("1", NetworkConfig::settings("KXEnableNetwork"));
  ASSERT_TRUE(NetworkConfig::settings("KXEnableNetwork", false));
  EXPECT_EQ("0", NetworkConfig::settings("KXEnableNetwork"));
}

TEST_F(NetworkConfigTest, ANullCStringIsALogicError) {
  ASSERT_TRUE(NetworkConfig::Initialize());
  const char* nothing = nullptr;
  EXPECT_THROW(NetworkConfig::settings("KXServerURL", nothing),
               std::logic_error);
}

TEST_F(NetworkConfigTest, ASqlNullValueIsALogicError) {
  ASSERT_TRUE(NetworkConfig::Initialize());
  Query("INSERT INTO conf.network_plugin_config VALUES ('KXServerSID', NULL)");
  EXPECT_THROW(NetworkConfig::settings("KXServerSID"), std::logic_error);
}

TEST_F(NetworkConfigTest, LogFlagsAreSetInTheProcessAndStored) {
  ASSERT_TRUE(NetworkConfig::Initialize());
  EXPECT_TRUE(NetworkConfig::setLogExceed(true));
  EXPECT_TRUE(NetworkConfig::isTakeLogExceed());
  EXPECT_TRUE(g_takeLogExceed);
  EXPECT_EQ("1", NetworkConfig::settings("LDAPisLogExceed"));
  EXPECT_TRUE(NetworkConfig::setSaveLogCopy(true));
  EXPECT_TRUE(NetworkConfig::isSaveLogCopy());
  EXPECT_EQ("1", NetworkConfig::settings("LDAPisLogCopy"));

  // The readers answer the variables, not the table.
  ASSERT_TRUE(NetworkConfig::settings("LDAPisLogExceed", false));
  EXPECT_TRUE(NetworkConfig::isTakeLogExceed());
  NetworkConfig::setLogExceed(false);
  NetworkConfig::setSaveLogCopy(false);
  EXPECT_FALSE(NetworkConfig::isTakeLogExceed());
  EXPECT_FALSE(NetworkConfig::isSaveLogCopy());
}

TEST_F(NetworkConfigTest, TimeoutAndBlockSizeAreProcessValuesOnly) {
  ASSERT_TRUE(NetworkConfig::Initialize());
  const Rows before = StoredRows();
  NetworkConfig::setReceiveTimeout(4294967295u);
  NetworkConfig::setTransmissionBlockSizeKb(1ul << 40);
  EXPECT_EQ(4294967295u, NetworkConfig::getReceiveTimeout());
  EXPECT_EQ(1ul << 40, NetworkConfig::getTransmissionBlockSizeKb());
  EXPECT_EQ(4294967295u, g_receiveTimeout);
  EXPECT_EQ(std::uint64_t{1} << 40, g_transmissionBlockSize);
  EXPECT_EQ(before, StoredRows());
  NetworkConfig::setReceiveTimeout(0);
  NetworkConfig::setTransmissionBlockSizeKb(0);
}

TEST(NetworkConfigVariablesTest, ProcessWideStringsStartEmpty) {
  EXPECT_EQ("", g_serverUrl);
  EXPECT_EQ("", g_serverSid);
  EXPECT_EQ("", g_clientSid);
  EXPECT_EQ("", g_domainGUID);
}

}  // namespace
