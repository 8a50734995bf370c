#include "journal_csv.h"

#include <time.h>

#include "journal_connection.h"
#include "journal_filter.h"
#include "journal_statements.h"

namespace kxconsole {
namespace detail {
namespace {

// Leading characters that make a spreadsheet take a cell for a formula.
bool StartsLikeFormula(const std::string& field) {
  if (field.empty()) return false;
  switch (field[0]) {
    case '=':
    case '+':
    case '-':
    case '@':
    case '\t':
    case '\r':
      return true;
    default:
      return false;
  }
}

void WriteField(const std::string& field, std::ostream& out) {
  const bool formula = StartsLikeFormula(field);
  if (field.find_first_of(",\"\r\n") == std::string::npos) {
    if (formula) out << '\'';
    out << field;
    return;
  }
  out << '"';
  if (formula) out << '\'';
  for (const char c : field) {
    if (c == '"') out << '"';
    out << c;
  }
  out << '"';
}

std::string IsoTime(int64_t seconds) {
  const time_t t = static_cast<time_t>(seconds);
  struct tm utc;
  char text[32];
  if (gmtime_r(&t, &utc) == nullptr ||
      strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc) == 0) {
    return std::to_string(seconds);
  }
  return text;
}

}  // namespace

void WriteCsv(const std::string& db_path, const JournalFilter& filter,
              std::ostream& out, int64_t row_cap,
              std::chrono::milliseconds budget) {
  CheckFilter(filter);
  const WhereClause where = BuildWhere(filter);
  JournalConnection connection(db_path, budget);
  out << "time,event,outcome,program,object,user,group\r\n";
  if (!out) throw JournalError("writing the CSV failed");
  if (connection.missing()) return;
  Statement rows =
      connection.Prepare(CsvSql(where), Append(where.values, {row_cap}));
  while (rows.Step()) {
    const JournalRow row = ReadRow(rows);
    // A row without a time has no time to show, not the epoch.
    out << (rows.IsNull(1) ? std::string() : IsoTime(row.time));
    for (const std::string* field : {&row.event, &row.outcome, &row.program,
                                     &row.object, &row.user, &row.group}) {
      out << ',';
      WriteField(*field, out);
    }
    out << "\r\n";
    // A client that went away: stop reading instead of filling a dead stream.
    if (!out) throw JournalError("writing the CSV failed");
  }
}

}  // namespace detail

void WriteJournalCsv(const std::string& db_path, const JournalFilter& filter,
                     std::ostream& out) {
  detail::WriteCsv(db_path, filter, out, kCsvRowCap,
                   std::chrono::milliseconds(kCsvBudgetMs));
}

}  // namespace kxconsole
