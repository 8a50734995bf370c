#include "kxaide/checksum_list.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "kxaide/aide_error.h"
#include "kxaide/sha256_file.h"

namespace kxaide {
namespace {

std::string Trim(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  const auto last = text.find_last_not_of(" \t\r");
  return text.substr(first, last - first + 1);
}

std::string WithoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

[[noreturn]] void CannotRead(const std::string& path, int error) {
  throw AideError(kExitIo, "cannot read " + path + ": " + std::strerror(error));
}

void AddDirectory(const std::string& dir, ChecksumDb* db) {
  DIR* stream = ::opendir(dir.c_str());
  if (stream == nullptr) CannotRead(dir, errno);
  std::vector<std::string> files;
  errno = 0;
  while (const dirent* entry = ::readdir(stream)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    const std::string path = (dir == "/" ? "" : dir) + "/" + name;
    struct stat info;
    // Followed: a link to a regular file is read (and checksummed) as the
    // file it leads to, just as the rule-control tool reads it.
    if (::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
      files.push_back(path);
    }
    errno = 0;
  }
  const int read_error = errno;
  ::closedir(stream);
  if (read_error != 0) CannotRead(dir, read_error);
  for (const auto& file : files) (*db)[file] = Sha256File(file);
}

}  // namespace

std::vector<std::string> ReadList(const std::string& path) {
  struct stat info;
  if (::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
    throw AideError(kExitBadList,
                    "cannot read the list " + path + ": not a regular file");
  }
  std::ifstream in(path);
  if (!in) {
    throw AideError(kExitBadList, "cannot read the list " + path + ": " +
                                      std::strerror(errno));
  }
  std::vector<std::string> entries;
  std::string line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    const std::string entry = Trim(line);
    if (entry.empty() || entry[0] == '#') continue;
    if (entry[0] != '/') {
      throw AideError(kExitBadList, path + ":" + std::to_string(number) +
                                        ": not an absolute path: " + entry);
    }
    entries.push_back(WithoutTrailingSlashes(entry));
  }
  if (in.bad()) {
    throw AideError(kExitBadList, "cannot read the list " + path);
  }
  return entries;
}

ChecksumDb ComputeChecksums(const std::vector<std::string>& entries) {
  ChecksumDb db;
  for (const auto& entry : entries) {
    struct stat info;
    if (::stat(entry.c_str(), &info) != 0) {
      // Absent now: recorded as absent, which is what a later check
      // compares against.
      if (errno == ENOENT || errno == ENOTDIR) continue;
      CannotRead(entry, errno);
    }
    if (S_ISDIR(info.st_mode)) {
      AddDirectory(entry, &db);
    } else if (S_ISREG(info.st_mode)) {
      db[entry] = Sha256File(entry);
    } else {
      throw AideError(kExitIo, "cannot read " + entry + ": not a regular file");
    }
  }
  return db;
}

}  // namespace kxaide
