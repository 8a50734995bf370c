#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "kxtest.h"

namespace kxtest {

void WriteFile(const std::string& path, const std::string& content,
               unsigned mode) {
  const boost::filesystem::path parent =
      boost::filesystem::path(path).parent_path();
  if (!parent.empty()) boost::filesystem::create_directories(parent);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  if (!out) throw std::runtime_error("WriteFile: cannot write " + path);
  if (chmod(path.c_str(), static_cast<mode_t>(mode)) != 0) {
    throw std::runtime_error("WriteFile: cannot chmod " + path);
  }
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("ReadFile: cannot read " + path);
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) throw std::runtime_error("ReadFile: cannot read " + path);
  return text.str();
}

bool Exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

std::string MakeTempDir(const std::string& prefix) {
  std::string pattern = "/tmp/" + prefix + "XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) {
    throw std::runtime_error("MakeTempDir: " + std::string(strerror(errno)));
  }
  return pattern;
}

void CopyFile(const std::string& from, const std::string& to) {
  struct stat info;
  if (stat(from.c_str(), &info) != 0) {
    throw std::runtime_error("CopyFile: cannot stat " + from);
  }
  const std::string data = ReadFile(from);
  const int fd = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                      info.st_mode & 07777);
  if (fd < 0) throw std::runtime_error("CopyFile: cannot create " + to);
  std::size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n <= 0) {
      close(fd);
      throw std::runtime_error("CopyFile: cannot write " + to);
    }
    done += static_cast<std::size_t>(n);
  }
  fchmod(fd, info.st_mode & 07777);
  close(fd);
}

void CopyTree(const std::string& from, const std::string& to,
              const std::function<bool(const std::string&)>& skip) {
  namespace fs = boost::filesystem;
  fs::create_directories(to);
  fs::permissions(to, fs::status(from).permissions());
  for (fs::recursive_directory_iterator it(from), end; it != end; ++it) {
    if (skip && skip(it->path().string())) {
      if (fs::is_directory(it->symlink_status())) it.disable_recursion_pending();
      continue;
    }
    // Lexically: fs::relative would resolve a link to what it points at.
    const fs::path relative = it->path().lexically_relative(from);
    const fs::path target = fs::path(to) / relative;
    const fs::file_status status = it->symlink_status();
    if (fs::is_directory(status)) {
      fs::create_directories(target);
      fs::permissions(target, status.permissions());
    } else if (fs::is_symlink(status)) {
      fs::copy_symlink(it->path(), target);
    } else {
      CopyFile(it->path().string(), target.string());
    }
  }
}

}  // namespace kxtest
