#include "journal_filter.h"

namespace kxconsole::detail {

namespace {

constexpr int kMaxPerPage = 500;

// The event words and the event ids each one stands for: a permitted and a
// denied id side by side.
struct EventKind {
  const char* word;
  int64_t first, last;
};
constexpr EventKind kEventKinds[] = {
    {"exec", 1050, 1051}, {"library", 1052, 1053}, {"file", 1054, 1055}};
constexpr int64_t kFirstEvent = 1050;
constexpr int64_t kLastEvent = 1055;

void CheckTime(const char* name, const std::optional<int64_t>& time) {
  if (time && (*time < 0 || *time > kLatestTime)) {
    throw JournalError(std::string(name) + " must be a time between 0 and " +
                       std::to_string(kLatestTime) +
                       " (seconds since 1970-01-01 UTC), not " +
                       std::to_string(*time));
  }
}

const EventKind* FindEvent(const std::string& word) {
  for (const EventKind& kind : kEventKinds) {
    if (word == kind.word) return &kind;
  }
  return nullptr;
}

}  // namespace

void WhereClause::Add(const char* condition, SqlValue value) {
  sql += values.empty() ? " WHERE " : " AND ";
  sql += condition;
  values.push_back(std::move(value));
}

std::vector<SqlValue> Append(std::vector<SqlValue> values,
                             std::initializer_list<SqlValue> more) {
  values.insert(values.end(), more.begin(), more.end());
  return values;
}

void CheckFilter(const JournalFilter& filter) {
  if (!filter.event.empty() && FindEvent(filter.event) == nullptr) {
    throw JournalError("unknown event \"" + filter.event +
                       "\": use exec, library, file or nothing for all");
  }
  if (!filter.outcome.empty() && filter.outcome != "allowed" &&
      filter.outcome != "denied") {
    throw JournalError("unknown outcome \"" + filter.outcome +
                       "\": use allowed, denied or nothing for both");
  }
  CheckTime("since", filter.since);
  CheckTime("until", filter.until);
  if (filter.since && filter.until && *filter.since > *filter.until) {
    throw JournalError("since (" + std::to_string(*filter.since) +
                       ") is after until (" + std::to_string(*filter.until) +
                       ")");
  }
}

void CheckPaging(const JournalFilter& filter) {
  if (filter.page < 1) {
    throw JournalError("page must be 1 or more, not " +
                       std::to_string(filter.page));
  }
  if (filter.per_page < 1 || filter.per_page > kMaxPerPage) {
    throw JournalError("per_page must be between 1 and " +
                       std::to_string(kMaxPerPage) + ", not " +
                       std::to_string(filter.per_page));
  }
}

WhereClause BuildWhere(const JournalFilter& filter) {
  WhereClause where;
  const EventKind* kind = FindEvent(filter.event);
  where.Add("event_id >= ?", kind != nullptr ? kind->first : kFirstEvent);
  where.Add("event_id <= ?", kind != nullptr ? kind->last : kLastEvent);
  if (filter.since) where.Add("date_time >= ?", *filter.since);
  if (filter.until) where.Add("date_time < ?", *filter.until);
  if (!filter.outcome.empty()) {
    where.Add("success = ?", int64_t{filter.outcome == "allowed" ? 1 : 0});
  }
  if (!filter.user.empty()) where.Add("username = ?", filter.user);
  if (!filter.group.empty()) where.Add("groupname = ?", filter.group);
  if (!filter.program.empty()) where.Add("app = ?", filter.program);
  return where;
}

const char* EventWord(int64_t event_id) {
  for (const EventKind& kind : kEventKinds) {
    if (event_id >= kind.first && event_id <= kind.last) return kind.word;
  }
  return "";
}

}  // namespace kxconsole::detail
