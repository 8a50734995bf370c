// The console's view of the audit journal: filtered, paged reads, a CSV
// export and counts of denials over time.
//
// Every call opens its own connection to the journal (the SQLite database
// the engine's journal writer fills, table `logs`), reads, and closes it
// before returning, so calls may run on any number of threads at once. The
// connection is opened read-only and never creates the file: a journal that
// does not exist yet (or has no table `logs` yet) is reported as missing,
// not as an error. Filter values are bound to prepared statements, never
// written into the SQL text.
//
// Only execution-control events (1050..1055) are read. Time bounds are whole
// seconds since the Unix epoch (UTC): `since` is included, `until` is not.
//
// Failure: every function throws JournalError with a message fit to show an
// administrator (what was wrong with the filter, or the journal's path and
// SQLite's reason). A read that runs past its time budget is interrupted and
// throws too.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace kxconsole {

// What the journal page asks for. Empty texts and absent times filter
// nothing. `event`: "exec", "library", "file" or "". `outcome`: "allowed",
// "denied" or "". `user`, `group` and `program` match exactly.
struct JournalFilter {
  std::optional<int64_t> since, until;
  std::string event, outcome, user, group, program;
  int page = 1;       // 1-based
  int per_page = 50;  // 1..500
};

// One journalled decision. A NULL column reads as "" (text) or 0 (number).
// `object` is the path without the framing the writer stores around it.
// `outcome` is "allowed" (success 1), "denied" (success 0) or "" (neither).
struct JournalRow {
  int64_t id, time, event_id;
  std::string event, outcome, program, object, user, group;
};

// One page, newest first (by time, then by journal order). `total` counts
// every row the filter matches, read in the same snapshot as the rows.
struct JournalPage {
  bool missing = false;
  int64_t total = 0;
  std::vector<JournalRow> rows;
};

class JournalError : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

// Limits that keep one request from holding the console: a query (page,
// count, chart) is interrupted after kQueryBudgetMs, a CSV export after
// kCsvBudgetMs, and a CSV export stops after kCsvRowCap rows.
constexpr int64_t kQueryBudgetMs = 5000;
constexpr int64_t kCsvBudgetMs = 60000;
constexpr int64_t kCsvRowCap = 1000000;

// The page `filter.page` of `filter.per_page` rows. Rejects an unknown
// event or outcome word, page < 1, per_page outside 1..500, a time outside
// 0..253402300799 (9999-12-31) and since > until.
JournalPage QueryJournal(const std::string& db_path, const JournalFilter&);

// Every row the filter matches (page and per_page are ignored), newest
// first, at most kCsvRowCap, as CSV (RFC 4180, CRLF line ends) with the
// header `time,event,outcome,program,object,user,group`; time as ISO 8601
// UTC ("2026-11-21T10:15:30Z"; empty for a row without one). A field holding a comma, quote, CR or LF is
// quoted with quotes doubled; a field starting with = + - @ TAB or CR gets
// a leading ' so that a spreadsheet shows it as text instead of running it
// as a formula. A missing journal gives the header alone. Rows are written
// as they are read: on a failure part of the output may have been written
// before JournalError leaves (a failing stream also throws).
void WriteJournalCsv(const std::string& db_path, const JournalFilter&,
                     std::ostream&);

// Fills in the chart's default time span: until = `now` when absent,
// since = until - 86400 (24 hours) when absent.
void ApplyChartDefaults(JournalFilter* filter, int64_t now);

// Denied events the filter matches, counted in `buckets` (1..500) equal
// spans from since to until (ApplyChartDefaults with the current time fills
// in what is absent). Bucket i holds [since + i*w, since + (i+1)*w) with
// w = ceil((until - since) / buckets), at least 1, written to
// `*bucket_seconds` when not null; the last bucket ends at `until`. An
// outcome of "allowed" therefore counts nothing. A missing journal gives
// zeros.
std::vector<int64_t> DenialChart(const std::string& db_path,
                                 const JournalFilter&, int buckets,
                                 int64_t* bucket_seconds);

// Denied events in [since, until); 0 for a missing journal.
int64_t CountDenials(const std::string& db_path, int64_t since, int64_t until);

}  // namespace kxconsole
