#include "child_process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace aectool {
namespace {

[[noreturn]] void Fail(const std::string& what, int error) {
  throw std::system_error(error, std::generic_category(), what);
}

void CloseFd(int* fd) {
  if (*fd >= 0) ::close(*fd);
  *fd = -1;
}

}  // namespace

ChildResult RunProgram(const std::vector<std::string>& argv) {
  // Built before fork: the child may not allocate.
  std::vector<std::string> words = argv;
  std::vector<char*> pointers;
  for (auto& word : words) pointers.push_back(&word[0]);
  pointers.push_back(nullptr);

  int out[2], report[2];
  if (::pipe2(out, O_CLOEXEC) != 0) Fail("pipe", errno);
  if (::pipe2(report, O_CLOEXEC) != 0) {
    const int saved = errno;
    CloseFd(&out[0]);
    CloseFd(&out[1]);
    Fail("pipe", saved);
  }
  const pid_t pid = ::fork();
  if (pid < 0) {
    const int saved = errno;
    for (int* fd : {&out[0], &out[1], &report[0], &report[1]}) CloseFd(fd);
    Fail("fork", saved);
  }
  if (pid == 0) {
    int failure = 0;
    const int null = ::open("/dev/null", O_RDONLY);
    if (null < 0 || ::dup2(null, STDIN_FILENO) < 0 ||
        ::dup2(out[1], STDOUT_FILENO) < 0) {
      failure = errno;
    } else {
      ::execv(pointers[0], pointers.data());
      failure = errno;
    }
    // The report pipe closes on exec: the parent reads this number only
    // when exec failed.
    ssize_t ignored = ::write(report[1], &failure, sizeof failure);
    (void)ignored;
    ::_exit(127);
  }
  CloseFd(&out[1]);
  CloseFd(&report[1]);
  int exec_failure = 0;
  ssize_t got;
  do {
    got = ::read(report[0], &exec_failure, sizeof exec_failure);
  } while (got < 0 && errno == EINTR);
  CloseFd(&report[0]);

  ChildResult result;
  std::string pending;
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(out[0], buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    pending.append(buffer, static_cast<std::size_t>(n));
    for (std::size_t newline;
         (newline = pending.find('\n')) != std::string::npos;) {
      result.lines.push_back(pending.substr(0, newline));
      pending.erase(0, newline + 1);
    }
  }
  if (!pending.empty()) result.lines.push_back(pending);
  CloseFd(&out[0]);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) Fail("wait for " + argv[0], errno);
  }
  if (got == static_cast<ssize_t>(sizeof exec_failure)) {
    Fail("cannot run " + argv[0], exec_failure);
  }
  result.exit_code =
      WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace aectool
