// The audit journal's schema: table `logs`, the read side's indexes and the
// record of dropped rows.
//
// `logs` holds every column the journal's readers know; the engine fills
// event_id, date_time (whole seconds, UTC), app, object_name (framed),
// username, groupname and success, and leaves the rest NULL.
//
// The indexes serve the filters of "log" and "loglist": every query bounds
// event_id to 1050..1055, which all engine rows share, so an index led by
// event_id would select everything; the time index is led by date_time and
// carries event_id and success so those conditions are checked in the
// index, and username, groupname and app so that "loglist" over a time
// span never reads the table. A console filters by user, group or program,
// usually within a time span and shows the newest rows first, hence
// (username, date_time), (groupname, date_time) and (app, date_time): the
// equality selects, the time bounds the range, and the rows come out in
// time order (ties in row id order), so a page needs no sort. There is
// deliberately no index led by event_id: it would tempt the planner away
// from the time index for the commands' two-sided event_id range.
#pragma once

#include <sqlite3.h>

#include <string>

namespace aec::engine {

extern const char* const kJournalTable;        // "logs"
extern const char* const kTimeIndex;           // "logs_time"
extern const char* const kUserIndex;           // "logs_user_time"
extern const char* const kAppIndex;            // "logs_app_time"
extern const char* const kGroupIndex;          // "logs_group_time"
extern const char* const kDroppedEventsTable;  // "dropped_events"

// The statement creating `logs` when it is missing: the one definition of
// the journal's table, also used by the journal generator of the tests and
// benchmarks.
extern const char* const kJournalTableDefinition;

// Creates what is missing: the tables and the indexes (an existing journal
// without them gains them; building an index over a large journal takes as
// long as one pass over it). A time index with other columns than the
// current one (an older journal's) is replaced in one transaction: on
// failure the old one stays. Returns false and sets `error` on failure.
bool EnsureJournalSchema(sqlite3* db, std::string* error);

}  // namespace aec::engine
