#include "journal_writer.h"

#include <pthread.h>
#include <syslog.h>

#include <ctime>
#include <utility>
#include <vector>

#include "bounded_queue.h"
#include "id_names.h"
#include "journal_store.h"

namespace aec::engine {

namespace {

using Clock = std::chrono::steady_clock;

void SyslogSink(int priority, const std::string& message) {
  syslog(priority, "%s", message.c_str());
}

}  // namespace

JournalWriter::JournalWriter(Options options)
    : options_(std::move(options)),
      queue_(std::make_unique<BoundedQueue<JournalEvent>>(
          options_.queue_capacity)) {
  if (!options_.log) options_.log = SyslogSink;
  if (options_.batch_size == 0) options_.batch_size = 1;
  if (options_.retention_batch == 0) options_.retention_batch = 1;
  thread_ = std::thread(&JournalWriter::Run, this);
}

JournalWriter::~JournalWriter() {
  {
    std::lock_guard<std::mutex> lock(wake_mutex_);
    stopping_.store(true);
  }
  wake_.notify_all();
  thread_.join();
}

bool JournalWriter::Submit(JournalEvent&& e) noexcept {
  if (queue_->TryPush(e)) return true;
  dropped_.fetch_add(1, std::memory_order_relaxed);
  return false;
}

JournalWriter::Stats JournalWriter::GetStats() const {
  return Stats{written_.load(std::memory_order_relaxed),
               dropped_.load(std::memory_order_relaxed),
               static_cast<uint64_t>(queue_->Depth())};
}

// The writer thread. It owns the connection; it never holds a lock a
// submitting thread could need, so a slow disk only fills the queue.
void JournalWriter::Run() {
  // Named, so that top -H and the benchmarks can tell its processor time.
  pthread_setname_np(pthread_self(), "kxaecd-journal");
  JournalStore store;
  IdNames names;
  std::vector<JournalEvent> batch;
  batch.reserve(options_.batch_size);
  std::string error;
  std::string last_error;       // said once until the journal works again
  uint64_t reported_drops = 0;  // drops already logged and recorded
  Clock::time_point next_open = Clock::now();

  auto complain = [&](const std::string& what) {
    const std::string message =
        "audit journal " + options_.path + ": " + what + ": " + error;
    if (message != last_error) options_.log(LOG_ERR, message);
    last_error = message;
  };
  auto fail = [&](const std::string& what) {
    complain(what);
    store.Close();
    next_open = Clock::now() + options_.reopen_interval;
  };
  auto sleep_for = [&](std::chrono::milliseconds interval) {
    std::unique_lock<std::mutex> lock(wake_mutex_);
    wake_.wait_for(lock, interval, [this] { return stopping_.load(); });
  };

  for (;;) {
    const bool stopping = stopping_.load();
    if (!store.IsOpen()) {
      // A stop gets one more attempt, so a late recovery still drains.
      if (stopping || Clock::now() >= next_open) {
        if (store.Open(options_.path, &error)) {
          if (!last_error.empty()) {
            options_.log(LOG_NOTICE, "audit journal " + options_.path +
                                         " is writable again");
            last_error.clear();
          }
        } else {
          fail("cannot open (rows stay queued, the open is retried)");
        }
      }
      if (!store.IsOpen()) {
        if (stopping) break;
        sleep_for(std::chrono::duration_cast<std::chrono::milliseconds>(
            next_open - Clock::now()));
        continue;
      }
    }

    batch.clear();
    JournalEvent event;
    while (batch.size() < options_.batch_size && queue_->TryPop(event)) {
      if (event.username.empty() && event.uid >= 0) {
        event.username = names.User(static_cast<uint32_t>(event.uid));
      }
      if (event.groupname.empty() && event.gid >= 0) {
        event.groupname = names.Group(static_cast<uint32_t>(event.gid));
      }
      batch.push_back(std::move(event));
    }
    if (!batch.empty()) {
      if (store.Append(batch, &error)) {
        written_.fetch_add(batch.size(), std::memory_order_relaxed);
      } else {
        dropped_.fetch_add(batch.size(), std::memory_order_relaxed);
        fail("cannot write " + std::to_string(batch.size()) +
             " rows (dropped)");
        continue;
      }
    }

    bool more_to_trim = false;
    if (options_.max_rows > 0 || options_.max_age_seconds > 0) {
      const int64_t min_time = options_.max_age_seconds > 0
                                   ? static_cast<int64_t>(std::time(nullptr)) -
                                         options_.max_age_seconds
                                   : 0;
      uint64_t deleted = 0;
      if (!store.Trim(options_.max_rows, min_time, options_.retention_batch,
                      &deleted, &error)) {
        fail("cannot delete old rows");
        continue;
      }
      more_to_trim = deleted >= options_.retention_batch;
    }

    const bool drained = batch.size() < options_.batch_size;
    if (drained) {
      const uint64_t dropped = dropped_.load(std::memory_order_relaxed);
      if (dropped > reported_drops) {
        const uint64_t lost = dropped - reported_drops;
        if (!store.RecordDropped(static_cast<int64_t>(std::time(nullptr)), lost,
                                 &error)) {
          fail("cannot record dropped rows");
          continue;
        }
        options_.log(LOG_WARNING, "audit journal " + options_.path + ": " +
                                      std::to_string(lost) +
                                      " rows were dropped (queue full or "
                                      "journal not writable)");
        reported_drops = dropped;
      }
      if (stopping) break;
      if (!more_to_trim) sleep_for(options_.flush_interval);
    }
  }

  // Stopping with the journal unwritable: what is still queued is lost.
  JournalEvent left;
  uint64_t lost = 0;
  while (queue_->TryPop(left)) ++lost;
  if (lost > 0) {
    dropped_.fetch_add(lost, std::memory_order_relaxed);
    options_.log(LOG_WARNING, "audit journal " + options_.path + ": " +
                                  std::to_string(lost) +
                                  " queued rows dropped at stop (journal not "
                                  "writable)");
  }
}

}  // namespace aec::engine
