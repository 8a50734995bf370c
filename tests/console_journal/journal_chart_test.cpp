// Denials over time: the buckets' spans, their sums against the filtered
// count, the default span and the limits.
#include <time.h>

#include <numeric>
#include <random>

#include "console_journal_fixture.h"

namespace console_journal_test {
namespace {

using kxconsole::JournalFilter;

class ChartTest : public ConsoleJournalTest {};

TEST_F(ChartTest, EachDenialFallsInTheBucketOfItsTime) {
  Build(
      {Row(1051, 1000), Row(1051, 1009), Row(1053, 1010), Row(1055, 1039),
       Row(1051, 1040), Row(1051, 999),
       Row(1051, 1015, "/usr/bin/make", "/usr/bin/make", "alice", "staff", 1)});
  JournalFilter filter;
  filter.since = 1000;
  filter.until = 1040;
  int64_t width = 0;
  EXPECT_EQ(kxconsole::DenialChart(journal_, filter, 4, &width),
            (std::vector<int64_t>{2, 1, 0, 1}));
  EXPECT_EQ(width, 10);
}

TEST_F(ChartTest, AnUnevenSpanRoundsTheWidthUpAndKeepsEveryDenial) {
  Build({Row(1051, 0), Row(1051, 6), Row(1051, 9)});
  JournalFilter filter;
  filter.since = 0;
  filter.until = 10;
  int64_t width = 0;
  // ceil(10 / 3) = 4: [0,4) [4,8) [8,10)
  EXPECT_EQ(kxconsole::DenialChart(journal_, filter, 3, &width),
            (std::vector<int64_t>{1, 1, 1}));
  EXPECT_EQ(width, 4);
  filter.until = 0;
  EXPECT_EQ(kxconsole::DenialChart(journal_, filter, 2, &width),
            (std::vector<int64_t>{0, 0}));
  EXPECT_EQ(width, 1);
}

TEST_F(ChartTest, TheBucketsAddUpToTheDeniedCountOfTheSameFilter) {
  std::mt19937 random(7);
  std::vector<kxjournal::JournalRow> rows;
  for (int i = 0; i < 3000; ++i) {
    rows.push_back(Row(1050 + static_cast<int>(random() % 6),
                       static_cast<int64_t>(random() % 100000),
                       "/usr/bin/p" + std::to_string(random() % 4), "/o",
                       "u" + std::to_string(random() % 3), "staff",
                       static_cast<int>(random() % 2)));
  }
  Build(rows);
  JournalFilter filter;
  filter.since = 12345;
  filter.until = 87654;
  for (const char* user : {"", "u1"}) {
    for (const char* event : {"", "exec", "file"}) {
      filter.user = user;
      filter.event = event;
      const std::vector<int64_t> chart =
          kxconsole::DenialChart(journal_, filter, 37, nullptr);
      JournalFilter denied = filter;
      denied.outcome = "denied";
      const int64_t total = Query(denied).total;
      EXPECT_GT(total, 0);
      EXPECT_EQ(std::accumulate(chart.begin(), chart.end(), int64_t{0}), total)
          << "user " << user << ", event " << event;
    }
  }
  filter = {};
  filter.since = 12345;
  filter.until = 87654;
  filter.outcome = "allowed";
  const std::vector<int64_t> allowed =
      kxconsole::DenialChart(journal_, filter, 5, nullptr);
  EXPECT_EQ(allowed, std::vector<int64_t>(5, 0));
}

TEST_F(ChartTest, WithoutTimesTheChartCoversTheLastDay) {
  const int64_t now = static_cast<int64_t>(time(nullptr));
  Build({Row(1051, now - 90000), Row(1051, now - 3600), Row(1051, now - 60)});
  int64_t width = 0;
  const std::vector<int64_t> chart =
      kxconsole::DenialChart(journal_, {}, 24, &width);
  EXPECT_EQ(width, 3600);
  EXPECT_EQ(std::accumulate(chart.begin(), chart.end(), int64_t{0}), 2);

  JournalFilter filter;
  kxconsole::ApplyChartDefaults(&filter, 100000);
  EXPECT_EQ(filter.since, 100000 - 86400);
  EXPECT_EQ(filter.until, 100000);
  filter = {};
  filter.until = 5000;
  kxconsole::ApplyChartDefaults(&filter, 100000);
  EXPECT_EQ(filter.since, 0);
  EXPECT_EQ(filter.until, 5000);
  filter = {};
  filter.since = 7;
  kxconsole::ApplyChartDefaults(&filter, 100000);
  EXPECT_EQ(filter.since, 7);
  EXPECT_EQ(filter.until, 100000);
}

TEST_F(ChartTest, BucketCountsOutsideOneTo500AreRefused) {
  Build({Row(1051, 0)});
  for (const int buckets : {0, -3, 501}) {
    try {
      kxconsole::DenialChart(journal_, {}, buckets, nullptr);
      ADD_FAILURE() << buckets << " buckets were accepted";
    } catch (const kxconsole::JournalError& e) {
      EXPECT_NE(std::string(e.what()).find("buckets must be between 1 and 500"),
                std::string::npos);
    }
  }
  JournalFilter filter;
  filter.since = 1;
  filter.until = 501;
  EXPECT_EQ(kxconsole::DenialChart(journal_, filter, 500, nullptr).size(),
            500u);
}

TEST_F(ChartTest, AMissingJournalGivesZeros) {
  JournalFilter filter;
  filter.since = 0;
  filter.until = 100;
  EXPECT_EQ(kxconsole::DenialChart(journal_, filter, 4, nullptr),
            std::vector<int64_t>(4, 0));
  EXPECT_EQ(kxconsole::CountDenials(journal_, 0, 100), 0);
}

TEST_F(ChartTest, CountDenialsCountsFromSinceUpToUntil) {
  Build({Row(1051, 99), Row(1051, 100), Row(1053, 150), Row(1055, 199),
         Row(1051, 200),
         Row(1051, 150, "/usr/bin/make", "/usr/bin/make", "a", "g", 1),
         Row(1070, 150)});
  EXPECT_EQ(kxconsole::CountDenials(journal_, 100, 200), 3);
  EXPECT_EQ(kxconsole::CountDenials(journal_, 100, 100), 0);
  EXPECT_THROW(kxconsole::CountDenials(journal_, 200, 100),
               kxconsole::JournalError);
}

}  // namespace
}  // namespace console_journal_test
