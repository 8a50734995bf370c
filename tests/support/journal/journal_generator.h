// Audit journals for the journal tests, the reliability suites and the
// journal benchmark.
//
// A journal is an SQLite database with the table `logs` as the engine's
// journal writer defines it (kJournalTableDefinition). `date_time` holds the
// event time in whole seconds since the Unix epoch (UTC), so that time bounds
// compare without quoting; `object_name` is framed as "\"" + path + "\";" (one
// leading, two trailing characters), which readers cut off.
//
// All functions throw std::runtime_error with SQLite's message on failure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kxjournal {

// The time index of a generated journal (the table is the engine's).
extern const char* const kJournalIndex;

// One journal row; nullopt columns are stored as NULL.
struct JournalRow {
  int event_id = 1050;
  std::optional<std::string> date_time;  // stored as written (text or number)
  std::optional<std::string> app;
  std::optional<std::string> object_name;  // stored as given (no framing)
  std::optional<std::string> username;
  std::optional<std::string> groupname;
  int success = 0;
};

// "\"" + path + "\";"
std::string FrameObjectName(const std::string& path);

// A row as the engine's journal writer stores it: the object framed, every
// other column as given.
JournalRow WriterRow(int event_id, std::int64_t time, const std::string& app,
                     const std::string& object, const std::string& user,
                     const std::string& group, int success);

// Creates a journal at `path` (replacing any file there) holding `rows`.
// A date_time that parses whole as an integer is stored as an integer, any
// other text as text.
void WriteJournal(const std::string& path, const std::vector<JournalRow>& rows);

// The shape of a generated journal.
struct JournalShape {
  std::size_t rows = 100000;
  std::uint64_t seed = 20261121;
  int users = 300;
  int groups = 60;
  int programs = 3000;
  int libraries = 5000;
  int files = 8000;
  std::int64_t first_time = 1793491200;  // 2026-11-01 00:00:00 UTC
  std::int64_t span_seconds = 30 * 24 * 3600;
  int denied_per_mille = 100;  // share of denied events (success = 0)
};

// Creates a journal at `path` (replacing any file there) with `shape.rows`
// rows of execution-control events 1050 to 1055 in time order: program
// starts (1050, the object is the program), library loads (1051 to 1053) and
// file opens (1054, 1055), by a few hundred users in a few dozen groups;
// programs, libraries and files are drawn with a skew towards common ones.
// Deterministic for a given shape. Memory does not grow with the row count.
void GenerateJournal(const std::string& path, const JournalShape& shape);

// The first and one past the last date_time a generated journal can hold.
std::int64_t FirstTime(const JournalShape& shape);
std::int64_t EndTime(const JournalShape& shape);

}  // namespace kxjournal
