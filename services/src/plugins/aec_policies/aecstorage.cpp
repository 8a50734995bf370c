// The plug-in's rows in the host's settings database at first start.
#include <sqlite3.h>

#include <string>

#include "aec_log.h"
#include "aec_policies/aeclogtypes.h"
#include "aec_policies/aecpluginpolicy.h"
#include "host/db.h"
#include "host/request_getters.h"

namespace {

// Setting up storage is a step of the core's start (plugin_init); its line
// carries the core's file name like the core's other start-up lines.
constexpr const char* kLogFile = "aec_plugin";

// Runs one read statement; the table, if any, is released here and only the
// row count and the first value are kept.
struct ReadResult {
  bool has_table = false;
  int rows = 0;
  std::string first_value;
};

ReadResult Read(const std::string& sql) {
  db_response_t response{};
  db_execute(sql.c_str(), &response);
  ReadResult result;
  if (response.table != nullptr) {
    result.has_table = true;
    result.rows = response.rows;
    if (response.rows > 0 && response.table[1] != nullptr) {
      result.first_value = response.table[1];
    }
    sqlite3_free_table(response.table);
  }
  return result;
}

}  // namespace

void InitStorage() {
  const ControlPolicyDbRequestGetter getter;
  if (Read(getter.GetRequestReadData("aec_state")).rows > 0) return;

  std::string state = "0";
  std::string mode = "0";
  std::string sql;

  const ReadResult old = Read(getter.GetRequestReadData("aec_control"));
  if (!old.has_table) {
    // A fresh installation. The INSERTs are joined without separators: the
    // statement text is part of what the settings database receives, and
    // the host documents what SQLite makes of it.
    sql += "CREATE TABLE conf.aec_log_conf ('fsEvent' TEXT, 'fiValue' INTEGER);";
    for (const AecLogType& type : aec::kAecLogTypes) {
      sql += "INSERT INTO 'aec_log_conf' VALUES('" + type.name + "', " +
             std::to_string(type.default_value) + ")";
    }
  } else if (old.rows > 0) {
    // Upgrade from the single policy: 2 was hard mode, 1 soft mode.
    if (old.first_value == "2") {
      state = "1";
      mode = "1";
    } else if (old.first_value == "1") {
      state = "1";
    }
    sql += "DELETE FROM 'control_plugin_conf' WHERE fsPolicy = 'aec_control';";
  }
  sql += "INSERT INTO 'control_plugin_conf' VALUES('aec_state', " + state +
         ");INSERT INTO 'control_plugin_conf' VALUES('aec_mode', " + mode +
         ");";

  db_response_t response{};
  db_execute(sql.c_str(), &response);
  if (response.table == nullptr) {
    AEC_LOG(kLogFile, 3, "[%d] %s: aec policies creation failed");
    return;
  }
  sqlite3_free_table(response.table);
}
