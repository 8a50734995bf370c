// The fanotify loop: receives permission events of the watched file
// systems, decides each with Decide() over the tables in force and answers
// it, always, within a deadline.
//
// Threads: the event thread reads events and decides them itself, so an
// event costs the waiting process one hand-over between threads, not two
// (on a virtual machine each wake-up of an idle processor is tens of
// microseconds). It never opens a file while it decides: journal names
// are looked up by the journal writer. The watchdog answers whatever
// waited longer than the deadline (allow in soft mode, the fail action in
// hard mode) and, while the event thread is held up in one decision for
// longer than a tick, reads the events in its place: the engine's own
// opens are allowed at once, the others queue for the event thread and the
// deadline. An event is answered exactly once, whoever gets there first.
// If the process dies the kernel answers what is left as allowed.
//
// Marks: the file system of each watched path (FAN_MARK_FILESYSTEM); a file
// system with an excluded mount point is marked mount by mount instead,
// leaving the excluded ones out. An empty watch list means every local file
// system of the mount namespace.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "decision.h"
#include "tables.h"

namespace aec::engine {

struct JournalEvent;

struct EnforcerOptions {
  std::vector<std::string> watch;          // mount points; empty: all local
  std::vector<std::string> exclude_mounts; // mount points left out
  std::chrono::milliseconds deadline{250};
  bool fail_deny = true;    // hard mode, decision late: deny (else allow)
  bool ignore_marks = true; // cache "not controlled" opens in the kernel
  // Test hook: while this file exists the event thread does not decide,
  // so the watchdog must read and answer. Empty: no hook.
  std::string stall_file;
  // Receives every decision whose audit bit is set; must not block.
  std::function<void(JournalEvent &&)> journal;
  // Log sink (syslog priority, text).
  std::function<void(int, const std::string &)> log;
};

struct EnforcerStats {
  std::uint64_t events = 0;       // permission events received
  std::uint64_t decided = 0;      // answered by the event thread
  std::uint64_t denied = 0;       // answered FAN_DENY
  std::uint64_t rules_denied = 0; // the rules said deny (also in soft mode)
  std::uint64_t timeouts = 0;     // answered by the watchdog
  std::uint64_t own = 0;          // the engine's own events
  std::uint64_t overflows = 0;    // queue overflow notices of the kernel
  std::uint64_t ignore_marks = 0; // ignore marks added since the last flush
  std::uint64_t queue_depth = 0;  // events read and not yet decided
  std::uint64_t taken_over = 0;   // events the watchdog read in the event
                                  // thread's place
  double p50_us = 0, p99_us = 0;  // received to answered, recent events
  double decide_p50_us = 0, decide_p99_us = 0; // Decide() alone
};

class Enforcer {
public:
  Enforcer(EnforcerOptions options, const TablesHolder *tables);
  ~Enforcer(); // Stop()
  Enforcer(const Enforcer &) = delete;
  Enforcer &operator=(const Enforcer &) = delete;

  // fanotify_init, the marks, the threads. False with the reason when the
  // kernel refuses; nothing is left marked then.
  bool Start(std::string *why);
  void Stop();

  // State and mode, audit mask: read by every decision.
  void SetControl(int environment) { environment_.store(environment); }
  void SetAuditMask(unsigned mask) { audit_mask_.store(mask); }
  int control_value() const { return environment_.load(); }
  unsigned audit_mask() const { return audit_mask_.load(); }

  // Drops every ignore mark: a new set may control what was not. A
  // decision made on the replaced set and not yet marked when this runs
  // leaves no mark behind.
  void FlushIgnoreMarks();

  EnforcerStats GetStats() const;

private:
  struct Pending {
    int fd;
    pid_t pid;
    std::uint64_t mask;
    std::chrono::steady_clock::time_point received;
    std::atomic<bool> answered{false}; // someone took the answer on
    std::atomic<bool> written{false};  // and has written it
  };

  bool Mark(std::string *why);
  void EventLoop();
  void WatchdogLoop();
  // Reads what the kernel has queued without blocking: the engine's own
  // events are allowed at once, the others are registered for the watchdog
  // and appended to `out`. Called by the event thread and, while that one
  // is held up, by the watchdog; each event is read by one of them.
  void ReadAvailable(std::vector<std::shared_ptr<Pending>> *out);
  // Decides `p` unless it was answered already, then lets go of it.
  void Handle(const std::shared_ptr<Pending> &p);
  // Writes the answer unless someone already did; true when this call did.
  bool Answer(Pending &p, bool allow);
  // Closes the event's descriptor once its answer is written: a number
  // closed under a writing answer could be reused by the next event, and
  // the answer would go to that one.
  void Release(Pending &p);
  void Process(const std::shared_ptr<Pending> &p);
  void RecordLatency(double total_us, double decide_us);
  // Tells the kernel to stop asking about opens of the file behind `fd`,
  // decided "not controlled" from `seen` (its stat before the decision
  // looked at it) on the set of ignore-mark `generation`. No mark when a
  // flush came since, or when the file changed while it was decided.
  void AddIgnoreMark(int fd, const struct stat &seen,
                     std::uint64_t generation);
  bool IsSharedObjectCached(int fd, const struct stat &st);
  // SHA-256 of the file, cached by (dev, ino, ctime): an unchanged file is
  // never hashed twice (a write changes the ctime).
  bool DigestCached(int fd, const struct stat &st, Digest *digest);
  void Log(int priority, const std::string &text) const;

  EnforcerOptions options_;
  const TablesHolder *tables_;
  int fan_fd_ = -1;
  int wake_fd_ = -1;
  std::atomic<bool> stopping_{false};
  std::atomic<int> environment_{0};
  std::atomic<unsigned> audit_mask_{0};
  pid_t self_ = 0;

  // Events the watchdog read while the event thread was held up; the event
  // thread takes them before it reads again.
  std::mutex queue_mu_;
  std::deque<std::shared_ptr<Pending>> queue_;
  // Everything read and not yet let go of, for the watchdog.
  mutable std::mutex inflight_mu_;
  std::unordered_map<Pending *, std::shared_ptr<Pending>> inflight_;
  // Orders adding an ignore mark against a flush; the generation counts
  // flushes, so a decision knows whether its set is still the one marked.
  std::mutex marks_mu_;
  std::atomic<std::uint64_t> marks_generation_{0};
  bool evictable_marks_ = true; // under marks_mu_; off where the kernel
                                // has no evictable marks

  std::thread reader_, watchdog_;
  // When the event thread began the decision it is in (steady clock ticks
  // since its epoch); 0 while it is not deciding.
  std::atomic<std::int64_t> busy_since_{0};

  std::atomic<std::uint64_t> events_{0}, decided_{0}, denied_{0},
      rules_denied_{0}, timeouts_{0}, own_{0}, overflows_{0}, ignore_marks_{0},
      taken_over_{0};

  mutable std::mutex latency_mu_;
  std::vector<float> latency_us_, decide_us_; // rings
  std::size_t latency_next_ = 0;

  // (dev, ino, ctime) -> is a shared object; only the event thread.
  struct ElfKey {
    std::uint64_t dev, ino;
    std::int64_t ctime_ns;
    bool operator==(const ElfKey &o) const {
      return dev == o.dev && ino == o.ino && ctime_ns == o.ctime_ns;
    }
  };
  struct ElfKeyHash {
    std::size_t operator()(const ElfKey &k) const noexcept {
      return std::hash<std::uint64_t>()(k.ino * 31 + k.dev) ^
             std::hash<std::int64_t>()(k.ctime_ns);
    }
  };
  std::unordered_map<ElfKey, bool, ElfKeyHash> elf_cache_;
  std::unordered_map<ElfKey, Digest, ElfKeyHash> digest_cache_;
};

} // namespace aec::engine
