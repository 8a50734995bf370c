// The engine's audit journal writer.
//
// Decisions are answered on the fanotify path, which must never wait for a
// disk. So a decision hands its journal row to Submit(), which puts it into
// a bounded lock-free queue and returns at once; one writer thread takes rows
// off the queue and commits them to the SQLite journal in batched
// transactions. When the queue is full the row is dropped and counted; the
// count is logged and recorded in the table `dropped_events` once the writer
// has caught up, so a gap in the journal is never silent.
//
// The journal is the database the plug-in's "log" and "loglist" commands
// read: table `logs` (columns in journal_schema.h), WAL mode so that readers
// and the writer never block one another, with the indexes those commands'
// filters use (time, user, group, program).
//
// Failure: an unopenable or unwritable journal (missing directory, read-only
// file system, full disk, corrupt file) never reaches Submit(). The writer
// logs why, leaves rows queued while it retries the open every
// `reopen_interval`, and counts as dropped what the queue cannot hold and
// what a failed transaction lost. Submit() and GetStats() may be called from
// any number of threads; the destructor stops the writer after draining what
// is queued (rows it cannot write are counted as dropped).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace aec::engine {

// One journalled decision.
struct JournalEvent {
  int64_t date_time;  // seconds since the Unix epoch (UTC)
  int event_id;       // 1050..1055
  int success;        // 1 permitted, 0 denied
  // The program of the process; empty is stored as NULL (no program known).
  std::string app;
  // The path of the object, unframed: the writer stores it framed as the
  // journal commands expect ("\"" + path + "\";").
  std::string object_name;
  // Empty is stored as NULL.
  std::string username, groupname;
  // When `username` is empty and `uid` is not -1, the writer stores the
  // name of `uid` (its number when it has none); the same for `groupname`
  // and `gid`. The names are looked up on the writer's thread, so the
  // thread that decides never opens a file for them.
  int64_t uid = -1, gid = -1;
};

template <typename T>
class BoundedQueue;

class JournalWriter {
 public:
  struct Options {
    std::string path;
    size_t queue_capacity = 65536;
    // Retention: after each committed batch the oldest rows beyond either
    // bound are deleted, at most `retention_batch` rows per transaction, so
    // trimming never stalls the writer for long. Zero disables a bound.
    uint64_t max_rows = 0;
    int64_t max_age_seconds = 0;
    size_t retention_batch = 10000;
    // At most this many rows per transaction. A commit writes every index
    // page it touched, a few thousand for the user, group and program
    // indexes almost whatever the number of rows, so larger batches make a
    // row cheaper; 16,384 rows at 50,000 a second leave the queue room for
    // the next batch while one commits.
    size_t batch_size = 16384;
    // How long the writer sleeps when the queue is empty.
    std::chrono::milliseconds flush_interval{20};
    // How long the writer waits before it opens the journal again after a
    // failure.
    std::chrono::milliseconds reopen_interval{1000};
    // Where the writer says what went wrong (syslog priority, message).
    // Default: syslog(3) with the process's own identity.
    std::function<void(int priority, const std::string& message)> log;
  };

  // Starts the writer thread; the journal is opened (and created with its
  // table and indexes, or upgraded with missing indexes) by that thread, so
  // a slow or failing disk never delays the caller.
  explicit JournalWriter(Options options);
  // Stops and drains: every row queued before the call is written or, when
  // the journal cannot be written, counted as dropped.
  ~JournalWriter();
  JournalWriter(const JournalWriter&) = delete;
  JournalWriter& operator=(const JournalWriter&) = delete;

  // Never blocks. False: the queue was full and the row was dropped (counted).
  bool Submit(JournalEvent&& e) noexcept;

  struct Stats {
    uint64_t written;      // rows committed to the journal
    uint64_t dropped;      // rows lost: queue full or a failed transaction
    uint64_t queue_depth;  // rows waiting now
  };
  Stats GetStats() const;

 private:
  void Run();

  Options options_;
  std::unique_ptr<BoundedQueue<JournalEvent>> queue_;
  std::atomic<uint64_t> written_{0};
  std::atomic<uint64_t> dropped_{0};
  std::atomic<bool> stopping_{false};
  std::mutex wake_mutex_;
  std::condition_variable wake_;
  std::thread thread_;
};

}  // namespace aec::engine
