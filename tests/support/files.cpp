#include <sys/stat.h>

#include <boost/filesystem.hpp>
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

}  // namespace kxtest
