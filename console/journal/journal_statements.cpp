#include "journal_statements.h"

namespace kxconsole::detail {

const char* const kRowColumns =
    "id, date_time, event_id, app, object_name, username, groupname, success";

// Newest first. The id breaks ties within a second, so that consecutive
// pages neither overlap nor skip a row; the indexes led by user, group or
// program end in (date_time, id) and give this order without a sort.
constexpr const char* kNewestFirst = " ORDER BY date_time DESC, id DESC";

std::string CountSql(const WhereClause& where) {
  return "SELECT count(*) FROM logs" + where.sql;
}

std::string PageSql(const WhereClause& where) {
  return std::string("SELECT ") + kRowColumns + " FROM logs" + where.sql +
         kNewestFirst + " LIMIT ? OFFSET ?";
}

std::string CsvSql(const WhereClause& where) {
  return std::string("SELECT ") + kRowColumns + " FROM logs" + where.sql +
         kNewestFirst + " LIMIT ?";
}

// The bucket is computed by SQLite so that only one row per bucket leaves
// it, however many denials the span holds.
std::string ChartSql(const WhereClause& where) {
  return "SELECT (date_time - ?) / ?, count(*) FROM logs" + where.sql +
         " GROUP BY 1";
}

}  // namespace kxconsole::detail
