// The files of the installed Debian packages, read from dpkg's own database
// (its status file and the per-package file lists), not by scanning the
// disk: the baseline must hold what the package manager put there and
// nothing an intruder dropped next to it.
#pragma once

#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

namespace aectool {

// dpkg's database directory on this machine.
inline constexpr const char* kDpkgAdminDir = "/var/lib/dpkg";

struct PackageFiles {
  // Canonical paths of the regular files that a program start or a library
  // load can use: ELF executables and shared objects (checked from the
  // header, not the name) and scripts starting "#!".
  std::set<std::string> files;
  // Packages whose files were read (every package with files on disk).
  std::size_t packages = 0;
  // Packages that gave at least one of `files`.
  std::size_t contributing_packages = 0;
  // Listed paths that no longer exist (removed by hand, diverted): skipped.
  std::size_t vanished = 0;
  // Listed dangling links, when they are skipped rather than refused.
  std::vector<std::string> dangling;
};

// Reads `admin_dir`/status and, for every package whose files are on disk
// (status installed, unpacked, half-configured, half-installed,
// triggers-awaited, triggers-pending), its list file info/<name>.list or
// info/<name>:<arch>.list. Symbolic links are followed to the file they
// name, which is what the kernel sees when the file is run.
// Throws ToolError(kConfigMissing) when the status file cannot be read,
// ToolError(kResourceMissing) naming every package without a readable list
// file and every listed path that is a dangling symbolic link. Nothing is
// returned in part. With `skip_dangling` a dangling link is not an error
// but listed in `dangling` (Debian packages do ship links that only
// resolve once another package is installed).
PackageFiles ReadPackageFiles(const std::string& admin_dir,
                              bool skip_dangling = false);

// True when the file at `path` (a regular file) starts with an ELF header
// of type executable or shared object, or with "#!".
bool IsLoadable(const std::string& path);

// Whether a regular file of `mode` whose name is `name` (or that a listed
// link named `name` points to) can be started or loaded as code at all:
// someone may execute it, or it is named as a shared object ("NAME.so" or
// "NAME.so.VERSION"). Only such files are opened for their header. A file
// nobody may execute cannot be started whatever it holds, and the loader
// and dlopen find libraries by their .so names; skipping the rest (most of
// a package's files: data, documentation, separate debug information)
// spares reading a block of every file with a cold cache.
bool MayBeCode(mode_t mode, const std::string& name);

}  // namespace aectool
