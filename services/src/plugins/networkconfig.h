// The agent's network settings store: key-value rows of the table
// conf.network_plugin_config in the host's settings database.
//
// Every operation is static and goes to the database through the host's
// db_execute; nothing is cached. Reads answer "" when a setting is missing
// or stored more than once (and log why); writes answer false when the
// database refused them. Values are placed into the SQL text as given, so a
// name or value holding a single quote makes the statement fail: callers
// store plain words, never user input.
//
// The class and the process-wide variables below are exported from libaec.so
// (see aec.map) for the host and other modules in the same process.
// Not thread-safe: the two response records the store uses are shared by
// every call, so one thread at a time.
#pragma once

#include <cstdint>
#include <string>

#include "host/plugin_api.h"

// Process-wide values of the agent's network client. Zero or empty at load;
// this store never fills them from the table.
KX_PLUGIN_ENTRY extern std::string g_serverUrl;
KX_PLUGIN_ENTRY extern std::string g_serverSid;
KX_PLUGIN_ENTRY extern std::string g_clientSid;
KX_PLUGIN_ENTRY extern std::string g_domainGUID;
KX_PLUGIN_ENTRY extern std::uint32_t g_receiveTimeout;
KX_PLUGIN_ENTRY extern std::uint64_t g_transmissionBlockSize;  // KiB
KX_PLUGIN_ENTRY extern bool g_saveLogCopy;
KX_PLUGIN_ENTRY extern bool g_takeLogExceed;

class KX_PLUGIN_ENTRY NetworkConfig {
 public:
  NetworkConfig() = delete;

  // Makes sure the table exists. When it had to be created, writes the
  // defaults (MaxRowInJournalDBs 10000, KXEnableNetwork 0, KXDomainUser "",
  // KXDomainPassword "", KXUpdateADTimeout 60) and answers whether the last
  // of those writes succeeded. An existing table answers true; a table that
  // cannot be created answers false (both after logging where relevant).
  static bool Initialize();

  // The stored value of `name`; "" when it is missing, ambiguous or cannot
  // be read. "KXDomainPassword" is deciphered with the host's
  // decrypt_password (whose std::runtime_error for a damaged text passes to
  // the caller). A SQL NULL in the value raises std::logic_error.
  static std::string settings(const std::string& name);
  // Inserts the row, or updates every row of that name. False when the
  // database refused.
  static bool settings(const std::string& name, const std::string& value);
  // The same; a null `value` raises std::logic_error.
  static bool settings(const std::string& name, const char* value);
  // Stores "1" for true and "0" for false.
  static bool settings(const std::string& name, const bool& value);

  static std::string GetDomainUser();
  static std::string GetDomainPassword();  // deciphered
  static std::string GetUpdateADTimeout();
  static std::string GetActiveLDS();
  static bool SetActiveLDS(const std::string& value);
  static std::string GetClientAgentFlag();
  static std::string GetClientClientKX70();
  static std::string GetClientAgent();
  static std::string GetClientHttpTransportSettings();
  static std::string GetClientOMSSID();
  static std::string GetClientRegWSDepartement();
  static std::string GetClientRegWSLocation();
  static std::string GetClientRegWSNumber();
  static std::string GetClientRegWSSystem();
  static std::string GetClientShedule();
  static std::string GetClientTerminalServerKX70();
  // Reads the terminal-server key, not "KXComputerTrustedBootKX70": stored
  // set-ups depend on this pairing.
  static std::string GetClientTrustedBootKX70();
  static std::string GetClientVersionMajor();
  static std::string GetClientVersionMinor();

  // True when "KXEnableNetwork" holds exactly "1" or "true".
  static bool IsEnable();

  // Set the process-wide flag, then store it; the result is the store's.
  static bool setLogExceed(bool value);
  static bool setSaveLogCopy(bool value);
  // The process-wide flags only (false in a new process, whatever is stored).
  static bool isTakeLogExceed();
  static bool isSaveLogCopy();

  // Plain access to the process-wide variables; nothing is stored.
  static void setReceiveTimeout(unsigned value);
  static unsigned getReceiveTimeout();
  static void setTransmissionBlockSizeKb(unsigned long value);
  static unsigned long getTransmissionBlockSizeKb();
};
