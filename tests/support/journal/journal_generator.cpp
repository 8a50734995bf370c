#include "journal_generator.h"

#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <stdexcept>

#include "journal_schema.h"

namespace kxjournal {

const char* const kJournalIndex =
    "CREATE INDEX logs_date_time ON logs(date_time);";

namespace {

struct DbCloser {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
struct StmtFinalizer {
  void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using Db = std::unique_ptr<sqlite3, DbCloser>;
using Stmt = std::unique_ptr<sqlite3_stmt, StmtFinalizer>;

constexpr const char* kInsert =
    "INSERT INTO logs (event_id, date_time, app, object_name, username,"
    " groupname, success, pid, uid, gid, hostname, description)"
    " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12)";

[[noreturn]] void Fail(sqlite3* db, const std::string& what) {
  throw std::runtime_error(what + ": " +
                           (db != nullptr ? sqlite3_errmsg(db) : "no memory"));
}

void Exec(sqlite3* db, const char* sql) {
  if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
    Fail(db, sql);
  }
}

// A fresh journal: whatever was at `path` (and its rollback journal) goes.
Db CreateJournal(const std::string& path) {
  for (const std::string& old : {path, path + "-journal", path + "-wal",
                                 path + "-shm"}) {
    if (unlink(old.c_str()) != 0 && errno != ENOENT) {
      throw std::runtime_error("cannot remove " + old);
    }
  }
  sqlite3* raw = nullptr;
  const int rc = sqlite3_open(path.c_str(), &raw);
  Db db(raw);
  if (rc != SQLITE_OK) Fail(raw, "cannot create " + path);
  Exec(raw, aec::engine::kJournalTableDefinition);
  Exec(raw, kJournalIndex);
  return db;
}

Stmt Prepare(sqlite3* db, const char* sql) {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db, sql, -1, &raw, nullptr) != SQLITE_OK) {
    Fail(db, sql);
  }
  return Stmt(raw);
}

void BindText(sqlite3_stmt* s, int index, const std::optional<std::string>& v) {
  if (v) {
    sqlite3_bind_text(s, index, v->data(), static_cast<int>(v->size()),
                      SQLITE_TRANSIENT);
  } else {
    sqlite3_bind_null(s, index);
  }
}

void BindTime(sqlite3_stmt* s, int index, const std::optional<std::string>& v) {
  if (v && !v->empty()) {
    char* end = nullptr;
    errno = 0;
    const long long number = std::strtoll(v->c_str(), &end, 10);
    if (errno == 0 && *end == '\0') {
      sqlite3_bind_int64(s, index, number);
      return;
    }
  }
  BindText(s, index, v);
}

void Step(sqlite3* db, sqlite3_stmt* s) {
  if (sqlite3_step(s) != SQLITE_DONE) Fail(db, "insert");
  sqlite3_reset(s);
  sqlite3_clear_bindings(s);
}

// An index in [0, n), skewed towards small ones: a few programs and
// libraries account for most events, as on a real workstation.
int Skewed(std::mt19937_64& random, int n) {
  const double u = std::uniform_real_distribution<double>(0.0, 1.0)(random);
  const int index = static_cast<int>(std::floor(n * u * u * u));
  return index < n ? index : n - 1;
}

int Uniform(std::mt19937_64& random, int n) {
  return std::uniform_int_distribution<int>(0, n - 1)(random);
}

void ProgramPath(char* out, std::size_t size, int index) {
  static const char* const kDirs[] = {"/usr/bin/", "/usr/sbin/",
                                      "/usr/local/bin/", "/opt/apps/bin/"};
  std::snprintf(out, size, "%sprog%04d", kDirs[index % 4], index);
}

void UserName(char* out, std::size_t size, int index) {
  static const char* const kSystem[] = {"root", "daemon", "www-data",
                                        "postgres", "backup"};
  if (index < 5) {
    std::snprintf(out, size, "%s", kSystem[index]);
  } else {
    std::snprintf(out, size, "user%03d", index);
  }
}

void GroupName(char* out, std::size_t size, int index) {
  static const char* const kSystem[] = {"root", "adm", "staff", "users",
                                        "sudo"};
  if (index < 5) {
    std::snprintf(out, size, "%s", kSystem[index]);
  } else {
    std::snprintf(out, size, "dept%02d", index);
  }
}

}  // namespace

std::string FrameObjectName(const std::string& path) {
  return "\"" + path + "\";";
}

JournalRow WriterRow(int event_id, std::int64_t time, const std::string& app,
                     const std::string& object, const std::string& user,
                     const std::string& group, int success) {
  JournalRow row;
  row.event_id = event_id;
  row.date_time = std::to_string(time);
  row.app = app;
  row.object_name = FrameObjectName(object);
  row.username = user;
  row.groupname = group;
  row.success = success;
  return row;
}

void WriteJournal(const std::string& path,
                  const std::vector<JournalRow>& rows) {
  Db db = CreateJournal(path);
  Exec(db.get(), "BEGIN");
  Stmt insert = Prepare(db.get(), kInsert);
  for (const JournalRow& row : rows) {
    sqlite3_stmt* s = insert.get();
    sqlite3_bind_int(s, 1, row.event_id);
    BindTime(s, 2, row.date_time);
    BindText(s, 3, row.app);
    BindText(s, 4, row.object_name);
    BindText(s, 5, row.username);
    BindText(s, 6, row.groupname);
    sqlite3_bind_int(s, 7, row.success);
    sqlite3_bind_int(s, 8, 1000);
    sqlite3_bind_int(s, 9, 1000);
    sqlite3_bind_int(s, 10, 1000);
    sqlite3_bind_text(s, 11, "ws-001", -1, SQLITE_STATIC);
    sqlite3_bind_text(s, 12, "test event", -1, SQLITE_STATIC);
    Step(db.get(), s);
  }
  insert.reset();
  Exec(db.get(), "COMMIT");
}

void GenerateJournal(const std::string& path, const JournalShape& shape) {
  Db db = CreateJournal(path);
  // Speed only: the file is complete and ordinary once COMMIT returns.
  Exec(db.get(), "PRAGMA synchronous=OFF; PRAGMA journal_mode=OFF; BEGIN");
  Stmt insert = Prepare(db.get(), kInsert);
  std::mt19937_64 random(shape.seed);
  char app[64];
  char object[128];
  char framed[136];
  char user[32];
  char group[32];
  char host[16];
  for (std::size_t i = 0; i < shape.rows; ++i) {
    sqlite3_stmt* s = insert.get();
    const std::int64_t time =
        shape.first_time +
        static_cast<std::int64_t>(static_cast<double>(i) * shape.span_seconds /
                                  static_cast<double>(shape.rows));
    const int program = Skewed(random, shape.programs);
    ProgramPath(app, sizeof app, program);
    // Program starts 30 %, library loads 45 %, file opens 25 %.
    const int kind = Uniform(random, 100);
    int event_id;
    const char* description;
    if (kind < 30) {
      event_id = 1050;
      std::snprintf(object, sizeof object, "%s", app);
      description = "execution";
    } else if (kind < 75) {
      event_id = 1051 + Uniform(random, 3);
      const int library = Skewed(random, shape.libraries);
      std::snprintf(object, sizeof object,
                    "/usr/lib/x86_64-linux-gnu/lib%04d.so.%d", library,
                    library % 7);
      description = "library load";
    } else {
      event_id = 1054 + Uniform(random, 2);
      const int file = Skewed(random, shape.files);
      std::snprintf(object, sizeof object, "/srv/data/%03d/file%05d.dat",
                    file % 500, file);
      description = "file open";
    }
    std::snprintf(framed, sizeof framed, "\"%s\";", object);
    const int user_index = Uniform(random, shape.users);
    UserName(user, sizeof user, user_index);
    GroupName(group, sizeof group, user_index % shape.groups);
    std::snprintf(host, sizeof host, "ws-%03d", user_index % 97);
    const int success = Uniform(random, 1000) >= shape.denied_per_mille;

    sqlite3_bind_int(s, 1, event_id);
    sqlite3_bind_int64(s, 2, time);
    sqlite3_bind_text(s, 3, app, -1, SQLITE_STATIC);
    sqlite3_bind_text(s, 4, framed, -1, SQLITE_STATIC);
    sqlite3_bind_text(s, 5, user, -1, SQLITE_STATIC);
    sqlite3_bind_text(s, 6, group, -1, SQLITE_STATIC);
    sqlite3_bind_int(s, 7, success);
    sqlite3_bind_int(s, 8, 1000 + Uniform(random, 60000));
    sqlite3_bind_int(s, 9, 1000 + user_index);
    sqlite3_bind_int(s, 10, 1000 + user_index % shape.groups);
    sqlite3_bind_text(s, 11, host, -1, SQLITE_STATIC);
    sqlite3_bind_text(s, 12, description, -1, SQLITE_STATIC);
    Step(db.get(), s);
  }
  insert.reset();
  Exec(db.get(), "COMMIT");
}

std::int64_t FirstTime(const JournalShape& shape) { return shape.first_time; }

std::int64_t EndTime(const JournalShape& shape) {
  return shape.first_time + shape.span_seconds;
}

}  // namespace kxjournal
