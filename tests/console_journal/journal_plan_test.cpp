// The planner's choice for the library's own statements: each filter the
// journal page offers is served by one of the writer's indexes, never by a
// scan of the whole table, and a page of rows needs no full sort.
#include "console_journal_fixture.h"
#include "journal_connection.h"
#include "journal_statements.h"

namespace console_journal_test {
namespace {

using kxconsole::JournalFilter;
namespace detail = kxconsole::detail;

class PlanTest : public ConsoleJournalTest {
 protected:
  void SetUp() override {
    ConsoleJournalTest::SetUp();
    std::vector<kxjournal::JournalRow> rows;
    for (int i = 0; i < 3000; ++i) {
      rows.push_back(Row(1050 + i % 6, 1793491200 + i * 60,
                         "/usr/bin/p" + std::to_string(i % 40), "/o",
                         "u" + std::to_string(i % 30),
                         "g" + std::to_string(i % 7), i % 2));
    }
    Build(rows);
  }

  // The plan of `sql` with `values` bound as the library binds them, one
  // detail per line.
  std::string PlanOf(const std::string& sql,
                     const std::vector<detail::SqlValue>& values) {
    detail::JournalConnection connection(journal_, std::chrono::seconds(5));
    detail::Statement plan =
        connection.Prepare("EXPLAIN QUERY PLAN " + sql, values);
    std::string text;
    while (plan.Step()) text += plan.Text(3) + "\n";
    return text;
  }

  // The plans of the page, count, CSV and chart statements of `filter`.
  std::vector<std::string> Plans(const JournalFilter& filter) {
    const detail::WhereClause where = detail::BuildWhere(filter);
    detail::WhereClause denied = where;
    denied.Add("success = ?", int64_t{0});
    std::vector<detail::SqlValue> chart = {int64_t{0}, int64_t{60}};
    chart.insert(chart.end(), denied.values.begin(), denied.values.end());
    return {PlanOf(detail::PageSql(where),
                   detail::Append(where.values, {int64_t{50}, int64_t{0}})),
            PlanOf(detail::CountSql(where), where.values),
            PlanOf(detail::CsvSql(where),
                   detail::Append(where.values, {int64_t{1000000}})),
            PlanOf(detail::ChartSql(denied), chart)};
  }

  void ExpectIndex(const JournalFilter& filter, const std::string& index) {
    const std::vector<std::string> plans = Plans(filter);
    for (size_t i = 0; i < plans.size(); ++i) {
      const std::string& plan = plans[i];
      EXPECT_NE(plan.find("INDEX " + index + " ("), std::string::npos)
          << "statement " << i << ":\n"
          << plan;
      EXPECT_EQ(plan.find("SCAN logs"), std::string::npos)
          << "statement " << i << ":\n"
          << plan;
      // A partial sort of the rows within one second is cheap; a sort of
      // everything the filter matches is not.
      EXPECT_EQ(plan.find("TEMP B-TREE FOR ORDER BY"), std::string::npos)
          << "statement " << i << ":\n"
          << plan;
    }
  }
};

JournalFilter Span() {
  JournalFilter filter;
  filter.since = 1793494800;
  filter.until = 1793498400;
  return filter;
}

TEST_F(PlanTest, ATimeSpanUsesTheTimeIndex) {
  ExpectIndex(Span(), "logs_time");
  JournalFilter since_only;
  since_only.since = 1793494800;
  ExpectIndex(since_only, "logs_time");
}

TEST_F(PlanTest, AnOutcomeWithinATimeSpanUsesTheTimeIndex) {
  JournalFilter filter = Span();
  filter.outcome = "denied";
  ExpectIndex(filter, "logs_time");
  filter.event = "exec";
  ExpectIndex(filter, "logs_time");
}

TEST_F(PlanTest, AUserUsesTheUserIndexWithOrWithoutATimeSpan) {
  JournalFilter filter;
  filter.user = "u3";
  ExpectIndex(filter, "logs_user_time");
  filter = Span();
  filter.user = "u3";
  filter.outcome = "denied";
  ExpectIndex(filter, "logs_user_time");
}

TEST_F(PlanTest, AGroupUsesTheGroupIndex) {
  JournalFilter filter;
  filter.group = "g2";
  ExpectIndex(filter, "logs_group_time");
  filter = Span();
  filter.group = "g2";
  ExpectIndex(filter, "logs_group_time");
}

TEST_F(PlanTest, AProgramUsesTheProgramIndex) {
  JournalFilter filter;
  filter.program = "/usr/bin/p7";
  ExpectIndex(filter, "logs_app_time");
  filter = Span();
  filter.program = "/usr/bin/p7";
  filter.event = "library";
  ExpectIndex(filter, "logs_app_time");
}

TEST_F(PlanTest, ARowPageByUserNeedsNoSortAtAll) {
  JournalFilter filter = Span();
  filter.user = "u3";
  const std::string plan = Plans(filter)[0];
  EXPECT_EQ(plan.find("TEMP B-TREE"), std::string::npos) << plan;
}

}  // namespace
}  // namespace console_journal_test
