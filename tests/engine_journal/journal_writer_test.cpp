// The writer against a real SQLite journal in the sandboxed install root.
#include "journal_writer.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <thread>
#include <vector>

#include "journal_store.h"
#include "writer_fixture.h"

namespace engine_journal_test {
namespace {

using journal_test::kJournalPath;
using journal_test::PlainQuery;

TEST_F(WriterTest, JournalIsInWalMode) {
  JournalWriter writer(OptionsFor(kJournalPath));
  ASSERT_TRUE(writer.Submit(Event(1050, "/usr/bin/a", "/usr/bin/a")));
  ASSERT_TRUE(WaitUntil([&] { return writer.GetStats().written == 1; }));
  EXPECT_EQ(QueryOne(kJournalPath, "PRAGMA journal_mode"), "wal");
}

TEST_F(WriterTest, StoresTheObjectFramedAndEmptyNamesAsNull) {
  {
    JournalWriter writer(OptionsFor(kJournalPath));
    ASSERT_TRUE(writer.Submit(
        Event(1051, "/usr/bin/make", "/lib/libc.so.6", "bob", "adm", 1, 77)));
    ASSERT_TRUE(writer.Submit(Event(1054, "", "/etc/x", "", "", 0, 78)));
  }
  const auto rows = PlainQuery(
      kJournalPath,
      "SELECT event_id, date_time, app, object_name, username, groupname,"
      " success FROM logs ORDER BY id");
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0], (std::vector<std::string>{"1051", "77", "/usr/bin/make",
                                               "\"/lib/libc.so.6\";", "bob",
                                               "adm", "1"}));
  EXPECT_EQ(rows[1],
            (std::vector<std::string>{"1054", "78", "<null>", "\"/etc/x\";",
                                      "<null>", "<null>", "0"}));
  EXPECT_EQ(QueryOne(kJournalPath, "SELECT typeof(date_time) FROM logs"),
            "integer");
}

TEST_F(WriterTest, BatchGoesInInTimeOrderKeepingArrivalOrderAmongEquals) {
  aec::engine::JournalStore store;
  std::string error;
  ASSERT_TRUE(store.Open(kJournalPath, &error)) << error;
  const std::vector<JournalEvent> batch = {
      Event(1052, "/bin/p", "/o/late", "bob", "g", 0, 5),
      Event(1050, "/bin/p", "/o/early", "alice", "g", 0, 4),
      Event(1050, "/bin/p", "/o/first", "carol", "g", 0, 5),
      Event(1050, "/bin/p", "/o/second", "carol", "g", 0, 5),
      Event(1050, "/bin/p", "/o/alice", "alice", "g", 0, 5)};
  ASSERT_TRUE(store.Append(batch, &error)) << error;
  store.Close();
  std::vector<std::string> objects;
  for (const auto& row :
       PlainQuery(kJournalPath, "SELECT object_name FROM logs ORDER BY id")) {
    objects.push_back(row.at(0));
  }
  EXPECT_EQ(objects, (std::vector<std::string>{
                         "\"/o/early\";", "\"/o/alice\";", "\"/o/first\";",
                         "\"/o/second\";", "\"/o/late\";"}));
}

TEST_F(WriterTest, NamesOfIdsAreLookedUpByTheWriter) {
  {
    JournalWriter writer(OptionsFor(kJournalPath));
    JournalEvent named = Event(1050, "/bin/a", "/bin/a", "", "", 1, 1);
    named.uid = 0;
    named.gid = 0;
    ASSERT_TRUE(writer.Submit(std::move(named)));
    // No name: the number; a name given stays.
    JournalEvent unnamed = Event(1050, "/bin/b", "/bin/b", "", "given", 1, 2);
    unnamed.uid = 4294967294;
    unnamed.gid = 0;
    ASSERT_TRUE(writer.Submit(std::move(unnamed)));
  }
  const auto rows = PlainQuery(
      kJournalPath, "SELECT username, groupname FROM logs ORDER BY id");
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0], (std::vector<std::string>{"root", "root"}));
  EXPECT_EQ(rows[1], (std::vector<std::string>{"4294967294", "given"}));
}

TEST_F(WriterTest, DestructorWritesEverythingQueued) {
  auto options = OptionsFor(kJournalPath);
  options.flush_interval = std::chrono::seconds(10);
  options.batch_size = 100;
  {
    JournalWriter writer(options);
    for (int i = 0; i < 5000; ++i) {
      ASSERT_TRUE(
          writer.Submit(Event(1050, "/bin/p", "/bin/p", "u", "g", 0, i)));
    }
  }
  EXPECT_EQ(CountRows(kJournalPath), 5000);
}

TEST_F(WriterTest, ConcurrentSubmittersAreWrittenOrCountedAsDropped) {
  auto options = OptionsFor(kJournalPath);
  options.queue_capacity = 512;
  JournalWriter::Stats stats{};
  constexpr int kThreads = 4;
  constexpr int kEach = 20000;
  std::atomic<uint64_t> refused{0};
  {
    JournalWriter writer(options);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < kEach; ++i) {
          if (!writer.Submit(Event(1050 + t, "/bin/t" + std::to_string(t), "/o",
                                   "u", "g", 1, i))) {
            refused.fetch_add(1);
          }
        }
      });
    }
    for (auto& thread : threads) thread.join();
    // Every row ends up written or counted as dropped, none twice.
    WaitUntil([&] {
      const auto now = writer.GetStats();
      return now.written + now.dropped >= uint64_t{kThreads} * kEach;
    });
    stats = writer.GetStats();
  }
  EXPECT_EQ(stats.dropped, refused.load());
  EXPECT_EQ(stats.written + stats.dropped,
            static_cast<uint64_t>(kThreads) * kEach);
  EXPECT_EQ(static_cast<uint64_t>(CountRows(kJournalPath)), stats.written);
}

// An unopenable journal leaves rows queued; the queue overflows, the excess
// is counted, and once the journal can be created the queued rows and a
// record of the gap are written.
TEST_F(WriterTest, FullQueueDropsCountsAndRecordsTheGapOnceDrained) {
  const std::string dir = "/opt/korvex/var/log/later";
  const std::string path = dir + "/audit_logs.db";
  auto options = OptionsFor(path);
  options.queue_capacity = 8;
  JournalWriter writer(options);
  int accepted = 0;
  for (int i = 0; i < 20; ++i) {
    if (writer.Submit(Event(1050, "/bin/p", "/bin/p", "u", "g", 0, i))) {
      ++accepted;
    }
  }
  EXPECT_EQ(accepted, 8);
  auto stats = writer.GetStats();
  EXPECT_EQ(stats.dropped, 12u);
  EXPECT_EQ(stats.queue_depth, 8u);
  EXPECT_EQ(stats.written, 0u);
  ASSERT_TRUE(WaitUntil([&] { return log_lines_.Contains("cannot open"); }));

  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  ASSERT_TRUE(
      WaitUntil([&] { return log_lines_.Contains("12 rows were dropped"); }));
  stats = writer.GetStats();
  EXPECT_EQ(stats.written, 8u);
  EXPECT_EQ(stats.queue_depth, 0u);
  EXPECT_EQ(CountRows(path), 8);
  EXPECT_EQ(QueryOne(path, "SELECT sum(count) FROM dropped_events"), "12");
  EXPECT_TRUE(log_lines_.Contains("writable again"));
}

TEST_F(WriterTest, RetentionKeepsTheNewestRowsWithinMaxRows) {
  auto options = OptionsFor(kJournalPath);
  options.max_rows = 1000;
  options.retention_batch = 150;
  options.batch_size = 200;
  JournalWriter writer(options);
  for (int i = 0; i < 5000; ++i) {
    JournalEvent event = Event(1050, "/bin/p", "/o" + std::to_string(i), "u",
                               "g", 0, 100000 + i);
    while (!writer.Submit(std::move(event))) {
      std::this_thread::yield();
    }
  }
  ASSERT_TRUE(WaitUntil([&] {
    return writer.GetStats().written == 5000 && CountRows(kJournalPath) == 1000;
  }));
  EXPECT_EQ(QueryOne(kJournalPath, "SELECT min(date_time) FROM logs"),
            "104000");
  EXPECT_EQ(QueryOne(kJournalPath, "SELECT max(date_time) FROM logs"),
            "104999");
}

TEST_F(WriterTest, RetentionDeletesRowsOlderThanMaxAge) {
  auto options = OptionsFor(kJournalPath);
  options.max_age_seconds = 3600;
  options.retention_batch = 7;
  JournalWriter writer(options);
  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  for (int i = 0; i < 50; ++i) {
    ASSERT_TRUE(writer.Submit(
        Event(1050, "/bin/old", "/o", "u", "g", 0, now - 7200 - i)));
    ASSERT_TRUE(writer.Submit(Event(1050, "/bin/new", "/o", "u", "g", 0, now)));
  }
  ASSERT_TRUE(WaitUntil([&] {
    return writer.GetStats().written == 100 && CountRows(kJournalPath) == 50;
  }));
  EXPECT_EQ(
      QueryOne(kJournalPath, "SELECT group_concat(DISTINCT app) FROM logs"),
      "/bin/new");
}

// A tiny tmpfs in the test's own mount namespace fills up: the writer says
// so, counts what it loses, keeps accepting rows, and writes again once
// there is room.
TEST_F(WriterTest, FullDiskDropsCountsAndRecoversWhenThereIsRoom) {
  const std::string dir = root_.dir() + "/small";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  if (mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=256k") != 0) {
    GTEST_SKIP() << "cannot mount a tmpfs here: " << std::strerror(errno);
  }
  const std::string path = dir + "/audit_logs.db";
  {
    auto options = OptionsFor(path);
    options.batch_size = 64;
    JournalWriter writer(options);
    const std::string big(2000, 'x');
    uint64_t submitted = 0;
    ASSERT_TRUE(WaitUntil([&] {
      for (int i = 0; i < 64; ++i) {
        if (writer.Submit(Event(1054, "/bin/p", big, "u", "g", 0, 1))) {
          ++submitted;
        }
      }
      return log_lines_.Contains("full");
    }));
    EXPECT_GT(submitted, 0u);
    EXPECT_GT(writer.GetStats().dropped, 0u);

    ASSERT_EQ(mount(nullptr, dir.c_str(), nullptr, MS_REMOUNT, "size=64m"), 0)
        << std::strerror(errno);
    const uint64_t before = writer.GetStats().written;
    ASSERT_TRUE(writer.Submit(Event(1050, "/bin/after", "/bin/after")));
    ASSERT_TRUE(WaitUntil([&] {
      return writer.GetStats().written > before &&
             log_lines_.Contains("rows were dropped");
    }));
    EXPECT_EQ(
        QueryOne(path, "SELECT count(*) FROM logs WHERE app = '/bin/after'"),
        "1");
    EXPECT_NE(QueryOne(path, "SELECT sum(count) FROM dropped_events"),
              "<null>");
  }
  umount2(dir.c_str(), MNT_DETACH);
}

}  // namespace
}  // namespace engine_journal_test
