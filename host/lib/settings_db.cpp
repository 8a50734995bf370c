#include "settings_db.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace kxhost {
namespace {

constexpr const char* kInstallRoot = "/opt/korvex";
constexpr const char* kDbDir = "/opt/korvex/usr/db";
constexpr const char* kMainDb = "/opt/korvex/usr/db/kx.db";
constexpr const char* kSettingsDb = "/opt/korvex/usr/db/kx_settings.db";
// Another process of the agent (a tool, a second kxhost) may hold a write
// lock for a moment; waiting is better than failing a policy update.
constexpr int kBusyTimeoutMs = 5000;

sqlite3* g_db = nullptr;

void MakeDir(const std::string& path) {
  if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
    throw std::runtime_error("settings database: cannot make " + path + ": " +
                             std::strerror(errno));
  }
}

void Exec(sqlite3* db, const char* sql) {
  char* error = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
    const std::string message = error != nullptr ? error : sqlite3_errmsg(db);
    sqlite3_free(error);
    throw std::runtime_error(std::string("settings database: ") + sql + ": " +
                             message);
  }
}

sqlite3* Open() {
  // The install root itself is never made here: a host without its install
  // root is broken, and making it would write outside any sandbox.
  struct stat root;
  if (stat(kInstallRoot, &root) != 0 || !S_ISDIR(root.st_mode)) {
    throw std::runtime_error(std::string("settings database: no install root ") +
                             kInstallRoot);
  }
  MakeDir(std::string(kInstallRoot) + "/usr");
  MakeDir(kDbDir);
  sqlite3* db = nullptr;
  const int rc = sqlite3_open_v2(
      kMainDb, &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  if (rc != SQLITE_OK) {
    const std::string message =
        db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    sqlite3_close(db);
    throw std::runtime_error(std::string("settings database: cannot open ") +
                             kMainDb + ": " + message);
  }
  try {
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    Exec(db, (std::string("ATTACH DATABASE '") + kSettingsDb + "' AS conf")
                 .c_str());
    Exec(db,
         "CREATE TABLE IF NOT EXISTS main.control_plugin_conf "
         "(fsPolicy TEXT, fiValue INTEGER)");
    Exec(db,
         "CREATE TABLE IF NOT EXISTS conf.kxhost_policy_source "
         "(plugin TEXT, policy TEXT, source TEXT)");
  } catch (...) {
    sqlite3_close(db);
    throw;
  }
  return db;
}

}  // namespace

sqlite3* SettingsDb() {
  if (g_db == nullptr) g_db = Open();
  return g_db;
}

void CloseSettingsDb() {
  if (g_db == nullptr) return;
  sqlite3_close_v2(g_db);
  g_db = nullptr;
}

}  // namespace kxhost
