// What every fuzz target shares: a private install root on a tmpfs, fast
// fake agent tools, a small audit journal, and a cheap way back to a known
// state between runs.
//
// Everything here runs inside the fuzzer's own mount namespace (entered once
// from LLVMFuzzerInitialize); nothing reaches the machine's /opt/korvex.
// Failures of the set-up abort the process: a fuzzer that silently runs in
// the wrong place would report nothing worth having.
#pragma once

#include <sys/stat.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace kxfuzz {

// A property that must hold for every input; a violation is reported like a
// crash, with the input saved by libFuzzer.
[[noreturn]] void Violation(const char* file, int line,
                            const std::string& what);
#define KXFUZZ_CHECK(condition, what)                                  \
  do {                                                                 \
    if (!(condition)) ::kxfuzz::Violation(__FILE__, __LINE__, (what)); \
  } while (0)

// Enters a private mount namespace with a fresh tmpfs at /opt/korvex,
// seeded like a fresh installation, the fast fake tool installed as
// bin/kxaecctl and bin/kxaide (answering 0 with no output), the host
// configured to write kernel parameters into the root and to keep no events
// file. Call once, before any thread is started.
void EnterFuzzSandbox();

// What the fake tools answer from now on: their exit code and the text
// they print (copied verbatim to standard output).
void SetToolAnswer(int exit_code, const std::string& output);

// Writes the audit journal /opt/korvex/var/log/audit_logs.db with a handful
// of rows of table `logs`.
void MakeJournal();

// Replaces `path` with `content` (aborts on failure).
void WriteFile(const std::string& path, const std::string& content);

// Before the first fuzzer run, re-executes the process once with
// nss_wrapper preloaded and its own passwd/group files, so that account
// lookups see the names that the fake directory hands out (and never the
// machine's /etc). Returns when the process already runs so. Aborts when
// nss_wrapper is missing.
void ReexecWithNssWrapper();

// The state of some directory trees, and a way back to it. The trees are
// small (a fresh root): every file's content is kept in memory.
class Baseline {
 public:
  // Records every entry below each of `roots` now.
  explicit Baseline(std::vector<std::string> roots);

  // Puts the trees back as recorded: removes what was added, rewrites what
  // changed, makes what is missing. `before_change` runs once, before the
  // first change, so that a caller can close handles first (the settings
  // database). Returns whether anything had to change.
  bool Restore(const std::function<void()>& before_change);

 private:
  struct Entry {
    bool directory = false;
    mode_t mode = 0;
    std::string content;
    timespec mtime{};
    off_t size = 0;
  };

  void Record(const std::string& path);

  std::vector<std::string> roots_;
  std::map<std::string, Entry> entries_;
};

}  // namespace kxfuzz
