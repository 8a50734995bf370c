#include "host/file_util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "host/unique_fd.h"

namespace kxfs {
namespace {

[[noreturn]] void Fail(const std::string& step, const std::string& path,
                       int error) {
  throw std::system_error(error, std::generic_category(),
                          "ReplaceFile: " + step + " " + path);
}

std::string BaseName(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string DirName(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

void WriteAll(int fd, const std::string& content, const std::string& temp) {
  const char* data = content.data();
  std::size_t left = content.size();
  while (left > 0) {
    const ssize_t written = write(fd, data, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      Fail("write", temp, errno);
    }
    data += written;
    left -= static_cast<std::size_t>(written);
  }
}

// Closes the temporary file and removes it unless the rename has consumed it.
class TempFile {
 public:
  explicit TempFile(std::string path) : path_(std::move(path)) {}
  ~TempFile() {
    if (!path_.empty()) unlink(path_.c_str());
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  kxfs::UniqueFd fd_;
  std::string path_;
};

}  // namespace

void ReplaceFile(const std::string& path, const std::string& content,
                 const std::string& temp_dir, unsigned mode) {
  std::string staging = temp_dir.empty() ? DirName(path) : temp_dir;
  // One separator, whichever way the caller spelt the directory: the
  // temporary's name is what fault injection and logs match on.
  if (staging.size() > 1 && staging.back() == '/') staging.pop_back();
  std::string pattern = staging + "/." + BaseName(path) + ".XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  const int fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) Fail("create a temporary file for", path, errno);
  TempFile temp(name.data());
  temp.fd_.reset(fd);

  WriteAll(fd, content, temp.path_);
  if (fchmod(fd, static_cast<mode_t>(mode)) != 0) {
    Fail("set the mode of", temp.path_, errno);
  }
  if (fsync(fd) != 0) Fail("flush", temp.path_, errno);
  const int closing = temp.fd_.release();
  if (close(closing) != 0) Fail("close", temp.path_, errno);
  if (rename(temp.path_.c_str(), path.c_str()) != 0) {
    Fail("rename over", path, errno);
  }
  temp.path_.clear();

  // Makes the rename itself durable. The new content is in place already, so
  // a directory that cannot be flushed is no reason to report failure.
  const int dir = open(DirName(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    fsync(dir);
    close(dir);
  }
}

}  // namespace kxfs
