// Reading the audit journal (/opt/korvex/var/log/audit_logs.db, table
// `logs`, docs/journal.md) for the learning commands. Read only: the
// connection is opened read-only, values are bound, never spliced into SQL.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace aectool {

const std::string& JournalPath();  // /opt/korvex/var/log/audit_logs.db

struct JournalRow {
  int event_id = 0;
  std::int64_t date_time = 0;
  std::string app;
  std::string object;  // object_name without its framing
  std::string username;
  std::string groupname;
  int success = 1;
};

struct JournalFilter {
  std::vector<int> event_ids;         // the events wanted
  bool denied_only = false;           // success = 0
  std::optional<std::int64_t> since;  // date_time >= since
  std::optional<std::int64_t> until;  // date_time < until
  std::optional<std::string> user;    // username =
  std::optional<std::string> group;   // groupname =
};

struct JournalScan {
  std::size_t rows = 0;        // rows handed to the callback
  std::size_t incomplete = 0;  // rows skipped for a NULL or empty field
};

// Hands every matching row with app, object_name and username present to
// `on_row`, in journal order (id). Rows missing one of them are counted,
// not handed over. Throws ToolError(kConfigMissing) when the journal does
// not exist, ToolError(kUnknownError) when it is locked by its writer
// beyond a short wait or cannot be read (with SQLite's reason).
JournalScan ScanJournal(const std::string& path, const JournalFilter& filter,
                        const std::function<void(const JournalRow&)>& on_row);

// ScanJournal with the journal cut into ranges of ids read at the same
// time, each on its own connection and thread (aec::WorkerCount with
// kToolThreads): on_row(part, row) is called for the rows of each part in
// journal order, and for different parts at the same time. For callers
// that gather per part and do not depend on the order between parts. Rows
// written after the scan began may be left out. Throws as ScanJournal.
JournalScan ScanJournalInParts(
    const std::string& path, const JournalFilter& filter,
    const std::function<void(std::size_t, const JournalRow&)>& on_row);

// The query that finds the lowest and highest id of the journal (tests
// check that SQLite answers it without reading the table).
extern const char* const kIdBoundsSql;

// "--since"/"--until" values: whole seconds since the epoch, as the
// journal's date_time holds them. Throws ToolError(kInvalidDateTime).
std::int64_t ParseJournalTime(const std::string& option,
                              const std::string& value);

}  // namespace aectool
