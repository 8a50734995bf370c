#include "host/sysctl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "host/log.h"
#include "runtime.h"

namespace {

constexpr const char* kLogFile = "sysctl";
constexpr const char* kProcRoot = "/proc/sys";
// An installed system has no kernel module behind /proc/sys/korvex: the
// parameters then live as files here, where the enforcing component kxaecd
// reads and watches them.
constexpr const char* kInstalledRoot = "/opt/korvex/var/run/sysctl";

// A parameter name is a relative path below the root; ".." or an absolute
// name would write elsewhere.
bool IsSafeName(const std::string& name) {
  if (name.empty() || name[0] == '/') return false;
  std::size_t start = 0;
  while (start <= name.size()) {
    const std::size_t end = name.find('/', start);
    const std::string part =
        name.substr(start, end == std::string::npos ? std::string::npos
                                                    : end - start);
    if (part.empty() || part == "." || part == "..") return false;
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return true;
}

bool IsProcRoot(const std::string& root) {
  return root == kProcRoot || root.compare(0, 6, "/proc/") == 0;
}

// Under a sandboxed root the parameters are plain files; their directories
// are made the first time a parameter is written.
bool MakeParents(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string dir = path.substr(0, slash);
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return true;
}

// Reads the file at `path`: whole, or stops once it has more than `limit`
// bytes. False when it cannot be opened.
bool ReadValueFile(const std::string& path, std::size_t limit,
                   std::string* text) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buffer[256];
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    text->append(buffer, static_cast<std::size_t>(got));
    if (text->size() > limit) break;
  }
  close(fd);
  return true;
}

// True when the file at `path` holds exactly `value`, byte for byte.
bool FileHolds(const std::string& path, const std::string& value) {
  std::string text;
  return ReadValueFile(path, value.size(), &text) && text == value;
}

// The configured root, unless it is the kernel's and the kernel has no
// korvex parameters.
std::string EffectiveRoot() {
  const std::string root = kxhost::Options().sysctl_root;
  if (root != kProcRoot) return root;
  struct stat st;
  if (stat("/proc/sys/korvex", &st) == 0) return root;
  return kInstalledRoot;
}

}  // namespace

namespace sysctl {

bool set(const std::string& name, const std::string& value) {
  if (!IsSafeName(name)) {
    log_message(kLogFile, __LINE__, 3, 24, "kxhost",
                "sysctl: refusing parameter name '%s'", name.c_str());
    return false;
  }
  const std::string root = EffectiveRoot();
  const std::string path = root + "/" + name;
  const bool proc = IsProcRoot(root);
  if (!proc && !MakeParents(path)) {
    log_message(kLogFile, __LINE__, 3, 24, "kxhost",
                "sysctl: cannot make the directories of %s: %s", path.c_str(),
                std::strerror(errno));
    return false;
  }
  // Every host start sets the parameters again, mostly to what they hold.
  // Rewriting a file costs a truncation that the file system flushes to
  // disk on close and wakes kxaecd for nothing; a value that is already
  // there is left alone.
  if (!proc && FileHolds(path, value)) {
    log_message(kLogFile, __LINE__, 7, 24, "kxhost", "sysctl: %s = %s (kept)",
                name.c_str(), value.c_str());
    return true;
  }
  const int flags = proc ? O_WRONLY | O_CLOEXEC
                         : O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  const int fd = open(path.c_str(), flags, 0644);
  if (fd < 0) {
    log_message(kLogFile, __LINE__, 3, 24, "kxhost", "sysctl: cannot open %s: %s",
                path.c_str(), std::strerror(errno));
    return false;
  }
  // A kernel parameter takes its value in one write.
  const ssize_t written = write(fd, value.data(), value.size());
  const int write_errno = errno;
  const bool closed = close(fd) == 0;
  if (written != static_cast<ssize_t>(value.size()) || !closed) {
    log_message(kLogFile, __LINE__, 3, 24, "kxhost",
                "sysctl: cannot write '%s' to %s: %s", value.c_str(),
                path.c_str(),
                std::strerror(written < 0 ? write_errno : EIO));
    return false;
  }
  log_message(kLogFile, __LINE__, 7, 24, "kxhost", "sysctl: %s = %s",
              name.c_str(), value.c_str());
  return true;
}

std::string get(const std::string& name) {
  if (!IsSafeName(name)) return std::string();
  std::string text;
  if (!ReadValueFile(EffectiveRoot() + "/" + name, std::string::npos, &text)) {
    return std::string();
  }
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
    text.pop_back();
  }
  return text;
}

}  // namespace sysctl
