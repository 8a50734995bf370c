#include "dpkg_database.h"

#include <elf.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <thread>

#include "resolved_directories.h"
#include "tool_error.h"

namespace aectool {
namespace {

struct InstalledPackage {
  std::string name;
  std::string architecture;
};

// The states in which a package's files are (or may partly be) on disk.
bool HasFilesOnDisk(const std::string& status) {
  // "want flag state": the state is the last word.
  const auto space = status.find_last_of(' ');
  const std::string state =
      space == std::string::npos ? status : status.substr(space + 1);
  return state == "installed" || state == "unpacked" ||
         state == "half-configured" || state == "half-installed" ||
         state == "triggers-awaited" || state == "triggers-pending";
}

std::vector<InstalledPackage> ReadStatus(const std::string& path) {
  std::ifstream in(path);
  if (!in) {
    throw ToolError(Exit::kConfigMissing,
                    "cannot read the package status file " + path);
  }
  std::vector<InstalledPackage> packages;
  InstalledPackage current;
  std::string status;
  auto finish = [&]() {
    if (!current.name.empty() && HasFilesOnDisk(status)) {
      packages.push_back(current);
    }
    current = InstalledPackage{};
    status.clear();
  };
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty()) {
      finish();
      continue;
    }
    if (line[0] == ' ' || line[0] == '\t') continue;  // a continuation
    const auto colon = line.find(':');
    if (colon == std::string::npos) continue;
    const std::string key = line.substr(0, colon);
    std::string value = line.substr(colon + 1);
    const auto start = value.find_first_not_of(" \t");
    value = start == std::string::npos ? "" : value.substr(start);
    while (!value.empty() && (value.back() == ' ' || value.back() == '\r')) {
      value.pop_back();
    }
    if (key == "Package") {
      current.name = value;
    } else if (key == "Architecture") {
      current.architecture = value;
    } else if (key == "Status") {
      status = value;
    }
  }
  if (in.bad()) {
    throw ToolError(Exit::kConfigMissing,
                    "cannot read the package status file " + path);
  }
  finish();
  return packages;
}

// dpkg names the list of a package that may be installed for several
// architectures at once "<name>:<arch>.list", any other "<name>.list".
bool OpenList(const std::string& info_dir, const InstalledPackage& package,
              std::ifstream* list) {
  if (!package.architecture.empty()) {
    list->open(info_dir + package.name + ":" + package.architecture + ".list");
    if (*list) return true;
    list->clear();
  }
  list->open(info_dir + package.name + ".list");
  return static_cast<bool>(*list);
}

// Paths checked at a time (see CheckAll).
constexpr int kCheckers = 8;

// What one listed path turned out to be.
struct Listed {
  enum Kind { kVanished, kDangling, kOther, kLoadable } kind = kOther;
  std::string resolved;  // the canonical path of a loadable file
};

Listed Check(const std::string& path, ResolvedDirectories* directories) {
  Listed listed;
  struct stat link_status;
  if (::lstat(path.c_str(), &link_status) != 0) {
    listed.kind = Listed::kVanished;
    return listed;
  }
  // Directories are most of a list and never a resource.
  if (S_ISDIR(link_status.st_mode)) return listed;
  if (S_ISREG(link_status.st_mode)) {
    if (!MayBeCode(link_status.st_mode, path)) return listed;
    // A file's own name is no link: only its directory needs resolving,
    // and the lists name the same few directories over and over.
    const std::optional<std::string> resolved = directories->FileIn(path);
    if (!resolved) return listed;
    listed.resolved = *resolved;
  } else {
    char buffer[PATH_MAX];
    if (::realpath(path.c_str(), buffer) == nullptr) {
      if (S_ISLNK(link_status.st_mode)) listed.kind = Listed::kDangling;
      return listed;
    }
    struct stat file_status;
    if (::stat(buffer, &file_status) != 0 || !S_ISREG(file_status.st_mode) ||
        !(MayBeCode(file_status.st_mode, path) ||
          MayBeCode(file_status.st_mode, buffer))) {
      return listed;
    }
    listed.resolved = buffer;
  }
  if (IsLoadable(listed.resolved)) listed.kind = Listed::kLoadable;
  return listed;
}

// Checks every path, several at a time: with a cold cache the check is a
// wait for the disk (a hundred thousand paths, most of them opened for
// their first bytes), and the disk answers several requests at once.
std::vector<Listed> CheckAll(const std::vector<std::string>& paths) {
  std::vector<Listed> checked(paths.size());
  std::atomic<std::size_t> next{0};
  auto work = [&] {
    ResolvedDirectories directories;
    for (std::size_t i = next++; i < paths.size(); i = next++) {
      checked[i] = Check(paths[i], &directories);
    }
  };
  std::vector<std::thread> workers;
  for (int i = 0; i < kCheckers - 1; ++i) workers.emplace_back(work);
  work();
  for (auto& worker : workers) worker.join();
  return checked;
}

}  // namespace

bool MayBeCode(mode_t mode, const std::string& name) {
  if ((mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0) return true;
  const auto slash = name.rfind('/');
  const std::string file =
      slash == std::string::npos ? name : name.substr(slash + 1);
  for (auto at = file.find(".so"); at != std::string::npos;
       at = file.find(".so", at + 1)) {
    if (at > 0 && (at + 3 == file.size() || file[at + 3] == '.')) return true;
  }
  return false;
}

bool IsLoadable(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return false;
  unsigned char head[EI_NIDENT + 2] = {};
  ssize_t got = 0;
  while (got < static_cast<ssize_t>(sizeof head)) {
    const ssize_t n = ::read(fd, head + got, sizeof head - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += n;
  }
  ::close(fd);
  if (got >= 2 && head[0] == '#' && head[1] == '!') return true;
  if (got < static_cast<ssize_t>(sizeof head) ||
      std::memcmp(head, ELFMAG, SELFMAG) != 0) {
    return false;
  }
  // e_type follows the identification, in the file's own byte order.
  const bool little = head[EI_DATA] == ELFDATA2LSB;
  const unsigned type = little ? head[EI_NIDENT] | head[EI_NIDENT + 1] << 8
                               : head[EI_NIDENT] << 8 | head[EI_NIDENT + 1];
  return type == ET_EXEC || type == ET_DYN;
}

PackageFiles ReadPackageFiles(const std::string& admin_dir,
                              bool skip_dangling) {
  std::string dir = admin_dir;
  if (dir.empty() || dir.back() != '/') dir += '/';
  const std::vector<InstalledPackage> packages = ReadStatus(dir + "status");

  PackageFiles result;
  std::vector<std::string> problems;
  // Every listed path first, in list order, with its package.
  std::vector<std::string> paths;
  std::vector<std::size_t> package_of;
  const std::string info_dir = dir + "info/";
  for (std::size_t i = 0; i < packages.size(); ++i) {
    std::ifstream list;
    if (!OpenList(info_dir, packages[i], &list)) {
      problems.push_back("no file list for package " + packages[i].name);
      continue;
    }
    ++result.packages;
    std::string path;
    while (std::getline(list, path)) {
      if (path.empty() || path[0] != '/') continue;
      paths.push_back(path);
      package_of.push_back(i);
    }
  }

  const std::vector<Listed> checked = CheckAll(paths);

  std::vector<bool> contributed(packages.size(), false);
  for (std::size_t i = 0; i < paths.size(); ++i) {
    switch (checked[i].kind) {
      case Listed::kVanished:
        ++result.vanished;
        break;
      case Listed::kDangling:
        if (skip_dangling) {
          result.dangling.push_back(paths[i]);
        } else {
          problems.push_back(paths[i] + " (package " +
                             packages[package_of[i]].name +
                             ") is a dangling link");
        }
        break;
      case Listed::kLoadable:
        result.files.insert(checked[i].resolved);
        contributed[package_of[i]] = true;
        break;
      case Listed::kOther:
        break;
    }
  }
  for (bool gave : contributed) result.contributing_packages += gave ? 1 : 0;
  if (!problems.empty()) {
    throw ToolError(Exit::kResourceMissing,
                    WithObjects("the package database is incomplete", problems),
                    problems);
  }
  return result;
}

}  // namespace aectool
