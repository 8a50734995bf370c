// A stand-in for an agent tool in a sandboxed install root.
//
// Installed as /opt/korvex/bin/<name>; its behaviour comes from
// <name>.behaviour beside it, one directive a line:
//   exit N      exit code (default 0)
//   signal N    die by signal N after printing (0: none)
//   nonl 1      print the last line without a line break
//   line TEXT   a line to print on standard output (in order)
//   file PATH   a file to create, empty, on each run
// TEXT and PATH are escaped: "\\" for a backslash, "\n" for a line break.
// Each run appends one record to <name>.calls: the argument count in decimal,
// a NUL, then every argument after argv[0] followed by a NUL. Arguments
// cannot hold NUL bytes, so records survive any other content (line breaks
// included). No shell is involved anywhere.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

std::string Unescape(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      ++i;
      out += text[i] == 'n' ? '\n' : text[i];
    } else {
      out += text[i];
    }
  }
  return out;
}

// argv[0] is the path the tool was started by, unless it was found through
// PATH; then the running binary's own path tells where it lives.
std::string SelfPath(const char* argv0) {
  const std::string given = argv0 != nullptr ? argv0 : "";
  if (given.find('/') != std::string::npos) return given;
  char buffer[4096];
  const ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (length <= 0) return given;
  buffer[length] = '\0';
  return buffer;
}

bool AppendAll(int fd, const std::string& data) {
  const char* p = data.data();
  std::size_t left = data.size();
  while (left > 0) {
    const ssize_t written = write(fd, p, left);
    if (written < 0) return false;
    p += written;
    left -= static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string self = SelfPath(argv[0]);

  int exit_code = 0;
  int kill_signal = 0;
  bool no_newline = false;
  std::vector<std::string> lines;
  std::vector<std::string> files;
  std::ifstream behaviour(self + ".behaviour");
  std::string directive;
  while (std::getline(behaviour, directive)) {
    const auto space = directive.find(' ');
    const std::string key = directive.substr(0, space);
    const std::string value =
        space == std::string::npos ? "" : Unescape(directive.substr(space + 1));
    if (key == "exit") exit_code = std::atoi(value.c_str());
    if (key == "signal") kill_signal = std::atoi(value.c_str());
    if (key == "nonl") no_newline = value == "1";
    if (key == "line") lines.push_back(value);
    if (key == "file") files.push_back(value);
  }

  std::string record = std::to_string(argc > 0 ? argc - 1 : 0);
  record.push_back('\0');
  for (int i = 1; i < argc; ++i) {
    record += argv[i];
    record.push_back('\0');
  }
  // One write on an O_APPEND descriptor, so records of concurrent runs do
  // not interleave.
  const int calls = open((self + ".calls").c_str(),
                         O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (calls < 0 || !AppendAll(calls, record)) {
    std::perror("kxfake: cannot record the call");
    return 125;
  }
  close(calls);

  for (const auto& file : files) {
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                        0644);
    if (fd >= 0) close(fd);
  }

  for (std::size_t i = 0; i < lines.size(); ++i) {
    std::fputs(lines[i].c_str(), stdout);
    if (i + 1 < lines.size() || !no_newline) std::fputc('\n', stdout);
  }
  std::fflush(stdout);

  if (kill_signal != 0) {
    signal(kill_signal, SIG_DFL);
    raise(kill_signal);
    return 128 + kill_signal;
  }
  return exit_code;
}
