// Shared by the reliability suites (faults, hostile, kill): running kxhost
// as a child with an environment of the test's choosing, and comparing
// directory trees by path, type, size and SHA-256.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "kxtest.h"

namespace kxharness {

using ProgramResult = kxtest::RunResult;

// Runs the built kxhost with `args`; `env` entries are added to (or replace
// those of) the test's environment. Standard input from `input`. Waits.
ProgramResult RunKxhost(const std::vector<std::string>& args,
                        const std::map<std::string, std::string>& env = {},
                        const std::string& input = "");

// Starts the built kxhost with its output discarded and returns at once.
pid_t SpawnKxhost(const std::vector<std::string>& args,
                  const std::map<std::string, std::string>& env = {});
// Waits for `pid`; the exit code, or 128 + N for death by signal N.
int Wait(pid_t pid);

// One entry of a tree, compared whole.
struct Node {
  char type = '?';  // 'd' directory, 'f' regular file, 'l' link, '?' other
  unsigned mode = 0;
  long long size = 0;
  std::string sha256;  // regular files: of the content; links: of the target
  bool operator==(const Node& other) const {
    return type == other.type && mode == other.mode && size == other.size &&
           sha256 == other.sha256;
  }
};
using Tree = std::map<std::string, Node>;  // keyed by path relative to the root

// Every entry below `dir` (not following links), except those for which
// `skip(relative path)` is true (a skipped directory is not descended).
Tree Snapshot(const std::string& dir,
              const std::function<bool(const std::string&)>& skip = nullptr);
// "added X", "removed X", "changed X" for every difference, in path order.
std::vector<std::string> Differences(const Tree& before, const Tree& after);

std::string Sha256(const std::string& data);
std::string ReadFileOr(const std::string& path, const std::string& fallback);

// A new directory /tmp/<prefix>XXXXXX; removed by the caller (RemoveTree).
using kxtest::MakeTempDir;

// A new directory /tmp/<prefix>XXXXXX with a tmpfs of its own, mounted in
// the test process's private namespace (kxhost children see it too): roots
// there cost no disk flushes. Unmounted and removed with the object.
class ScratchTmpfs {
 public:
  ScratchTmpfs(const std::string& prefix, const std::string& size = "256m");
  ~ScratchTmpfs();
  ScratchTmpfs(const ScratchTmpfs&) = delete;
  ScratchTmpfs& operator=(const ScratchTmpfs&) = delete;
  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
};
// Content and mode bits.
using kxtest::CopyFile;
using kxtest::CopyTree;
void RemoveTree(const std::string& dir);

}  // namespace kxharness
