// The SQL texts of the console's journal reads, built from a WHERE clause
// (journal_filter.h). Kept in one place so that the tests can ask SQLite for
// the plan of exactly the statements the library runs.
#pragma once

#include <string>

#include "journal_filter.h"

namespace kxconsole::detail {

// The columns every row read selects, in the order ReadRow expects.
extern const char* const kRowColumns;

// Parameters: the clause's.
std::string CountSql(const WhereClause& where);
// Parameters: the clause's, then LIMIT and OFFSET.
std::string PageSql(const WhereClause& where);
// Parameters: the clause's, then LIMIT.
std::string CsvSql(const WhereClause& where);
// Parameters: since and the bucket width, then the clause's. Rows: bucket
// number, count.
std::string ChartSql(const WhereClause& where);

}  // namespace kxconsole::detail
