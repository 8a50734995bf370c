#include "networkconfig.h"

#include <sqlite3.h>

#include <cstring>
#include <stdexcept>

#include "aec_log.h"
#include "host/crypto.h"
#include "host/db.h"

std::string g_serverUrl;
std::string g_serverSid;
std::string g_clientSid;
std::string g_domainGUID;
std::uint32_t g_receiveTimeout = 0;
std::uint64_t g_transmissionBlockSize = 0;
bool g_saveLogCopy = false;
bool g_takeLogExceed = false;

namespace {

constexpr const char* kLogFile = "networkconfig";
// The name in the store's lines: "[code] network: ...".
constexpr const char* kLogName = "network";

const std::string kTable = "conf.network_plugin_config";

// The stored key names; their spellings are the stored format.
const std::string kNetworkGuiSettings = "NetworkGUISettings";
const std::string kServerUrl = "KXServerURL";
const std::string kDomainUser = "KXDomainUser";
const std::string kDomainPassword = "KXDomainPassword";
const std::string kServerLocationType = "KXServerLocationType";
const std::string kUpdateAdTimeout = "KXUpdateADTimeout";
const std::string kActiveLds = "KXActiveLDS";
const std::string kClientSid = "KXClientSID";
const std::string kServerSid = "KXServerSID";
const std::string kDomainGuid = "KXDomainGUID";
const std::string kComputerAgentFlags = "KXComputerAgentFlags";
const std::string kComputerClientKx70 = "KXComputerClientKX70";
const std::string kComputerAgent = "KXComputerfAgent";
const std::string kComputerHttpTransport = "KXComputerHttpTransportSettings";
const std::string kComputerOmsSid = "KXComputerOMSSID";
const std::string kComputerRegWsDepartement = "KXComputerRegWSDepartement";
const std::string kComputerRegWsLocation = "KXComputerRegWSLocation";
const std::string kComputerRegWsNumber = "KXComputerRegWSNumber";
const std::string kComputerRegWsSystem = "KXComputerRegWSSystem";
const std::string kComputerShedule = "KXComputerShedule";
const std::string kComputerTerminalServer = "KXComputerTerminalServerKX70";
const std::string kComputerTrustedBoot = "KXComputerTrustedBootKX70";
const std::string kProductVersionMajor = "KXProductVersionMajor";
const std::string kProductVersionMinor = "KXProductVersionMinor";
const std::string kEnableNetwork = "KXEnableNetwork";
const std::string kLogExceed = "LDAPisLogExceed";
const std::string kLogCopy = "LDAPisLogCopy";
const std::string kMaxRowInJournal = "MaxRowInJournalDBs";

// One record for reads and one for writes, shared by every call of the
// store; the reason it must be used from one thread at a time.
db_response_t g_readResponse;
db_response_t g_writeResponse;

void FreeTable(db_response_t& response) {
  if (response.table != nullptr) sqlite3_free_table(response.table);
  response.table = nullptr;
}

}  // namespace

bool NetworkConfig::Initialize() {
  db_execute(("SELECT * FROM " + kTable).c_str(), &g_writeResponse);
  if (g_writeResponse.table != nullptr) {
    FreeTable(g_writeResponse);
    return true;
  }
  AEC_LOG_CODED(kLogFile, 4, aec::LogCode(aec::kNetworkLogId, 4), kLogName,
                "[%d] %s: configuration table does not exist, creating it");
  db_execute(("CREATE TABLE " + kTable + " (name TEXT, value TEXT)").c_str(),
             &g_writeResponse);
  if (g_writeResponse.table == nullptr) {
    // Priority 2 with the error code: the text and its numbers are what the
    // agent's log readers know.
    AEC_LOG_CODED(kLogFile, 2, aec::LogCode(aec::kNetworkLogId, 3), kLogName,
                  "[%d] %s: failed to create configuration table. AIDE "
                  "plugin is not initialized");
    return false;
  }
  FreeTable(g_writeResponse);
  settings(kMaxRowInJournal, "10000");
  settings(kEnableNetwork, "0");
  settings(kDomainUser, "");
  settings(kDomainPassword, "");
  return settings(kUpdateAdTimeout, "60");
}

std::string NetworkConfig::settings(const std::string& name) {
  const std::string sql =
      "SELECT value FROM " + kTable + " WHERE name='" + name + "'";
  db_execute(sql.c_str(), &g_readResponse);
  db_response_t& r = g_readResponse;
  if (r.table != nullptr && r.rows == 1 && r.columns == 1 &&
      r.table[0] != nullptr && std::strcmp(r.table[0], "value") == 0) {
    const char* cell = r.table[1];
    if (cell == nullptr) {
      FreeTable(r);
      throw std::logic_error("NetworkConfig: setting " + name + " is NULL");
    }
    std::string value(cell);
    FreeTable(r);
    if (name == kDomainPassword) return decrypt_password(value);
    return value;
  }
  AEC_LOG_CODED(kLogFile, 7, aec::LogCode(aec::kNetworkLogId, 7), kLogName,
                "[%d] %s: cannot load setting %s from DB", name.c_str());
  FreeTable(r);
  return "";
}

bool NetworkConfig::settings(const std::string& name,
                             const std::string& value) {
  db_execute(("SELECT * FROM " + kTable + " WHERE name='" + name + "'").c_str(),
             &g_writeResponse);
  if (g_writeResponse.table == nullptr) {
    AEC_LOG_CODED(kLogFile, 3, aec::LogCode(aec::kNetworkLogId, 3), kLogName,
                  "[%d] %s: Error save config");
    return false;
  }
  const bool exists = g_writeResponse.rows != 0;
  FreeTable(g_writeResponse);
  const std::string sql = exists ? "UPDATE " + kTable + " SET value='" + value +
                                       "' WHERE name='" + name + "'"
                                 : "INSERT INTO " + kTable +
                                       " (name, value) VALUES ('" + name +
                                       "', '" + value + "')";
  db_execute(sql.c_str(), &g_writeResponse);
  if (g_writeResponse.table == nullptr) {
    AEC_LOG_CODED(kLogFile, 3, aec::LogCode(aec::kNetworkLogId, 3), kLogName,
                  "[%d] %s: Error save config");
    return false;
  }
  FreeTable(g_writeResponse);
  return true;
}

bool NetworkConfig::settings(const std::string& name, const char* value) {
  if (value == nullptr) {
    throw std::logic_error("NetworkConfig: null value for setting " + name);
  }
  return settings(name, std::string(value));
}

bool NetworkConfig::settings(const std::string& name, const bool& value) {
  return settings(name, std::string(value ? "1" : "0"));
}

std::string NetworkConfig::GetDomainUser() { return settings(kDomainUser); }
std::string NetworkConfig::GetDomainPassword() {
  return settings(kDomainPassword);
}
std::string NetworkConfig::GetUpdateADTimeout() {
  return settings(kUpdateAdTimeout);
}
std::string NetworkConfig::GetActiveLDS() { return settings(kActiveLds); }
bool NetworkConfig::SetActiveLDS(const std::string& value) {
  return settings(kActiveLds, value);
}
std::string NetworkConfig::GetClientAgentFlag() {
  return settings(kComputerAgentFlags);
}
std::string NetworkConfig::GetClientClientKX70() {
  return settings(kComputerClientKx70);
}
std::string NetworkConfig::GetClientAgent() { return settings(kComputerAgent); }
std::string NetworkConfig::GetClientHttpTransportSettings() {
  return settings(kComputerHttpTransport);
}
std::string NetworkConfig::GetClientOMSSID() {
  return settings(kComputerOmsSid);
}
std::string NetworkConfig::GetClientRegWSDepartement() {
  return settings(kComputerRegWsDepartement);
}
std::string NetworkConfig::GetClientRegWSLocation() {
  return settings(kComputerRegWsLocation);
}
std::string NetworkConfig::GetClientRegWSNumber() {
  return settings(kComputerRegWsNumber);
}
std::string NetworkConfig::GetClientRegWSSystem() {
  return settings(kComputerRegWsSystem);
}
std::string NetworkConfig::GetClientShedule() {
  return settings(kComputerShedule);
}
std::string NetworkConfig::GetClientTerminalServerKX70() {
  return settings(kComputerTerminalServer);
}
std::string NetworkConfig::GetClientTrustedBootKX70() {
  return settings(kComputerTerminalServer);
}
std::string NetworkConfig::GetClientVersionMajor() {
  return settings(kProductVersionMajor);
}
std::string NetworkConfig::GetClientVersionMinor() {
  return settings(kProductVersionMinor);
}

bool NetworkConfig::IsEnable() {
  const std::string value = settings(kEnableNetwork);
  return value == "true" || value == "1";
}

bool NetworkConfig::setLogExceed(bool value) {
  g_takeLogExceed = value;
  return settings(kLogExceed, value);
}

bool NetworkConfig::setSaveLogCopy(bool value) {
  g_saveLogCopy = value;
  return settings(kLogCopy, value);
}

bool NetworkConfig::isTakeLogExceed() { return g_takeLogExceed; }
bool NetworkConfig::isSaveLogCopy() { return g_saveLogCopy; }

void NetworkConfig::setReceiveTimeout(unsigned value) {
  g_receiveTimeout = value;
}
unsigned NetworkConfig::getReceiveTimeout() { return g_receiveTimeout; }

void NetworkConfig::setTransmissionBlockSizeKb(unsigned long value) {
  g_transmissionBlockSize = value;
}
unsigned long NetworkConfig::getTransmissionBlockSizeKb() {
  return g_transmissionBlockSize;
}
