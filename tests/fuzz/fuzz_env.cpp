#include "fuzz_env.h"

#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "lib/fresh_install.h"
#include "lib/runtime.h"
#include "lib/sandbox.h"

namespace kxfuzz {
namespace {

constexpr const char* kRoot = "/opt/korvex";
constexpr const char* kNssMarker = "KX_FUZZ_NSS_DIR";

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "kxfuzz: %s: %s\n", what.c_str(), std::strerror(errno));
  std::abort();
}

std::string ReadWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in),
                     std::istreambuf_iterator<char>());
}

void CopyExecutable(const std::string& from, const std::string& to) {
  WriteFile(to, ReadWhole(from));
  if (chmod(to.c_str(), 0755) != 0) Die("chmod " + to);
}

bool SameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

void RemoveTree(const std::string& path) {
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) return;
  if (S_ISDIR(info.st_mode)) {
    if (DIR* dir = opendir(path.c_str())) {
      while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        RemoveTree(path + "/" + name);
      }
      closedir(dir);
    }
    rmdir(path.c_str());
  } else {
    unlink(path.c_str());
  }
}

// Every path below `root` (depth first, parents before children).
void Walk(const std::string& root, std::vector<std::string>* paths) {
  DIR* dir = opendir(root.c_str());
  if (dir == nullptr) return;
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    const std::string path = root + "/" + name;
    paths->push_back(path);
    struct stat info;
    if (lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
      Walk(path, paths);
    }
  }
  closedir(dir);
}

}  // namespace

void Violation(const char* file, int line, const std::string& what) {
  std::fprintf(stderr, "kxfuzz: property violated at %s:%d: %s\n", file, line,
               what.c_str());
  std::abort();
}

void WriteFile(const std::string& path, const std::string& content) {
  const int fd =
      open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) Die("open " + path);
  std::size_t done = 0;
  while (done < content.size()) {
    const ssize_t n = write(fd, content.data() + done, content.size() - done);
    if (n < 0) Die("write " + path);
    done += static_cast<std::size_t>(n);
  }
  close(fd);
}

void EnterFuzzSandbox() {
  char pattern[] = "/tmp/kxfuzz-XXXXXX";
  if (mkdtemp(pattern) == nullptr) Die("mkdtemp");
  try {
    kxhost::EnterSandbox(pattern);
  } catch (const std::runtime_error& e) {
    std::fprintf(stderr, "kxfuzz: %s\n", e.what());
    std::abort();
  }
  // The bind of the empty directory only gave the mount point; a tmpfs on
  // top keeps every write of the fuzzer in memory (no flush reaches a disk)
  // and the directory can go at once.
  if (mount("kxfuzz", kRoot, "tmpfs", 0, "size=256m,mode=0755") != 0) {
    Die("tmpfs at /opt/korvex");
  }
  rmdir(pattern);
  try {
    kxhost::MakeRootLayout(kRoot);
    kxhost::SeedFreshInstall(kRoot);
  } catch (const std::runtime_error& e) {
    std::fprintf(stderr, "kxfuzz: %s\n", e.what());
    std::abort();
  }
  CopyExecutable(KX_FUZZ_TOOL_PATH, std::string(kRoot) + "/bin/kxaecctl");
  CopyExecutable(KX_FUZZ_TOOL_PATH, std::string(kRoot) + "/bin/kxaide");
  SetToolAnswer(0, "");

  kxhost::RuntimeOptions options;
  options.sysctl_root = std::string(kRoot) + "/var/run/sysctl";
  options.events_file = "";
  options.mirror_to_stderr = false;
  kxhost::Configure(options);
  kxhost::ResetState();
}

void SetToolAnswer(int exit_code, const std::string& output) {
  for (const char* tool : {"kxaecctl", "kxaide"}) {
    const std::string base = std::string(kRoot) + "/bin/" + tool;
    WriteFile(base + ".code", std::to_string(exit_code) + "\n");
    WriteFile(base + ".out", output);
  }
}

void MakeJournal() {
  const std::string path = std::string(kRoot) + "/var/log/audit_logs.db";
  sqlite3* db = nullptr;
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) Die("open " + path);
  const char* sql =
      "CREATE TABLE logs (id INTEGER PRIMARY KEY, event_id INTEGER NOT NULL,"
      " date_time INTEGER, app TEXT, object_name TEXT, username TEXT,"
      " groupname TEXT, success INTEGER);"
      "INSERT INTO logs VALUES (1, 1050, 1795256130, '/usr/bin/make',"
      " '\"/usr/bin/make\";', 'alice', 'devs', 0);"
      "INSERT INTO logs VALUES (2, 1052, 1795256131, '/usr/bin/make',"
      " '\"/lib/libc.so.6\";', 'alice', 'devs', 1);"
      "INSERT INTO logs VALUES (3, 1054, 1795256132, '/usr/bin/ssh',"
      " '\"/etc/ssh/ssh_config\";', 'bob', 'ops', 0);"
      "INSERT INTO logs VALUES (4, 1055, 1795256133, NULL, NULL, 'o''brien',"
      " NULL, 0);";
  char* error = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
    std::fprintf(stderr, "kxfuzz: journal: %s\n", error ? error : "?");
    std::abort();
  }
  sqlite3_close(db);
}

void ReexecWithNssWrapper() {
  if (const char* dir = std::getenv(kNssMarker)) {
    // The wrapped process: the files are read once nss_wrapper opens them,
    // and nobody else needs them.
    static const std::string kept = dir;
    std::atexit([] {
      unlink((kept + "/passwd").c_str());
      unlink((kept + "/group").c_str());
      rmdir(kept.c_str());
    });
    return;
  }
  const std::string library = KX_NSS_WRAPPER_LIB;
  if (library.empty()) {
    errno = ENOENT;
    Die("nss_wrapper is not installed");
  }
  char pattern[] = "/tmp/kxfuzz-nss-XXXXXX";
  if (mkdtemp(pattern) == nullptr) Die("mkdtemp");
  const std::string dir = pattern;
  // The fake directory's domain is corp.example: its accounts exist locally
  // as "name@corp" or "corp\name" (see fake_directory.cpp).
  WriteFile(dir + "/passwd",
            "root:x:0:0:root:/root:/bin/sh\n"
            "alice@corp:x:1001:1001::/:/bin/sh\n"
            "corp\\bob:x:1002:1002::/:/bin/sh\n"
            "dave@corp:x:1004:1004::/:/bin/sh\n"
            "corp\\dave:x:1005:1004::/:/bin/sh\n");
  WriteFile(dir + "/group",
            "root:x:0:\n"
            "devs@corp:x:2001:alice@corp\n"
            "corp\\ops:x:2002:corp\\bob\n");
  setenv(kNssMarker, dir.c_str(), 1);
  setenv("NSS_WRAPPER_PASSWD", (dir + "/passwd").c_str(), 1);
  setenv("NSS_WRAPPER_GROUP", (dir + "/group").c_str(), 1);
  // The sanitizer runtime can neither come after a preloaded library nor
  // serve a libc opened with RTLD_DEEPBIND.
  setenv("NSS_WRAPPER_DISABLE_DEEPBIND", "1", 1);
  std::string asan =
      std::getenv("ASAN_OPTIONS") ? std::getenv("ASAN_OPTIONS") : "";
  asan += (asan.empty() ? "" : ":") + std::string("verify_asan_link_order=0");
  setenv("ASAN_OPTIONS", asan.c_str(), 1);
  setenv("LD_PRELOAD", library.c_str(), 1);

  std::ifstream in("/proc/self/cmdline", std::ios::binary);
  const std::string all((std::istreambuf_iterator<char>(in)),
                        std::istreambuf_iterator<char>());
  std::vector<std::string> args;
  std::string::size_type start = 0;
  while (start < all.size()) {
    const auto end = all.find('\0', start);
    args.push_back(all.substr(start, end - start));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  argv.push_back(nullptr);
  execv("/proc/self/exe", argv.data());
  Die("re-executing with nss_wrapper");
}

Baseline::Baseline(std::vector<std::string> roots) : roots_(std::move(roots)) {
  for (const std::string& root : roots_) {
    std::vector<std::string> paths;
    Walk(root, &paths);
    for (const std::string& path : paths) Record(path);
  }
}

void Baseline::Record(const std::string& path) {
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) return;
  Entry entry;
  entry.directory = S_ISDIR(info.st_mode);
  entry.mode = info.st_mode & 07777;
  entry.mtime = info.st_mtim;
  entry.size = info.st_size;
  if (!entry.directory) entry.content = ReadWhole(path);
  entries_[path] = entry;
}

bool Baseline::Restore(const std::function<void()>& before_change) {
  bool changed = false;
  auto change = [&] {
    if (!changed && before_change) before_change();
    changed = true;
  };
  std::vector<std::string> present;
  for (const std::string& root : roots_) Walk(root, &present);
  for (const std::string& path : present) {
    const auto found = entries_.find(path);
    struct stat info;
    if (lstat(path.c_str(), &info) != 0) continue;  // gone with its parent
    if (found == entries_.end() ||
        found->second.directory != S_ISDIR(info.st_mode)) {
      change();
      RemoveTree(path);
      continue;
    }
    Entry& entry = found->second;
    if (entry.directory) continue;
    if (info.st_size == entry.size && SameTime(info.st_mtim, entry.mtime) &&
        (info.st_mode & 07777) == entry.mode) {
      continue;
    }
    if (static_cast<std::size_t>(info.st_size) != entry.content.size() ||
        ReadWhole(path) != entry.content ||
        (info.st_mode & 07777) != entry.mode) {
      change();
      WriteFile(path, entry.content);
      chmod(path.c_str(), entry.mode);
    }
    struct stat now;
    if (lstat(path.c_str(), &now) == 0) {
      entry.mtime = now.st_mtim;
      entry.size = now.st_size;
    }
  }
  // What went missing (parents come before children in the map's order).
  for (auto& item : entries_) {
    struct stat info;
    if (lstat(item.first.c_str(), &info) == 0) continue;
    change();
    if (item.second.directory) {
      mkdir(item.first.c_str(), item.second.mode);
    } else {
      WriteFile(item.first, item.second.content);
      chmod(item.first.c_str(), item.second.mode);
      lstat(item.first.c_str(), &info);
      item.second.mtime = info.st_mtim;
      item.second.size = info.st_size;
    }
  }
  return changed;
}

}  // namespace kxfuzz
