#include <time.h>

#include <algorithm>

#include "journal_connection.h"
#include "journal_filter.h"
#include "journal_query.h"
#include "journal_statements.h"

namespace kxconsole {

namespace {

constexpr int kMaxBuckets = 500;
constexpr int64_t kDefaultSpan = 24 * 3600;

}  // namespace

void ApplyChartDefaults(JournalFilter* filter, int64_t now) {
  if (!filter->until) filter->until = now;
  if (!filter->since) {
    // A time before the epoch is no time the journal holds.
    filter->since = std::max<int64_t>(0, *filter->until - kDefaultSpan);
  }
}

std::vector<int64_t> DenialChart(const std::string& db_path,
                                 const JournalFilter& given, int buckets,
                                 int64_t* bucket_seconds) {
  if (buckets < 1 || buckets > kMaxBuckets) {
    throw JournalError("buckets must be between 1 and " +
                       std::to_string(kMaxBuckets) + ", not " +
                       std::to_string(buckets));
  }
  JournalFilter filter = given;
  ApplyChartDefaults(&filter, static_cast<int64_t>(time(nullptr)));
  detail::CheckFilter(filter);
  const int64_t span = *filter.until - *filter.since;
  const int64_t width = span > 0 ? (span + buckets - 1) / buckets : 1;
  if (bucket_seconds != nullptr) *bucket_seconds = width;
  std::vector<int64_t> counts(static_cast<size_t>(buckets), 0);

  detail::WhereClause where = detail::BuildWhere(filter);
  where.Add("success = ?", int64_t{0});
  detail::JournalConnection connection(
      db_path, std::chrono::milliseconds(kQueryBudgetMs));
  if (connection.missing()) return counts;
  std::vector<detail::SqlValue> values = {*filter.since, width};
  values.insert(values.end(), where.values.begin(), where.values.end());
  detail::Statement rows = connection.Prepare(detail::ChartSql(where), values);
  while (rows.Step()) {
    const int64_t bucket = rows.Int(0);
    if (bucket >= 0 && bucket < buckets) {
      counts[static_cast<size_t>(bucket)] += rows.Int(1);
    }
  }
  return counts;
}

}  // namespace kxconsole
