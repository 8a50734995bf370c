// Test support shared by every suite.
//
// The test main (test_main.cpp) puts the whole test process into a private
// mount namespace before any test runs, so /opt/korvex inside a test is never
// the machine's. Each SandboxTest gets a fresh scratch root mounted at
// /opt/korvex for the duration of the test, host state reset, the sysctl
// directory at /opt/korvex/var/run/sysctl and a log capture.
#pragma once

#include <sys/types.h>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace kxtest {

// A fresh directory with the install-root layout, mounted at /opt/korvex
// while the object lives.
class ScratchRoot {
 public:
  ScratchRoot();
  ~ScratchRoot();
  ScratchRoot(const ScratchRoot&) = delete;
  ScratchRoot& operator=(const ScratchRoot&) = delete;
  // The directory as seen outside /opt/korvex (for kxhost --root).
  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
};

// Collects the host's log lines while it lives.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  std::vector<std::string> Lines() const;
  bool Contains(const std::string& text) const;  // any line holds `text`
  void Clear();
};

class SandboxTest : public ::testing::Test {
 protected:
  ScratchRoot root_;
  LogCapture log_;
};

void WriteFile(const std::string& path, const std::string& content,
               unsigned mode = 0644);
std::string ReadFile(const std::string& path);  // throws if unreadable
bool Exists(const std::string& path);
// A new directory /tmp/<prefix>XXXXXX; the caller removes it.
std::string MakeTempDir(const std::string& prefix);
// Content and mode bits. By hand: Boost 1.74's copy_file fails across file
// systems (EXDEV from copy_file_range) instead of falling back to copying.
void CopyFile(const std::string& from, const std::string& to);
// Directories (with their mode bits), links and files below `from`, except
// those for which `skip(path)` is true.
void CopyTree(const std::string& from, const std::string& to,
              const std::function<bool(const std::string&)>& skip = nullptr);

// A fake agent tool at /opt/korvex/bin/<name>: records its argument vector
// (without argv[0]) for each run and answers with the given behaviour.
struct FakeBehaviour {
  int exit_code = 0;
  std::vector<std::string> lines;         // printed on standard output
  bool last_line_without_newline = false;
  int kill_signal = 0;                    // non-zero: dies by this signal
  std::vector<std::string> create_files;  // files it creates (empty) on a run
};
void InstallFakeTool(const std::string& name, const FakeBehaviour& behaviour);
// One entry per run, in order; each the arguments after argv[0].
std::vector<std::vector<std::string>> FakeToolCalls(const std::string& name);

// One run of a child program, waited for.
struct RunResult {
  int exit_code = -1;  // 128 + N for death by signal N; 127: could not start
  std::string out;
  std::string err;
};

// Runs argv[0] (an absolute path; no shell) with the rest as its arguments
// and waits for it. Standard input comes from `input` (empty: end of input
// at once); standard output and error are collected. `env` entries are laid
// over (added to, or replacing) the test's environment.
RunResult RunProgram(const std::vector<std::string>& argv,
                     const std::string& input = "",
                     const std::map<std::string, std::string>& env = {});

// RunProgram of the built kxhost with `args`.
RunResult RunKxhost(const std::vector<std::string>& args,
                    const std::string& input = "",
                    const std::map<std::string, std::string>& env = {});

// Starts argv[0] like RunProgram, with standard input, output and error on
// /dev/null, and returns at once; the caller waits (WaitFor).
pid_t SpawnProgram(const std::vector<std::string>& argv,
                   const std::map<std::string, std::string>& env = {});

// The test's environment with `env` laid over it, as execve wants it.
std::vector<std::string> EnvironmentWith(
    const std::map<std::string, std::string>& env);
// A waitpid status as an exit code: 128 + N for death by signal N.
int ExitCodeOf(int status);
// Waits for `pid`; its exit code as ExitCodeOf gives it.
int WaitFor(pid_t pid);

}  // namespace kxtest
