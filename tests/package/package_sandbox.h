// A clean machine for installing the package for real.
//
// The test process is already in a private mount namespace (the test main).
// PackageSandbox stacks two more mounts there: an empty scratch directory
// over /opt, so that dpkg and the maintainer scripts find no /opt/korvex and
// make it in the scratch directory, and a scratch copy of the dpkg database
// over /var/lib/dpkg, so that installing, upgrading and removing change only
// the copy. Neither is visible outside the test process and its children.
#pragma once

#include <string>
#include <vector>

#include "kxtest.h"

namespace pkgtest {

using kxtest::RunResult;

// Runs argv[0] (an absolute path; no shell) with empty standard input, a PATH
// that holds the sbin directories (dpkg wants ldconfig and start-stop-daemon
// there) and LC_ALL=C. Waits for it.
RunResult RunProgram(const std::vector<std::string>& argv);

// A new empty directory below /tmp; the caller removes it.
std::string MakeTempDir();

class PackageSandbox {
 public:
  // Throws std::runtime_error when the process is not in the test sandbox
  // (then nothing is mounted) or a step fails.
  PackageSandbox();
  ~PackageSandbox();
  PackageSandbox(const PackageSandbox&) = delete;
  PackageSandbox& operator=(const PackageSandbox&) = delete;

  // dpkg with its log in the scratch directory and without trigger
  // processing, so that no other package's trigger runs against the
  // machine. "--log" and "--no-triggers" come before `args`.
  RunResult Dpkg(const std::vector<std::string>& args) const;

  // The package's state and version as the (copied) database has them,
  // "" when it does not know the package.
  std::string Status(const std::string& package) const;
  std::string Version(const std::string& package) const;

  // Lays `dir` over /var/lib/dpkg, so that what reads dpkg's database (the
  // baseline) sees a database the test made, until RestoreDpkgDatabase or
  // the end of the sandbox. dpkg itself must not run meanwhile: the
  // installed package's record is in the copy below. Throws
  // std::runtime_error when the mount fails.
  void OverlayDpkgDatabase(const std::string& dir);
  void RestoreDpkgDatabase();

  // A path in the scratch directory, outside /opt and the dpkg database.
  std::string Scratch(const std::string& name) const {
    return dir_ + "/" + name;
  }

 private:
  void RemoveScratch();
  void UnmountAll();

  std::string dir_;  // a tmpfs, gone with the object
  bool systemd_bound_ = false;
  bool dpkg_overlaid_ = false;
};

// Every entry below `dir` (relative path, "/" after directories) with the
// content of each regular file and the target of each link: two equal
// snapshots mean nothing was added, removed or rewritten.
std::vector<std::string> Snapshot(const std::string& dir);

// The directories below `dir` (relative paths).
std::vector<std::string> Directories(const std::string& dir);

}  // namespace pkgtest
