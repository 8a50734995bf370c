// libkxfault.so: an LD_PRELOAD shim that makes one chosen file-system call
// fail, so that tests can watch a program's write paths meet a full disk or
// an I/O error at every single step.
//
// Environment (read once, at load):
//   KXFAULT_PREFIXES  ':'-separated path prefixes, as the process sees paths
//                     (inside its mount namespace)
//   KXFAULT_NTH       1-based number of the matching call to fail; 0 or
//                     unset: fail nothing, only count
//   KXFAULT_ERRNO     the errno of the failure (28 ENOSPC, 5 EIO, ...)
//   KXFAULT_REPORT    a file the shim appends to: "call <n> <call> <path>"
//                     for every matching call, "failed <n> <call> <path>"
//                     when it fails one, "calls <count>" at exit
//
// Matching calls: write, pwrite, pwrite64, writev, close, fsync, fdatasync
// and syncfs by the path of their descriptor, rename/renameat/renameat2 by
// either path. A path matches when it starts with a prefix; a directory
// also matches when a prefix lies inside it, so flushing the directory of a
// watched file counts as a step of writing it. A failed close still closes
// the descriptor, as close(2) does.
//
// The shim takes itself and its variables out of the environment at load:
// the programs the process starts (the agent tools) run without it.
#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <initializer_list>

namespace {

constexpr int kMaxPrefixes = 16;
constexpr int kPathMax = 4096;

char g_prefix_text[kPathMax];
const char* g_prefixes[kMaxPrefixes];
int g_prefix_count = 0;
long g_nth = 0;
int g_errno = EIO;
char g_report[kPathMax];
std::atomic<long> g_calls{0};

template <class F>
F Next(const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

bool StartsWith(const char* text, const char* prefix) {
  return strncmp(text, prefix, strlen(prefix)) == 0;
}

bool Matches(const char* path) {
  if (path == nullptr || *path == '\0') return false;
  for (int i = 0; i < g_prefix_count; ++i) {
    if (StartsWith(path, g_prefixes[i])) return true;
    // A directory holding a watched file: the prefix is "<path>/...".
    const size_t length = strlen(path);
    if (strncmp(g_prefixes[i], path, length) == 0 &&
        (g_prefixes[i][length] == '/' ||
         (length > 0 && path[length - 1] == '/'))) {
      return true;
    }
  }
  return false;
}

bool DescriptorPath(int fd, char* out, size_t size) {
  char link[64];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  using Readlink = ssize_t (*)(const char*, char*, size_t);
  static const Readlink real = Next<Readlink>("readlink");
  const ssize_t n = real(link, out, size - 1);
  if (n <= 0) return false;
  out[n] = '\0';
  return true;
}

void Report(const char* text) {
  if (g_report[0] == '\0') return;
  const int fd =
      open(g_report, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  using Write = ssize_t (*)(int, const void*, size_t);
  static const Write real = Next<Write>("write");
  real(fd, text, strlen(text));
  using Close = int (*)(int);
  static const Close real_close = Next<Close>("close");
  real_close(fd);
}

// Counts a matching call; true when this one is to fail (errno set).
bool Fault(const char* call, const char* path) {
  if (g_prefix_count == 0 || !Matches(path)) return false;
  const long n = ++g_calls;
  const bool fail = g_nth != 0 && n == g_nth;
  char line[kPathMax + 64];
  snprintf(line, sizeof line, "%s %ld %s %s\n", fail ? "failed" : "call", n,
           call, path);
  Report(line);
  if (!fail) return false;
  errno = g_errno;
  return true;
}

bool FaultFd(const char* call, int fd) {
  if (g_prefix_count == 0) return false;
  char path[kPathMax];
  return DescriptorPath(fd, path, sizeof path) && Fault(call, path);
}

// Removes `name` and, from LD_PRELOAD, the entry naming this library.
void Scrub() {
  for (const char* name :
       {"KXFAULT_PREFIXES", "KXFAULT_NTH", "KXFAULT_ERRNO", "KXFAULT_REPORT"}) {
    unsetenv(name);
  }
  const char* preload = getenv("LD_PRELOAD");
  if (preload == nullptr) return;
  char kept[kPathMax] = "";
  char copy[kPathMax];
  snprintf(copy, sizeof copy, "%s", preload);
  char* save = nullptr;
  for (char* item = strtok_r(copy, ": ", &save); item != nullptr;
       item = strtok_r(nullptr, ": ", &save)) {
    if (strstr(item, "libkxfault") != nullptr) continue;
    if (kept[0] != '\0') strncat(kept, ":", sizeof kept - strlen(kept) - 1);
    strncat(kept, item, sizeof kept - strlen(kept) - 1);
  }
  if (kept[0] == '\0') {
    unsetenv("LD_PRELOAD");
  } else {
    setenv("LD_PRELOAD", kept, 1);
  }
}

__attribute__((constructor)) void Load() {
  if (const char* text = getenv("KXFAULT_PREFIXES")) {
    snprintf(g_prefix_text, sizeof g_prefix_text, "%s", text);
    char* save = nullptr;
    for (char* item = strtok_r(g_prefix_text, ":", &save);
         item != nullptr && g_prefix_count < kMaxPrefixes;
         item = strtok_r(nullptr, ":", &save)) {
      g_prefixes[g_prefix_count++] = item;
    }
  }
  if (const char* text = getenv("KXFAULT_NTH")) g_nth = atol(text);
  if (const char* text = getenv("KXFAULT_ERRNO")) g_errno = atoi(text);
  if (const char* text = getenv("KXFAULT_REPORT")) {
    snprintf(g_report, sizeof g_report, "%s", text);
  }
  Scrub();
}

__attribute__((destructor)) void Unload() {
  char line[64];
  snprintf(line, sizeof line, "calls %ld\n", g_calls.load());
  Report(line);
}

}  // namespace

extern "C" {

ssize_t write(int fd, const void* data, size_t size) {
  static const auto real = Next<ssize_t (*)(int, const void*, size_t)>("write");
  if (FaultFd("write", fd)) return -1;
  return real(fd, data, size);
}

ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) {
  static const auto real =
      Next<ssize_t (*)(int, const void*, size_t, off_t)>("pwrite");
  if (FaultFd("pwrite", fd)) return -1;
  return real(fd, data, size, offset);
}

ssize_t pwrite64(int fd, const void* data, size_t size, off64_t offset) {
  static const auto real =
      Next<ssize_t (*)(int, const void*, size_t, off64_t)>("pwrite64");
  if (FaultFd("pwrite64", fd)) return -1;
  return real(fd, data, size, offset);
}

ssize_t writev(int fd, const struct iovec* vector, int count) {
  static const auto real =
      Next<ssize_t (*)(int, const struct iovec*, int)>("writev");
  if (FaultFd("writev", fd)) return -1;
  return real(fd, vector, count);
}

int close(int fd) {
  static const auto real = Next<int (*)(int)>("close");
  if (FaultFd("close", fd)) {
    const int saved = errno;
    real(fd);
    errno = saved;
    return -1;
  }
  return real(fd);
}

int fsync(int fd) {
  static const auto real = Next<int (*)(int)>("fsync");
  if (FaultFd("fsync", fd)) return -1;
  return real(fd);
}

int fdatasync(int fd) {
  static const auto real = Next<int (*)(int)>("fdatasync");
  if (FaultFd("fdatasync", fd)) return -1;
  return real(fd);
}

int syncfs(int fd) {
  static const auto real = Next<int (*)(int)>("syncfs");
  if (FaultFd("syncfs", fd)) return -1;
  return real(fd);
}

int rename(const char* from, const char* to) {
  static const auto real = Next<int (*)(const char*, const char*)>("rename");
  if (g_prefix_count > 0 && (Matches(from) || Matches(to)) &&
      Fault("rename", Matches(from) ? from : to)) {
    return -1;
  }
  return real(from, to);
}

int renameat(int from_dir, const char* from, int to_dir, const char* to) {
  static const auto real =
      Next<int (*)(int, const char*, int, const char*)>("renameat");
  if (g_prefix_count > 0 && (Matches(from) || Matches(to)) &&
      Fault("renameat", Matches(from) ? from : to)) {
    return -1;
  }
  return real(from_dir, from, to_dir, to);
}

int renameat2(int from_dir, const char* from, int to_dir, const char* to,
              unsigned flags) {
  static const auto real =
      Next<int (*)(int, const char*, int, const char*, unsigned)>("renameat2");
  if (g_prefix_count > 0 && (Matches(from) || Matches(to)) &&
      Fault("renameat2", Matches(from) ? from : to)) {
    return -1;
  }
  return real(from_dir, from, to_dir, to, flags);
}

}  // extern "C"
