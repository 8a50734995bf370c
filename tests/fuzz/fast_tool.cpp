// The fuzzers' stand-in for an agent tool: prints <self>.out and exits with
// the code in <self>.code. Built without sanitizers or coverage and without
// recording anything, so a run costs little more than the fork and exec.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
  if (argc < 1 || argv[0] == nullptr) return 0;
  const std::string self = argv[0];
  char buffer[4096];
  int code = 0;
  const int code_fd = open((self + ".code").c_str(), O_RDONLY | O_CLOEXEC);
  if (code_fd >= 0) {
    const ssize_t n = read(code_fd, buffer, sizeof buffer - 1);
    if (n > 0) {
      buffer[n] = '\0';
      code = std::atoi(buffer);
    }
    close(code_fd);
  }
  const int out_fd = open((self + ".out").c_str(), O_RDONLY | O_CLOEXEC);
  if (out_fd >= 0) {
    ssize_t n;
    while ((n = read(out_fd, buffer, sizeof buffer)) > 0) {
      if (write(STDOUT_FILENO, buffer, static_cast<std::size_t>(n)) != n) break;
    }
    close(out_fd);
  }
  return code;
}
