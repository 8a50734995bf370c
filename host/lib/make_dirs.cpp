#include "make_dirs.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace kxhost {

void MakeDirs(const std::string& path) {
  for (std::size_t slash = path.find('/', 1);;
       slash = path.find('/', slash + 1)) {
    const std::string part = path.substr(0, slash);
    if (!part.empty() && mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
      throw std::runtime_error("mkdir " + part + ": " + std::strerror(errno));
    }
    if (slash == std::string::npos) break;
  }
}

}  // namespace kxhost
