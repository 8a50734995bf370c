#include "aec_config_read.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/property_tree/json_parser.hpp>
#include <cerrno>
#include <cstring>
#include <limits>
#include <sstream>

#include "host/document_limits.h"

#include "host/unique_fd.h"

namespace aec {
namespace {

[[noreturn]] void Fail(ConfigReadError::Kind kind, const std::string& path,
                       const std::string& why) {
  throw ConfigReadError(kind, path + ": " + why);
}

[[noreturn]] void FailErrno(const std::string& path, int error) {
  Fail(error == ENOENT ? ConfigReadError::Kind::kMissing
                       : ConfigReadError::Kind::kIo,
       path, std::strerror(error));
}

}  // namespace

std::string ReadConfigFile(const std::string& path, std::size_t max_bytes,
                           Links links) {
  int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
  if (links == Links::kRefuse) flags |= O_NOFOLLOW;
  const kxfs::UniqueFd file(::open(path.c_str(), flags));
  if (file.get() < 0) {
    if (errno == ELOOP && links == Links::kRefuse) {
      Fail(ConfigReadError::Kind::kNotRegular, path, "a symbolic link");
    }
    FailErrno(path, errno);
  }
  struct stat info;
  if (::fstat(file.get(), &info) != 0) FailErrno(path, errno);
  if (!S_ISREG(info.st_mode)) {
    Fail(ConfigReadError::Kind::kNotRegular, path, "not a regular file");
  }
  const std::string too_large =
      "larger than " + std::to_string(max_bytes) + " bytes";
  if (static_cast<std::size_t>(info.st_size) > max_bytes) {
    Fail(ConfigReadError::Kind::kTooLarge, path, too_large);
  }
  std::string content;
  content.reserve(static_cast<std::size_t>(info.st_size));
  char buffer[65536];
  for (;;) {
    const ssize_t got = ::read(file.get(), buffer, sizeof buffer);
    if (got < 0) {
      if (errno == EINTR) continue;
      FailErrno(path, errno);
    }
    if (got == 0) break;
    if (content.size() + static_cast<std::size_t>(got) > max_bytes) {
      Fail(ConfigReadError::Kind::kTooLarge, path, too_large);
    }
    content.append(buffer, static_cast<std::size_t>(got));
  }
  return content;
}

boost::property_tree::ptree ParseConfigJson(const std::string& path,
                                            const std::string& text) {
  try {
    // The size is the caller's bound, checked as the file was read.
    kxdoc::CheckJsonLimits(
        text, kxdoc::DocumentLimits{std::numeric_limits<std::size_t>::max(),
                                    kMaxConfigDepth});
  } catch (const kxdoc::DocumentLimitError&) {
    Fail(ConfigReadError::Kind::kTooDeep, path,
         "nested deeper than " + std::to_string(kMaxConfigDepth) + " levels");
  }
  boost::property_tree::ptree tree;
  std::istringstream in(text);
  boost::property_tree::read_json(in, tree);
  return tree;
}

boost::property_tree::ptree ReadJsonConfigFile(const std::string& path,
                                               std::size_t max_bytes) {
  return ParseConfigJson(path, ReadConfigFile(path, max_bytes));
}

}  // namespace aec
