#include "installed_system.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace pkgtest {
namespace {

void ReadTable(sqlite3* db, const std::string& table,
               std::vector<std::string>* rows) {
  sqlite3_stmt* statement = nullptr;
  const std::string sql = "SELECT * FROM " + table;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) !=
      SQLITE_OK) {
    const std::string message = sqlite3_errmsg(db);
    sqlite3_finalize(statement);
    throw std::runtime_error(sql + ": " + message);
  }
  int step;
  while ((step = sqlite3_step(statement)) == SQLITE_ROW) {
    std::string row = table;
    for (int column = 0; column < sqlite3_column_count(statement); ++column) {
      const unsigned char* text = sqlite3_column_text(statement, column);
      row += "|" + (text == nullptr ? std::string("NULL")
                                    : reinterpret_cast<const char*>(text));
    }
    rows->push_back(row);
  }
  sqlite3_finalize(statement);
  if (step != SQLITE_DONE) throw std::runtime_error(sql + ": step failed");
}

}  // namespace

const char* const kEmptyWhitelist =
    "{\n"
    "    \"user_list\": \"\",\n"
    "    \"group_list\": \"\"\n"
    "}\n";

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + path);
}

bool Exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

RunResult CheckSeal() {
  return RunProgram({kKxaide, "-k", "-c", kCrcList, "-d", kCrcDb});
}

std::vector<std::string> SettingsRows() {
  sqlite3* db = nullptr;
  if (sqlite3_open_v2("/opt/korvex/usr/db/kx.db", &db, SQLITE_OPEN_READONLY,
                      nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    throw std::runtime_error("cannot open kx.db");
  }
  std::vector<std::string> rows;
  try {
    char* error = nullptr;
    if (sqlite3_exec(db,
                     "ATTACH DATABASE 'file:/opt/korvex/usr/db/kx_settings.db"
                     "?mode=ro' AS conf",
                     nullptr, nullptr, &error) != SQLITE_OK) {
      const std::string message = error == nullptr ? "" : error;
      sqlite3_free(error);
      throw std::runtime_error("cannot attach kx_settings.db: " + message);
    }
    // Every table there is: which ones exist depends on what ran before.
    for (const std::string schema : {"main", "conf"}) {
      std::vector<std::string> names;
      ReadTable(db, schema + ".sqlite_master WHERE type = 'table'", &names);
      for (const auto& entry : names) {
        // "<schema>.sqlite_master WHERE ...|table|<name>|..."
        const auto start = entry.find("|table|") + 7;
        ReadTable(
            db,
            schema + "." + entry.substr(start, entry.find('|', start) - start),
            &rows);
      }
    }
  } catch (...) {
    sqlite3_close(db);
    throw;
  }
  sqlite3_close(db);
  std::sort(rows.begin(), rows.end());
  return rows;
}

std::string SeedAdministratorState() {
  const std::vector<std::vector<std::string>> steps = {
      // plugin_init writes the plug-in's default rows.
      {kKxhost, "info"},
      {kKxhost, "setting", "KXDomainServer", "dc1.example.org"},
      {kKxaecctl, "add", "-n", "build-tools", "-u", "root", "-r",
       "/usr/bin/true", "-d", "-C"},
      {kKxaecctl, "add", "-u", "root", "-C"},
  };
  for (const auto& step : steps) {
    const RunResult run = RunProgram(step);
    if (run.exit_code != 0) {
      std::string line;
      for (const auto& word : step) line += word + " ";
      return line + "exited with " + std::to_string(run.exit_code) + ": " +
             run.out + run.err;
    }
  }
  // Not confirmed in time: the state that must survive an upgrade most of
  // all, since it keeps hard mode refused.
  WriteFile(kConfirmState, "state=3\nrequired=1\n");
  return "";
}

RunResult StatusConfirmation(const std::string& scratch) {
  WriteFile(scratch, "<request command=\"status_confirmation\"/>\n");
  return RunProgram({kKxhost, "exec", scratch});
}

}  // namespace pkgtest
