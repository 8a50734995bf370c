// The audit journal commands "log" and "loglist" and the journal reader.
//
// The handlers belong to the plug-in core, so their log lines name
// "aec_plugin" as the source, like the rest of the command table.
#include "aec_audit_journal.h"

#include <libintl.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <vector>

#include "aec_commands.h"
#include "aec_distinct_texts.h"
#include "aec_log.h"
#include "aec_paths.h"
#include "aec_replies.h"
#include "aec_request_switch.h"
#include "host/errors.h"
#include "ixml_add_array.h"

namespace aec {

namespace {

constexpr const char* kLogFile = "aec_plugin";
constexpr const char* kJournalTable = "logs";

// What the read-only policy learnt while one statement was prepared, and
// the time budget of the statement that runs.
struct StatementCheck {
  bool saw_select = false;
  std::string refused_function;  // the first function call refused
  std::chrono::steady_clock::time_point deadline;
  bool out_of_time = false;
};

// Sorted, lower case: looked up with std::binary_search.
constexpr const char* kAllowedFunctions[] = {
    "abs",   "avg",    "coalesce", "count",  "date",      "datetime",
    "glob",  "ifnull", "iif",      "instr",  "julianday", "length",
    "like",  "lower",  "ltrim",    "max",    "min",       "nullif",
    "round", "rtrim",  "strftime", "substr", "substring", "sum",
    "time",  "total",  "trim",     "typeof", "unixepoch", "upper",
};

// Called by SQLite every few hundred virtual machine steps; a non-zero
// answer interrupts the statement.
int CheckTimeBudget(void* user_data) {
  auto* check = static_cast<StatementCheck*>(user_data);
  if (std::chrono::steady_clock::now() < check->deadline) return 0;
  check->out_of_time = true;
  return 1;
}

void LogBound(const std::string& bound) {
  AEC_LOG(kLogFile, 3, "[%d] %s: journal read stopped: %s", bound.c_str());
}

// Admits what a plain SELECT over `logs` needs and refuses everything else:
// every write, schema change, ATTACH, DETACH, PRAGMA, transaction, recursive
// query and extension loading. SQLite asks while it compiles a statement, so
// a refused statement never runs.
int AuthorizeJournalAccess(void* user_data, int action, const char* arg1,
                           const char* arg2, const char* database,
                           const char* inner_view) {
  auto* check = static_cast<StatementCheck*>(user_data);
  switch (action) {
    case SQLITE_SELECT:
      check->saw_select = true;
      return SQLITE_OK;
    case SQLITE_READ: {
      // Columns of `logs`, directly or through a view named so; nothing of
      // the schema table or of any other table.
      const bool in_main = database != nullptr &&
                           std::strcmp(database, "main") == 0;
      const bool of_logs =
          (arg1 != nullptr && std::strcmp(arg1, kJournalTable) == 0) ||
          (inner_view != nullptr && std::strcmp(inner_view, kJournalTable) == 0);
      return in_main && of_logs ? SQLITE_OK : SQLITE_DENY;
    }
    case SQLITE_FUNCTION:
      if (IsAllowedJournalFunction(arg2)) return SQLITE_OK;
      if (check->refused_function.empty() && arg2 != nullptr) {
        check->refused_function = arg2;
      }
      return SQLITE_DENY;
    default:
      return SQLITE_DENY;
  }
}

struct DatabaseCloser {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
using Database = std::unique_ptr<sqlite3, DatabaseCloser>;

struct StatementFinalizer {
  void operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
  }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

[[noreturn]] void FailRead(const char* error, const std::string& sql) {
  // The format's missing closing parenthesis is what the agent's log readers
  // have always seen; it stays.
  AEC_LOG(kLogFile, 3, "[%d] %s: error from sqllite: %s (query: %s", error,
          sql.c_str());
  throw PluginException(gettext("failed to read audit database"));
}

// Opens the journal (creating a missing file, as sqlite3_open does) and puts
// the connection under the read-only policy before any statement is compiled.
Database OpenJournal(StatementCheck* check) {
  // sqlite3_open's own flags (read-write, created when missing), without the
  // per-call mutex: the connection never leaves this call's thread, and the
  // mutex costs one lock per column read of every row.
  sqlite3* raw = nullptr;
  const int rc = sqlite3_open_v2(
      kAuditDbPath.c_str(), &raw,
      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  Database db(raw);
  if (rc != SQLITE_OK) {
    AEC_LOG(kLogFile, 3, "[%d] %s: can`t open sqllite db file %s, %s",
            kAuditDbPath.c_str(),
            raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(rc));
    throw PluginException(gettext("failed to open audit database"));
  }
  // Besides the authorizer: no writable schema tricks, no trust in functions
  // named by the journal's own schema, no extensions, and no checkpoint on
  // close (closing the last connection of a WAL journal would write the
  // journal file; a reader has no business doing that).
  const bool guarded =
      sqlite3_db_config(raw, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr) ==
          SQLITE_OK &&
      sqlite3_db_config(raw, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr) ==
          SQLITE_OK &&
      sqlite3_db_config(raw, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr) ==
          SQLITE_OK &&
      sqlite3_db_config(raw, SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0,
                        nullptr) == SQLITE_OK &&
      // First: the PRAGMAs below already wait for a writer's lock.
      sqlite3_busy_timeout(raw, JournalReadLimits::kBusyTimeoutMs) ==
          SQLITE_OK &&
      // Page caches are set while PRAGMA is still allowed; temp is the
      // database that DISTINCT and ORDER BY spill into.
      sqlite3_exec(raw,
                   ("PRAGMA main.cache_size=-" +
                    std::to_string(JournalReadLimits::kCacheKib) +
                    ";PRAGMA temp.cache_size=-" +
                    std::to_string(JournalReadLimits::kCacheKib))
                       .c_str(),
                   nullptr, nullptr, nullptr) == SQLITE_OK &&
      sqlite3_set_authorizer(raw, AuthorizeJournalAccess, check) == SQLITE_OK;
  sqlite3_limit(raw, SQLITE_LIMIT_ATTACHED, 0);
  sqlite3_limit(raw, SQLITE_LIMIT_LENGTH, JournalReadLimits::kMaxValueBytes);
  sqlite3_limit(raw, SQLITE_LIMIT_SQL_LENGTH, JournalReadLimits::kMaxSqlBytes);
  sqlite3_limit(raw, SQLITE_LIMIT_COMPOUND_SELECT,
                JournalReadLimits::kMaxCompoundSelect);
  sqlite3_limit(raw, SQLITE_LIMIT_EXPR_DEPTH,
                JournalReadLimits::kMaxExpressionDepth);
  sqlite3_limit(raw, SQLITE_LIMIT_FUNCTION_ARG,
                JournalReadLimits::kMaxFunctionArguments);
  sqlite3_progress_handler(raw, 1000, CheckTimeBudget, check);
  if (!guarded) {
    AEC_LOG(kLogFile, 3, "[%d] %s: can`t open sqllite db file %s, %s",
            kAuditDbPath.c_str(), sqlite3_errmsg(raw));
    throw PluginException(gettext("failed to open audit database"));
  }
  return db;
}

// A request value read with GetParam, released on every path.
class Param {
 public:
  Param(IXml& xml, const char* name) : value_(xml.GetParam(name)) {}
  const char* get() const { return value_.get(); }
  bool IsOne() const { return IsSwitchOn(value_); }

 private:
  std::unique_ptr<char[]> value_;
};

// The values by which both journal commands choose their events: the time
// window and the outcome.
struct EventWindow {
  explicit EventWindow(IXml& xml)
      : inittime(xml, "inittime"),
        finaltime(xml, "finaltime"),
        operationresult(xml, "operationresult") {}
  const Param inittime;
  const Param finaltime;
  const Param operationresult;
};

// Adds the row's program and, when asked, its object to `texts`. A row
// without a program contributes no program (there is nothing to name).
void CollectRow(const AuditRow& row, bool with_object, DistinctTexts& texts) {
  if (auto app = row.Text(0)) texts.Add(*app);
  if (!with_object) return;
  if (auto object = row.Text(1)) texts.Add(UnframeObjectName(*object));
}

// Runs both queries of "log" and returns the "resources" document: every
// distinct program and object, in the set's own order. The set is gone by
// the time the caller builds the reply.
boost::shared_ptr<IXml> CollectResources(const std::string& conditions,
                                         bool openfiles) {
  DistinctTexts resources;
  QueryAuditDb(LogObjectsQuery(conditions), [&resources](const AuditRow& row) {
    CollectRow(row, true, resources);
    CheckJournalReplyBytes(resources.Bytes());
  });
  QueryAuditDb(LogFilesQuery(conditions, openfiles),
               [&resources, openfiles](const AuditRow& row) {
                 CollectRow(row, openfiles, resources);
                 CheckJournalReplyBytes(resources.Bytes());
               });
  auto list = XMLParserBoost::CreateEmptyXML();
  resources.ForEach([&list](std::string_view text) {
    list->AddValue("r", std::string(text), true);
  });
  return list;
}

// Logs which bound stopped a statement, when one did; SQLite's own message
// follows in FailRead.
void ExplainFailure(sqlite3* db, const StatementCheck& check, int rc) {
  if (!check.refused_function.empty()) {
    LogBound("the function " + check.refused_function + "() is not allowed");
  } else if (check.out_of_time) {
    LogBound("the statement ran longer than " +
             std::to_string(JournalReadLimits::kTimeBudgetMs) + " ms");
  } else if (rc == SQLITE_TOOBIG || sqlite3_errcode(db) == SQLITE_TOOBIG) {
    LogBound("a value or the statement is longer than " +
             std::to_string(JournalReadLimits::kMaxValueBytes) + " bytes");
  } else if (rc == SQLITE_BUSY || rc == SQLITE_LOCKED) {
    LogBound("the journal stayed locked for " +
             std::to_string(JournalReadLimits::kBusyTimeoutMs) + " ms");
  } else if (rc == SQLITE_NOMEM) {
    LogBound("out of memory");
  } else if (rc == SQLITE_ERROR &&
             (std::strstr(sqlite3_errmsg(db), "too many") != nullptr ||
              std::strstr(sqlite3_errmsg(db), "too large") != nullptr)) {
    LogBound(sqlite3_errmsg(db));  // compound, depth or argument limits
  }
}

}  // namespace

bool IsAllowedJournalFunction(const char* name) {
  if (name == nullptr) return false;
  std::string lower(name);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return std::binary_search(
      std::begin(kAllowedFunctions), std::end(kAllowedFunctions), lower,
      [](const std::string& a, const std::string& b) { return a < b; });
}

void CheckJournalReplyBytes(std::size_t bytes) {
  if (bytes <= JournalReadLimits::kMaxReplyBytes) return;
  LogBound("the reply would be longer than " +
           std::to_string(JournalReadLimits::kMaxReplyBytes) + " bytes");
  throw PluginException(gettext("failed to read audit database"));
}

AuditRow::AuditRow(sqlite3_stmt* statement)
    : statement_(statement), columns_(sqlite3_column_count(statement)) {}

std::optional<std::string_view> AuditRow::Text(int index) const {
  if (index < 0 || index >= columns_) return std::nullopt;
  const auto* text = reinterpret_cast<const char*>(
      sqlite3_column_text(statement_, index));
  if (text == nullptr) {
    if (sqlite3_column_type(statement_, index) == SQLITE_NULL) {
      return std::nullopt;
    }
    // An empty blob has no text pointer either; only a failed conversion
    // leaves SQLite out of memory.
    if (sqlite3_errcode(sqlite3_db_handle(statement_)) == SQLITE_NOMEM) {
      throw std::bad_alloc();
    }
    return std::string_view();
  }
  const auto bytes = static_cast<std::size_t>(
      sqlite3_column_bytes(statement_, index));
  return std::string_view(text, strnlen(text, bytes));
}

void QueryAuditDb(const std::string& sql, const AuditRowHandler& on_row) {
  StatementCheck check;
  Database db = OpenJournal(&check);
  int first_columns = -1;  // columns of the first row seen, in any statement
  // The text is read as a C string, as the journal's classic reader did: a
  // NUL byte ends the SQL there.
  const char* next = sql.c_str();
  while (*next != '\0') {
    check.saw_select = false;
    check.refused_function.clear();
    check.out_of_time = false;
    check.deadline =
        std::chrono::steady_clock::now() +
        std::chrono::milliseconds(JournalReadLimits::kTimeBudgetMs);
    sqlite3_stmt* raw = nullptr;
    const int prepared = sqlite3_prepare_v2(db.get(), next, -1, &raw, &next);
    if (prepared != SQLITE_OK) {
      ExplainFailure(db.get(), check, prepared);
      FailRead(sqlite3_errmsg(db.get()), sql);
    }
    Statement statement(raw);
    if (!statement) continue;  // only blanks or a comment
    // VACUUM (INTO) passes the authorizer without a word, so a statement must
    // also have been seen as a SELECT and be read-only by SQLite's own
    // judgement.
    if (!check.saw_select || !sqlite3_stmt_readonly(statement.get())) {
      FailRead("not authorized", sql);
    }
    int rc;
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
      const AuditRow row(statement.get());
      if (first_columns < 0) {
        first_columns = row.Columns();
      } else if (row.Columns() != first_columns) {
        FailRead("statements of the query return different columns", sql);
      }
      on_row(row);
    }
    if (rc != SQLITE_DONE) {
      ExplainFailure(db.get(), check, rc);
      FailRead(sqlite3_errmsg(db.get()), sql);
    }
  }
}

std::string ResultFilter(const char* operationresult) {
  if (operationresult == nullptr) return " AND success=0";
  if (std::strcmp(operationresult, "all") == 0) return "";
  if (std::strcmp(operationresult, "success") == 0) return " AND success=1";
  return " AND success=0";
}

boost::shared_ptr<IXml> DistinctColumn(const std::string& where,
                                       const std::string& column,
                                       const std::string& value_name) {
  std::vector<std::string> values;  // distinct already: bounded by the reply
  std::size_t bytes = 0;
  QueryAuditDb("SELECT DISTINCT " + column + " FROM logs " + where,
               [&values, &bytes](const AuditRow& row) {
                 if (auto value = row.Text(0)) {
                   bytes += value->size();
                   CheckJournalReplyBytes(bytes);
                   values.emplace_back(*value);
                 }
               });
  auto doc = XMLParserBoost::CreateEmptyXML();
  doc->AddArray(values, value_name);
  return doc;
}

std::string LogListWhere(const char* inittime, const char* finaltime,
                         const char* operationresult) {
  std::string where = "WHERE event_id >= 1050 AND event_id <= 1055";
  where += ResultFilter(operationresult);
  if (inittime != nullptr) where.append(" AND date_time >= ").append(inittime);
  if (finaltime != nullptr) where.append(" AND date_time < ").append(finaltime);
  return where;
}

std::string LogConditions(const LogFilter& filter) {
  std::string conditions = ResultFilter(filter.operationresult);
  if (filter.inittime != nullptr) {
    conditions.append(" AND date_time >= ").append(filter.inittime);
  }
  if (filter.finaltime != nullptr) {
    conditions.append(" AND date_time < ").append(filter.finaltime);
  }
  if (filter.execfile != nullptr) {
    conditions.append(" AND app = '").append(filter.execfile).append("'");
  }
  if (filter.user != nullptr) {
    conditions.append(" AND username = '").append(filter.user).append("'");
  }
  if (filter.group != nullptr) {
    conditions.append(" AND groupname = '").append(filter.group).append("'");
  }
  return conditions;
}

std::string LogObjectsQuery(const std::string& conditions) {
  return "SELECT app, object_name FROM logs WHERE event_id >= 1050 AND "
         "event_id <= 1053" +
         conditions;
}

std::string LogFilesQuery(const std::string& conditions, bool openfiles) {
  return std::string(openfiles ? "SELECT app, object_name" : "SELECT app") +
         " FROM logs WHERE event_id >= 1054 AND event_id <= 1055" + conditions;
}

std::string_view UnframeObjectName(std::string_view object_name) {
  if (object_name.empty()) return object_name;
  std::string_view text = object_name.substr(1);
  if (text.size() >= 2) text.remove_suffix(2);
  return text;
}

void HandleLogList(parsed_xml_data_t* request) {
  IXml& xml = *request->xml;
  const EventWindow window(xml);
  const Param execfiles(xml, "execfiles");
  const Param users(xml, "users");
  const Param groups(xml, "groups");
  try {
    const std::string where =
        LogListWhere(window.inittime.get(), window.finaltime.get(),
                     window.operationresult.get());
    auto result = XMLParserBoost::CreateEmptyXML();
    result->AddValue("result", kResultOk, false);
    if (users.IsOne()) {
      result->AddNode("users", DistinctColumn(where, "username", "u"), true);
    }
    if (groups.IsOne()) {
      result->AddNode("groups", DistinctColumn(where, "groupname", "g"), true);
    }
    if (execfiles.IsOne()) {
      result->AddNode("execfiles", DistinctColumn(where, "app", "r"), true);
    }
    request->reply->AddNode("loglist", result, false);
  } catch (const PluginException& e) {
    request->reply->AddNode("loglist", MakeErrorReply(e.what()), true);
  }
}

void HandleLog(parsed_xml_data_t* request) {
  IXml& xml = *request->xml;
  const EventWindow window(xml);
  const Param execfile(xml, "execfile");
  const Param user(xml, "user");
  const Param group(xml, "group");
  const bool openfiles = Param(xml, "openfiles").IsOne();
  try {
    LogFilter filter;
    filter.inittime = window.inittime.get();
    filter.finaltime = window.finaltime.get();
    filter.execfile = execfile.get();
    filter.user = user.get();
    filter.group = group.get();
    filter.operationresult = window.operationresult.get();
    const std::string conditions = LogConditions(filter);

    boost::shared_ptr<IXml> list = CollectResources(conditions, openfiles);
    auto result = XMLParserBoost::CreateEmptyXML();
    result->AddValue("result", kResultOk, false);
    result->AddNode("resources", list, true);
    // The host copies a document it attaches; with thousands of values the
    // copies add up, so each goes as soon as it has been copied.
    list.reset();
    request->reply->AddNode("log", result, false);
  } catch (const PluginException& e) {
    request->reply->AddNode("log", MakeErrorReply(e.what()), true);
  }
}

}  // namespace aec
