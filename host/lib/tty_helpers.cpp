#include "host/tty_helpers.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "host/log.h"

namespace {

constexpr const char* kLogFile = "tty_helpers";
constexpr int kCannotStart = 127;

// Only async-signal-safe calls from here on: the host may have threads.
[[noreturn]] void RunChild(char* const* argv, bool discard_output,
                           int max_fd) {
  const int null_fd = open("/dev/null", O_RDWR);
  if (null_fd < 0) _exit(kCannotStart);
  if (dup2(null_fd, STDIN_FILENO) < 0) _exit(kCannotStart);
  if (discard_output) {
    if (dup2(null_fd, STDOUT_FILENO) < 0 || dup2(null_fd, STDERR_FILENO) < 0) {
      _exit(kCannotStart);
    }
  }
  // The child gets the three standard descriptors and nothing else of the
  // host's, whether or not whoever opened them asked for close-on-exec.
#ifdef SYS_close_range
  if (syscall(SYS_close_range, 3U, ~0U, 0U) != 0)
#endif
  {
    for (int fd = 3; fd < max_fd; ++fd) close(fd);
  }
  execv(argv[0], argv);
  _exit(kCannotStart);
}

}  // namespace

TtyHelpers::TtyHelpers(int flags) : flags_(flags) {}

int TtyHelpers::ExecCommand(const std::vector<char*>& argv) const {
  if (argv.empty() || argv[0] == nullptr) {
    log_message(kLogFile, __LINE__, 3, 24, "kxhost",
                "ExecCommand: no program given");
    return kCannotStart;
  }
  // execv needs a null-terminated vector; callers are asked to pass one, but
  // a missing terminator must not make the child read past the end.
  std::vector<char*> args(argv);
  if (args.back() != nullptr) args.push_back(nullptr);

  struct rlimit limit;
  int max_fd = 1024;
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
      limit.rlim_cur < 65536) {
    max_fd = static_cast<int>(limit.rlim_cur);
  }
  const bool discard = (flags_ & kDiscardOutput) != 0;
  const pid_t pid = fork();
  if (pid < 0) {
    log_message(kLogFile, __LINE__, 3, 24, "kxhost",
                "ExecCommand: cannot start %s: %s", args[0],
                std::strerror(errno));
    return kCannotStart;
  }
  if (pid == 0) RunChild(args.data(), discard, max_fd);

  int status = 0;
  pid_t waited;
  do {
    waited = waitpid(pid, &status, 0);
  } while (waited < 0 && errno == EINTR);
  if (waited < 0) {
    log_message(kLogFile, __LINE__, 3, 24, "kxhost",
                "ExecCommand: cannot wait for %s: %s", args[0],
                std::strerror(errno));
    return kCannotStart;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return kCannotStart;
}
