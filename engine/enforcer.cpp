#include "enforcer.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "elf_probe.h"
#include "journal/journal_writer.h"
#include "process_info.h"

#ifndef FAN_MARK_FILESYSTEM
#define FAN_MARK_FILESYSTEM 0x00000100
#endif
#ifndef FAN_MARK_EVICTABLE
#define FAN_MARK_EVICTABLE 0x00000200
#endif

namespace aec::engine {

namespace {

constexpr std::uint64_t kPermMask = FAN_OPEN_PERM | FAN_OPEN_EXEC_PERM;
constexpr std::size_t kLatencyRing = 8192;

// File systems that hold no programs or that another host serves: never
// marked by the default scope.
bool IsLocalFileSystemType(const std::string &type) {
  static const std::set<std::string> kSkip = {
      "proc",        "sysfs",    "cgroup",   "cgroup2",    "devpts",
      "mqueue",      "debugfs",  "tracefs",  "securityfs", "pstore",
      "bpf",         "configfs", "fusectl",  "hugetlbfs",  "autofs",
      "binfmt_misc", "nsfs",     "efivarfs", "rpc_pipefs", "nfs",
      "nfs4",        "cifs",     "smb3",     "9p",         "devtmpfs",
      "selinuxfs",   "ceph",     "glusterfs"};
  if (type.compare(0, 5, "fuse.") == 0 || type == "fuse")
    return false;
  return kSkip.count(type) == 0;
}

struct MountEntry {
  std::string device; // "major:minor"
  std::string point;
  std::string type;
};

// /proc/self/mountinfo: mount point is field 5, the device field 3, the
// type follows the " - " separator. Octal escapes (\040) are undone.
std::vector<MountEntry> ReadMounts() {
  std::vector<MountEntry> mounts;
  std::ifstream in("/proc/self/mountinfo");
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    std::string id, parent, device, root, point;
    words >> id >> parent >> device >> root >> point;
    const auto sep = line.find(" - ");
    if (sep == std::string::npos)
      continue;
    std::istringstream tail(line.substr(sep + 3));
    std::string type;
    tail >> type;
    std::string unescaped;
    for (size_t i = 0; i < point.size(); ++i) {
      if (point[i] == '\\' && i + 3 < point.size()) {
        const std::string oct = point.substr(i + 1, 3);
        unescaped.push_back(static_cast<char>(std::stoi(oct, nullptr, 8)));
        i += 3;
      } else {
        unescaped.push_back(point[i]);
      }
    }
    mounts.push_back({device, unescaped, type});
  }
  return mounts;
}

std::string RealPath(const std::string &path) {
  char buffer[PATH_MAX];
  if (realpath(path.c_str(), buffer) == nullptr)
    return path;
  return buffer;
}

double Percentile(std::vector<float> values, double q) {
  if (values.empty())
    return 0;
  const size_t k =
      static_cast<size_t>(q * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + static_cast<long>(k),
                   values.end());
  return values[k];
}

double Micros(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double, std::micro>(d).count();
}

} // namespace

Enforcer::Enforcer(EnforcerOptions options, const TablesHolder *tables)
    : options_(std::move(options)), tables_(tables) {}

Enforcer::~Enforcer() { Stop(); }

void Enforcer::Log(int priority, const std::string &text) const {
  if (options_.log)
    options_.log(priority, text);
}

bool Enforcer::Start(std::string *why) {
  self_ = getpid();
  fan_fd_ = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK |
                              FAN_UNLIMITED_QUEUE,
                          O_RDONLY | O_LARGEFILE | O_CLOEXEC);
  if (fan_fd_ < 0) {
    *why = std::string("fanotify_init: ") + std::strerror(errno);
    return false;
  }
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd_ < 0) {
    *why = std::string("eventfd: ") + std::strerror(errno);
    close(fan_fd_);
    fan_fd_ = -1;
    return false;
  }
  // Threads before marks: from the first mark on, every event has a reader.
  reader_ = std::thread([this] { EventLoop(); });
  watchdog_ = std::thread([this] { WatchdogLoop(); });
  if (!Mark(why)) {
    Stop();
    return false;
  }
  return true;
}

bool Enforcer::Mark(std::string *why) {
  const std::vector<MountEntry> mounts = ReadMounts();
  std::set<std::string> excluded;
  for (const std::string &e : options_.exclude_mounts)
    excluded.insert(RealPath(e));

  // The devices to watch, and for each the mount points it is seen at.
  std::map<std::string, std::vector<std::string>> points_of;
  for (const MountEntry &m : mounts)
    points_of[m.device].push_back(m.point);
  std::vector<std::pair<std::string, std::string>> targets; // device, point
  if (options_.watch.empty()) {
    std::set<std::string> seen;
    for (const MountEntry &m : mounts) {
      if (!IsLocalFileSystemType(m.type) || excluded.count(m.point))
        continue;
      if (seen.insert(m.device).second)
        targets.emplace_back(m.device, m.point);
    }
  } else {
    for (const std::string &w : options_.watch) {
      const std::string point = RealPath(w);
      const MountEntry *found = nullptr;
      for (const MountEntry &m : mounts) {
        if (m.point == point)
          found = &m; // the last one is on top
      }
      if (found == nullptr) {
        *why = "not a mount point: " + w;
        return false;
      }
      targets.emplace_back(found->device, point);
    }
  }
  for (const auto &target : targets) {
    bool any_excluded = false;
    for (const std::string &p : points_of[target.first]) {
      if (excluded.count(p))
        any_excluded = true;
    }
    if (!any_excluded) {
      if (fanotify_mark(fan_fd_, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, kPermMask,
                        AT_FDCWD, target.second.c_str()) != 0) {
        *why = "fanotify_mark " + target.second + ": " + std::strerror(errno);
        return false;
      }
      Log(LOG_INFO, "watching the file system at " + target.second);
      continue;
    }
    // One of its mount points is left out: mark the others one by one.
    for (const std::string &p : points_of[target.first]) {
      if (excluded.count(p)) {
        Log(LOG_INFO, "leaving out the mount " + p);
        continue;
      }
      if (fanotify_mark(fan_fd_, FAN_MARK_ADD | FAN_MARK_MOUNT, kPermMask,
                        AT_FDCWD, p.c_str()) != 0) {
        *why = "fanotify_mark " + p + ": " + std::strerror(errno);
        return false;
      }
      Log(LOG_INFO, "watching the mount " + p);
    }
  }
  return true;
}

void Enforcer::Stop() {
  if (stopping_.exchange(true))
    return;
  if (wake_fd_ >= 0) {
    const std::uint64_t one = 1;
    if (write(wake_fd_, &one, sizeof one) < 0) {
      // The reader also polls with a timeout; it sees stopping_ then.
    }
  }
  if (reader_.joinable())
    reader_.join();
  if (watchdog_.joinable())
    watchdog_.join();
  // Whatever is still waiting is allowed, before the descriptor goes (the
  // kernel would allow it too when the group is released).
  std::vector<std::shared_ptr<Pending>> left;
  {
    std::lock_guard<std::mutex> lock(inflight_mu_);
    for (auto &entry : inflight_)
      left.push_back(entry.second);
    inflight_.clear();
  }
  for (auto &p : left) {
    Answer(*p, true);
    Release(*p);
  }
  queue_.clear();
  if (fan_fd_ >= 0)
    close(fan_fd_);
  if (wake_fd_ >= 0)
    close(wake_fd_);
  fan_fd_ = wake_fd_ = -1;
}

bool Enforcer::Answer(Pending &p, bool allow) {
  if (p.answered.exchange(true))
    return false;
  struct fanotify_response response;
  response.fd = p.fd;
  response.response = allow ? FAN_ALLOW : FAN_DENY;
  if (write(fan_fd_, &response, sizeof response) != sizeof response) {
    Log(LOG_ERR,
        std::string("cannot answer an event: ") + std::strerror(errno));
  }
  p.written.store(true);
  if (!allow)
    denied_.fetch_add(1);
  return true;
}

void Enforcer::Release(Pending &p) {
  while (p.answered.load() && !p.written.load())
    std::this_thread::yield();
  close(p.fd);
}

void Enforcer::EventLoop() {
  std::vector<std::shared_ptr<Pending>> batch;
  struct pollfd fds[2] = {{fan_fd_, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
  while (!stopping_.load()) {
    // What the watchdog read while this thread was held up is older than
    // anything still in the kernel: it goes first.
    {
      std::lock_guard<std::mutex> lock(queue_mu_);
      batch.assign(queue_.begin(), queue_.end());
      queue_.clear();
    }
    if (batch.empty()) {
      const int ready = poll(fds, 2, 200);
      if (ready < 0 && errno != EINTR) {
        Log(LOG_ERR, std::string("poll: ") + std::strerror(errno));
        break;
      }
      if (ready <= 0)
        continue;
      if (fds[1].revents & POLLIN) {
        std::uint64_t count;
        if (read(wake_fd_, &count, sizeof count) < 0) {
          // Nothing to reset: another read got there first.
        }
      }
      if (fds[0].revents & POLLIN)
        ReadAvailable(&batch);
    }
    for (const auto &p : batch)
      Handle(p);
    batch.clear();
  }
}

void Enforcer::ReadAvailable(std::vector<std::shared_ptr<Pending>> *out) {
  alignas(struct fanotify_event_metadata) char buffer[64 * 1024];
  for (;;) {
    const ssize_t got = read(fan_fd_, buffer, sizeof buffer);
    if (got <= 0)
      return;
    auto *meta = reinterpret_cast<struct fanotify_event_metadata *>(buffer);
    ssize_t left = got;
    const auto now = std::chrono::steady_clock::now();
    for (; FAN_EVENT_OK(meta, left); meta = FAN_EVENT_NEXT(meta, left)) {
      if (meta->vers != FANOTIFY_METADATA_VERSION) {
        Log(LOG_CRIT, "fanotify metadata version mismatch");
        continue;
      }
      if (meta->mask & FAN_Q_OVERFLOW)
        overflows_.fetch_add(1);
      if (meta->fd < 0)
        continue;
      if (!(meta->mask & kPermMask)) {
        close(meta->fd);
        continue;
      }
      events_.fetch_add(1);
      auto p = std::make_shared<Pending>();
      p->fd = meta->fd;
      p->pid = meta->pid;
      p->mask = meta->mask;
      p->received = now;
      // The engine's own opens (its set, its journal, name lookups) are
      // allowed here, so no thread of the engine ever waits on itself.
      if (meta->pid == self_) {
        own_.fetch_add(1);
        Answer(*p, true);
        Release(*p);
        continue;
      }
      {
        std::lock_guard<std::mutex> lock(inflight_mu_);
        inflight_.emplace(p.get(), p);
      }
      out->push_back(std::move(p));
    }
  }
}

void Enforcer::Handle(const std::shared_ptr<Pending> &p) {
  busy_since_.store(
      std::chrono::steady_clock::now().time_since_epoch().count());
  if (!options_.stall_file.empty()) {
    struct stat st;
    while (!stopping_.load() && stat(options_.stall_file.c_str(), &st) == 0) {
      usleep(5000);
    }
  }
  // The watchdog may have answered it while it waited.
  if (!p->answered.load())
    Process(p);
  busy_since_.store(0);
  {
    std::lock_guard<std::mutex> lock(inflight_mu_);
    inflight_.erase(p.get());
  }
  Release(*p);
}

void Enforcer::WatchdogLoop() {
  const auto tick =
      std::max(std::chrono::milliseconds(1), options_.deadline / 10);
  while (!stopping_.load()) {
    std::this_thread::sleep_for(tick);
    const auto now = std::chrono::steady_clock::now();
    const Control control = Control::FromParameter(environment_.load());
    const bool allow = !(control.enabled && control.hard && options_.fail_deny);
    std::vector<std::shared_ptr<Pending>> late;
    {
      std::lock_guard<std::mutex> lock(inflight_mu_);
      for (auto &entry : inflight_) {
        if (!entry.second->answered.load() &&
            now - entry.second->received >= options_.deadline) {
          late.push_back(entry.second);
        }
      }
    }
    for (auto &p : late) {
      if (Answer(*p, allow)) {
        timeouts_.fetch_add(1);
        RecordLatency(Micros(std::chrono::steady_clock::now() - p->received),
                      0);
      }
    }
    if (!late.empty()) {
      Log(LOG_WARNING, std::to_string(late.size()) +
                           " events answered after the deadline (" +
                           (allow ? "allowed" : "denied") + ")");
    }
    // The event thread is held up in one decision: read in its place, so
    // the engine's own opens are answered and the others are known to the
    // deadline above.
    const std::int64_t since = busy_since_.load();
    if (since != 0 &&
        now.time_since_epoch().count() - since >=
            std::chrono::steady_clock::duration(tick).count()) {
      std::vector<std::shared_ptr<Pending>> taken;
      ReadAvailable(&taken);
      if (!taken.empty()) {
        taken_over_.fetch_add(taken.size());
        {
          std::lock_guard<std::mutex> lock(queue_mu_);
          queue_.insert(queue_.end(), taken.begin(), taken.end());
        }
        const std::uint64_t one = 1;
        if (write(wake_fd_, &one, sizeof one) < 0) {
          // The event thread polls with a timeout; it finds the queue then.
        }
      }
    }
  }
}

void Enforcer::AddIgnoreMark(int fd, const struct stat &seen,
                             std::uint64_t generation) {
  std::lock_guard<std::mutex> lock(marks_mu_);
  if (generation != marks_generation_.load())
    return;
  // Without FAN_MARK_IGNORED_SURV_MODIFY: a write drops the mark, so a
  // file rewritten into a library is looked at again. Evictable: a mark
  // does not pin its inode, so marking every file a busy machine opens
  // cannot fill the memory; an evicted mark costs one more event.
  unsigned flags = FAN_MARK_ADD | FAN_MARK_IGNORED_MASK;
  if (evictable_marks_)
    flags |= FAN_MARK_EVICTABLE;
  int rc = fanotify_mark(fan_fd_, flags, FAN_OPEN_PERM, fd, nullptr);
  if (rc != 0 && errno == EINVAL && evictable_marks_) {
    evictable_marks_ = false;
    Log(LOG_INFO, "the kernel has no evictable marks; ignore marks pin "
                  "their inodes until the next set");
    rc = fanotify_mark(fan_fd_, flags & ~FAN_MARK_EVICTABLE, FAN_OPEN_PERM,
                       fd, nullptr);
  }
  if (rc != 0)
    return;
  // A write between the decision's look at the file and the mark dropped
  // no mark (there was none yet): the change time tells. A write after
  // the mark drops it in the kernel.
  struct stat now;
  if (fstat(fd, &now) != 0 || now.st_ctim.tv_sec != seen.st_ctim.tv_sec ||
      now.st_ctim.tv_nsec != seen.st_ctim.tv_nsec ||
      now.st_size != seen.st_size) {
    fanotify_mark(fan_fd_, FAN_MARK_REMOVE | FAN_MARK_IGNORED_MASK,
                  FAN_OPEN_PERM, fd, nullptr);
    return;
  }
  ignore_marks_.fetch_add(1);
}

bool Enforcer::IsSharedObjectCached(int fd, const struct stat &st) {
  const ElfKey key{static_cast<std::uint64_t>(st.st_dev),
                   static_cast<std::uint64_t>(st.st_ino),
                   static_cast<std::int64_t>(st.st_ctim.tv_sec) * 1000000000 +
                       st.st_ctim.tv_nsec};
  auto found = elf_cache_.find(key);
  if (found != elf_cache_.end())
    return found->second;
  if (elf_cache_.size() > 200000)
    elf_cache_.clear();
  const bool shared = IsElfSharedObject(fd);
  elf_cache_.emplace(key, shared);
  return shared;
}

bool Enforcer::DigestCached(int fd, const struct stat &st, Digest *digest) {
  const ElfKey key{static_cast<std::uint64_t>(st.st_dev),
                   static_cast<std::uint64_t>(st.st_ino),
                   static_cast<std::int64_t>(st.st_ctim.tv_sec) * 1000000000 +
                       st.st_ctim.tv_nsec};
  auto found = digest_cache_.find(key);
  if (found != digest_cache_.end()) {
    *digest = found->second;
    return true;
  }
  if (!DigestOfFd(fd, digest))
    return false;
  if (digest_cache_.size() > 100000)
    digest_cache_.clear();
  digest_cache_.emplace(key, *digest);
  return true;
}

void Enforcer::Process(const std::shared_ptr<Pending> &p) {
  const Control control = Control::FromParameter(environment_.load());
  if (!control.enabled) {
    // Nothing is controlled: no file, no process is looked at.
    if (Answer(*p, true))
      decided_.fetch_add(1);
    RecordLatency(Micros(std::chrono::steady_clock::now() - p->received), 0);
    return;
  }
  struct stat st;
  if (fstat(p->fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    if (Answer(*p, true))
      decided_.fetch_add(1);
    return;
  }
  Event event;
  event.file = FileId{static_cast<std::uint64_t>(st.st_dev),
                      static_cast<std::uint64_t>(st.st_ino)};
  event.access = (p->mask & FAN_OPEN_EXEC_PERM) ? Access::kExec : Access::kOpen;
  char link[64];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", p->fd);
  char path[PATH_MAX];
  const ssize_t n = readlink(link, path, sizeof path - 1);
  if (n > 0)
    event.path.assign(path, static_cast<size_t>(n));
  // Read before the tables: a flush after this point makes the generation
  // differ, whichever tables this decision then got.
  const std::uint64_t generation = marks_generation_.load();
  const std::shared_ptr<const Tables> tables = tables_->Get();
  if (event.access == Access::kOpen) {
    event.is_shared_object = IsSharedObjectCached(p->fd, st);
  }
  tables->Verify(event.file, event.path, StatResolver);
  // Most opens are of files no rule controls, decided the same for every
  // process; reading who opens (a /proc read, the largest part of a
  // decision) is left to the opens and starts that depend on it.
  const bool controlled = event.access == Access::kExec ||
                          event.is_shared_object ||
                          tables->IsExtendedResource(event.file);
  ProcessIdentity who;
  if (!controlled) {
    event.uid = 0xFFFFFFFFu;
  } else if (ReadProcessIdentity(p->pid, &who)) {
    event.uid = who.uid;
    event.gids = std::move(who.gids);
  } else {
    // The process is gone or unreadable: an identity no rule names.
    event.uid = 0xFFFFFFFFu;
  }
  if (tables->integrity() && tables->RulesOf(event.file) != nullptr) {
    const Digest *recorded = tables->RecordedDigest(event.file);
    Digest now;
    event.content_changed = recorded == nullptr ||
                            !DigestCached(p->fd, st, &now) || now != *recorded;
  }
  const auto decide_start = std::chrono::steady_clock::now();
  const Decision d = Decide(event, *tables, control);
  const auto decide_end = std::chrono::steady_clock::now();
  const bool allow = d.verdict == Verdict::kAllow;
  const bool journalled = options_.journal && d.Journalled(audit_mask_.load());
  // The program of an opening process is read while the process still
  // waits for the answer: once answered it may be gone at once (a refused
  // load ends many a program), and a row without its program can be
  // neither learnt from nor replayed.
  std::string opener;
  if (journalled && event.access == Access::kOpen)
    opener = ProcessProgram(p->pid);
  if (Answer(*p, allow))
    decided_.fetch_add(1);
  const auto answered = std::chrono::steady_clock::now();
  RecordLatency(Micros(answered - p->received),
                Micros(decide_end - decide_start));
  if (d.rules_deny)
    rules_denied_.fetch_add(1);

  if (d.cacheable_open && options_.ignore_marks &&
      event.access == Access::kOpen) {
    AddIgnoreMark(p->fd, st, generation);
  }
  if (journalled) {
    JournalEvent row;
    row.date_time = static_cast<std::int64_t>(std::time(nullptr));
    row.event_id = d.audit_event;
    row.success = d.success;
    // The program that starts is the event's file; for an open it is the
    // program of the process.
    row.app = event.access == Access::kExec ? event.path : opener;
    row.object_name = event.path;
    // Names are looked up by the journal writer: a lookup opens files,
    // and this thread must never wait for an open of its own.
    row.uid = event.uid;
    if (!event.gids.empty())
      row.gid = event.gids.front();
    options_.journal(std::move(row));
  }
}

void Enforcer::RecordLatency(double total_us, double decide_us) {
  std::lock_guard<std::mutex> lock(latency_mu_);
  if (latency_us_.size() < kLatencyRing) {
    latency_us_.push_back(static_cast<float>(total_us));
    decide_us_.push_back(static_cast<float>(decide_us));
  } else {
    latency_us_[latency_next_] = static_cast<float>(total_us);
    decide_us_[latency_next_] = static_cast<float>(decide_us);
    latency_next_ = (latency_next_ + 1) % kLatencyRing;
  }
}

void Enforcer::FlushIgnoreMarks() {
  if (fan_fd_ < 0)
    return;
  std::lock_guard<std::mutex> lock(marks_mu_);
  marks_generation_.fetch_add(1);
  // Ignore marks are the only inode marks of the group; the watch marks are
  // file system and mount marks and stay.
  if (fanotify_mark(fan_fd_, FAN_MARK_FLUSH, 0, AT_FDCWD, nullptr) != 0) {
    Log(LOG_ERR,
        std::string("cannot flush the ignore marks: ") + std::strerror(errno));
    return;
  }
  ignore_marks_.store(0);
}

EnforcerStats Enforcer::GetStats() const {
  EnforcerStats s;
  s.events = events_.load();
  s.decided = decided_.load();
  s.denied = denied_.load();
  s.rules_denied = rules_denied_.load();
  s.timeouts = timeouts_.load();
  s.own = own_.load();
  s.overflows = overflows_.load();
  s.ignore_marks = ignore_marks_.load();
  s.taken_over = taken_over_.load();
  {
    std::lock_guard<std::mutex> lock(inflight_mu_);
    s.queue_depth = inflight_.size();
  }
  std::lock_guard<std::mutex> lock(latency_mu_);
  s.p50_us = Percentile(latency_us_, 0.50);
  s.p99_us = Percentile(latency_us_, 0.99);
  s.decide_p50_us = Percentile(decide_us_, 0.50);
  s.decide_p99_us = Percentile(decide_us_, 0.99);
  return s;
}

} // namespace aec::engine
