#include "dpkg_database.h"

#include <elf.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

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

}  // namespace

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
  const std::string info_dir = dir + "info/";
  for (const auto& package : packages) {
    std::ifstream list;
    if (!OpenList(info_dir, package, &list)) {
      problems.push_back("no file list for package " + package.name);
      continue;
    }
    ++result.packages;
    bool contributed = false;
    std::string path;
    while (std::getline(list, path)) {
      if (path.empty() || path[0] != '/') continue;
      struct stat link_status;
      if (::lstat(path.c_str(), &link_status) != 0) {
        ++result.vanished;
        continue;
      }
      char resolved[PATH_MAX];
      if (::realpath(path.c_str(), resolved) == nullptr) {
        if (S_ISLNK(link_status.st_mode) && skip_dangling) {
          result.dangling.push_back(path);
        } else if (S_ISLNK(link_status.st_mode)) {
          problems.push_back(path + " (package " + package.name +
                             ") is a dangling link");
        }
        continue;
      }
      struct stat file_status;
      if (::stat(resolved, &file_status) != 0 ||
          !S_ISREG(file_status.st_mode) || !IsLoadable(resolved)) {
        continue;
      }
      result.files.insert(resolved);
      contributed = true;
    }
    if (contributed) ++result.contributing_packages;
  }
  if (!problems.empty()) {
    throw ToolError(Exit::kResourceMissing,
                    WithObjects("the package database is incomplete", problems),
                    problems);
  }
  return result;
}

}  // namespace aectool
