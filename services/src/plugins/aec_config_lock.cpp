#include "aec_config_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <system_error>

#include "aec_paths.h"

namespace aec {
namespace {

std::recursive_mutex& Guard() {
  static std::recursive_mutex guard;
  return guard;
}

int depth = 0;     // nested ConfigLocks of this process
int lock_fd = -1;  // open while depth > 0

[[noreturn]] void Fail(const char* step, int error) {
  throw std::system_error(error, std::generic_category(),
                          std::string(step) + " " + ConfigLock::Path());
}

// A descriptor handed down by the parent for this very lock file, or -1.
int InheritedDescriptor() {
  const char* text = std::getenv(kConfigLockFdVariable);
  if (text == nullptr || *text == '\0') return -1;
  char* end = nullptr;
  const long fd = std::strtol(text, &end, 10);
  if (*end != '\0' || fd < 0 || fd > 1 << 20) return -1;
  struct stat held, file;
  if (::fstat(static_cast<int>(fd), &held) != 0 ||
      ::stat(ConfigLock::Path().c_str(), &file) != 0 ||
      held.st_dev != file.st_dev || held.st_ino != file.st_ino) {
    return -1;
  }
  return static_cast<int>(fd);
}

int OpenLock() {
  const int inherited = InheritedDescriptor();
  if (inherited >= 0) {
    // A copy of the same open file: the parent's lock is ours, and closing
    // the copy never releases it.
    const int fd = ::fcntl(inherited, F_DUPFD, 3);
    if (fd < 0) Fail("cannot use the lock", errno);
    return fd;
  }
  boost::system::error_code ignored;
  boost::filesystem::create_directories(kInstallRoot + "/var/lib/aec", ignored);
  const int fd = ::open(ConfigLock::Path().c_str(),
                        O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) Fail("cannot open", errno);
  return fd;
}

}  // namespace

const char* const kConfigLockFdVariable = "KX_AEC_LOCK_FD";

const std::string& ConfigLock::Path() {
  static const std::string path = kInstallRoot + "/var/lib/aec/kxaecctl.lock";
  return path;
}

ConfigLock::ConfigLock() {
  Guard().lock();
  if (depth++ > 0) return;
  try {
    lock_fd = OpenLock();
    while (::flock(lock_fd, LOCK_EX) != 0) {
      if (errno != EINTR) Fail("cannot lock", errno);
    }
  } catch (...) {
    if (lock_fd >= 0) ::close(lock_fd);
    lock_fd = -1;
    --depth;
    Guard().unlock();
    throw;
  }
  // Handed down to the programs run while the lock is held.
  ::fcntl(lock_fd, F_SETFD, 0);
  ::setenv(kConfigLockFdVariable, std::to_string(lock_fd).c_str(), 1);
}

ConfigLock::~ConfigLock() {
  if (--depth == 0) {
    ::unsetenv(kConfigLockFdVariable);
    // Closing releases the lock unless a parent shares the open file.
    ::close(lock_fd);
    lock_fd = -1;
  }
  Guard().unlock();
}

}  // namespace aec
