// A journal filter checked and turned into a WHERE clause of fixed SQL
// fragments with the filter's values kept apart for binding.
//
// The SQL text depends only on which filters are set, never on their
// values: a value such as "x' OR 1=1 --" is bound as text and matches
// nothing. A condition is only written for a filter that is set, so that
// the planner sees a plain equality or range and picks the index for it.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <variant>
#include <vector>

#include "journal_query.h"

namespace kxconsole::detail {

using SqlValue = std::variant<int64_t, std::string>;

struct WhereClause {
  std::string sql;  // " WHERE ..." with one ? per value, in order
  std::vector<SqlValue> values;

  void Add(const char* condition, SqlValue value);
};

// `values` followed by `more`: the parameters of a statement whose WHERE
// clause is followed by others (LIMIT, OFFSET).
std::vector<SqlValue> Append(std::vector<SqlValue> values,
                             std::initializer_list<SqlValue> more);

// The largest time a filter may name: 9999-12-31 23:59:59 UTC, the last
// second an ISO 8601 date with four digits of year can show.
constexpr int64_t kLatestTime = 253402300799;

// Throws JournalError naming the first bad value: an unknown event or
// outcome word, a time outside 0..kLatestTime, since > until.
void CheckFilter(const JournalFilter& filter);
// Throws JournalError when page < 1 or per_page is outside 1..500.
void CheckPaging(const JournalFilter& filter);

// The conditions of a checked filter, always bounding event_id to the
// execution-control events.
WhereClause BuildWhere(const JournalFilter& filter);

// "exec", "library", "file" for 1050..1055, "" for any other event.
const char* EventWord(int64_t event_id);

}  // namespace kxconsole::detail
