#include "tool_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstring>

#include "tool_error.h"
#include "tool_paths.h"

namespace aectool {

namespace {

[[noreturn]] void CannotLock(int error) {
  throw ToolError(KxAecCtl::kUnknownError,
                  "cannot lock " + LockPath() + ": " + std::strerror(error));
}

}  // namespace

ToolLock::ToolLock() {
  boost::system::error_code ec;
  boost::filesystem::create_directories(LoadedSetDir(), ec);
  fd_ = ::open(LockPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
               0600);
  if (fd_ < 0) CannotLock(errno);
  while (::flock(fd_, LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    const int saved = errno;
    ::close(fd_);
    CannotLock(saved);
  }
}

ToolLock::~ToolLock() { ::close(fd_); }

}  // namespace aectool
